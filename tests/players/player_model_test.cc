/* A player against a small model of its own: random commands and events, with a plug-in that
 * refuses now these, now those tracks. The seed of a failure is printed; LYRANE_SEED runs it again.
 */
#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "msglog.h"
#include "playback_events.h"
#include "player_commands.h"
#include "player_rig.h"
#include "trksession.h"
#include "trksession_walk.h"

namespace {

constexpr int32_t TRACKS = 7;
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int32_t STEPS = 10000;
#else
constexpr int32_t STEPS = 30000;
#endif

/* What a listener would say happened. */
struct model {
    int32_t status = LYR_STATUS_STOPPED;
    int32_t shuffle = 0;
    int32_t repeat = 0;
    int32_t current = 0;
    int32_t shown = 0;
    int32_t position = 0;
    int32_t skips = 0; /* in a row, without a sound */
    std::vector<int32_t> order = std::vector<int32_t>(TRACKS);
    std::set<int32_t> refused;
};

/* The track one step on (or back), -1: none. */
int32_t walk(const model& m, int32_t repeat, int32_t step) {
    const auto here = std::find(m.order.begin(), m.order.end(), m.current) - m.order.begin();
    const int32_t at = static_cast<int32_t>(here) + step;
    switch (repeat) {
    case 0:
        return at < 0 || at >= TRACKS ? -1 : m.order[static_cast<size_t>(at)];
    case 1:
        return m.order[static_cast<size_t>((at + TRACKS) % TRACKS)];
    case 2:
        return m.current;
    default:
        return -1;
    }
}

int32_t give_up(model& m) {
    m.status = LYR_STATUS_STOPPED;
    return -1;
}

/* A track and those behind it, until one is taken. */
int32_t attach(model& m, int32_t index, int32_t repeat, bool after_error = false) {
    const int32_t first = index;
    for (int32_t tried = 1;; ++tried) {
        m.current = index;
        if (m.refused.count(index) == 0) {
            m.shown = index;
            m.position = 0;
            m.skips += after_error ? 1 : 0;
            return 0;
        }
        index = walk(m, repeat, 1);
        if (index < 0 && after_error) {
            return 0;
        }
        if (index < 0 || index == first || tried >= TRACKS) {
            m.skips = after_error ? 0 : m.skips;
            return give_up(m);
        }
    }
}

int32_t skip_error(model& m) {
    const int32_t index = walk(m, m.repeat, 1);
    if (index >= 0 && m.skips >= TRACKS) {
        m.skips = 0;
        return give_up(m);
    }
    return index < 0 ? 0 : attach(m, index, m.repeat, true);
}

/* One step of both; the results. */
struct outcome {
    std::string what;
    int32_t expected;
    int32_t got;
};

outcome command(model& m, player* player, int32_t kind, int32_t number) {
    const int32_t skip_mode = m.repeat == LYR_REPEAT_ONE ? LYR_REPEAT_OFF : m.repeat;
    int32_t target = -1;
    switch (kind) {
    case 0:
        m.status = LYR_STATUS_PLAYING;
        return {"play", 0, rig_do(player, player_play)};
    case 1:
        m.status = LYR_STATUS_PAUSED;
        return {"pause", 0, rig_do(player, player_pause)};
    case 2:
        m.status = LYR_STATUS_STOPPED;
        return {"stop", 0, rig_do(player, player_stop)};
    case 3:
        target = walk(m, skip_mode, 1);
        return {"next", target < 0 ? 0 : attach(m, target, skip_mode), rig_do(player, player_next)};
    case 4:
        target = m.position >= 5001 ? m.current : walk(m, skip_mode, -1);
        return {"previous", target < 0 ? 0 : attach(m, target, skip_mode),
                rig_do(player, player_previous)};
    case 5:
        target = number % (TRACKS + 2) - 1;
        return {"jump " + std::to_string(target),
                target < 0 || target >= TRACKS ? -1 : attach(m, target, m.repeat),
                rig_do(player, player_jump, target)};
    case 6: {
        const int32_t mode = number % 3;
        const bool drawn = mode == 1 && m.shuffle != 1;
        m.shuffle = mode;
        const int32_t got = rig_do(player, player_shuffle, mode);
        vel_lock_guard guard(player->trksession->lock);
        for (int32_t i = 0; i < TRACKS; ++i) {
            m.order[static_cast<size_t>(i)] = mode == 1 ? player->trksession->order[i] : i;
        }
        EXPECT_TRUE(!drawn || m.order[0] == m.current);
        return {"shuffle " + std::to_string(mode), 0, got};
    }
    default:
        m.repeat = number % 4;
        return {"repeat " + std::to_string(m.repeat), 0, rig_do(player, player_repeat, m.repeat)};
    }
}

outcome event(model& m, player* player, int32_t kind, int32_t number) {
    void* handle = player->trksession->ms_session->play_session;
    int32_t target = -1;
    switch (kind) {
    case 8:
        m.skips = 0;
        target = walk(m, m.repeat, 1);
        if (target < 0) {
            m.status = LYR_STATUS_STOPPED;
        }
        return {"finished", target < 0 ? 0 : attach(m, target, m.repeat),
                lyrane_internal_track_finished(handle, player)};
    case 9:
        m.position = number % 3 == 0 ? 0 : 4999 + number % 3; /* where "previous" restarts */
        m.skips = m.position > 0 ? 0 : m.skips;
        return {"position " + std::to_string(m.position), 0,
                lyrane_internal_position_updated(handle, player, m.position)};
    default:
        return {"error", skip_error(m),
                lyrane_internal_play_error_occurred(handle, player, LYR_PLAY_ERROR_SKIP)};
    }
}

void refuse_others(player_rig& rig, model& m, std::mt19937& random) {
    fake_do(rig.fake, "unrule");
    m.refused.clear();
    const uint32_t share = random() % 4; /* none, some, many, all */
    for (int32_t i = 0; i < TRACKS; ++i) {
        if (random() % 3 < share) {
            m.refused.insert(i);
            fake_do(rig.fake, "rule attach id=/t%d result=1", i);
        }
    }
}

bool same(const model& m, player* player) {
    const trksession_place at = trksession_current(player->trksession);
    return at.trk_id == m.current && at.cli_index == m.shown && at.trk_pos == m.position &&
           player->status == m.status && player->shuffle_mode == m.shuffle &&
           player->repeat_mode == m.repeat;
}

using player_model = player_test;

TEST_F(player_model, agrees_with_the_player) {
    msglog_set_level(0);
    const char* given = std::getenv("LYRANE_SEED");
    const uint32_t seed = given != nullptr ? static_cast<uint32_t>(std::strtoul(given, nullptr, 10))
                                           : std::random_device()();
    std::mt19937 random(seed);
    const int32_t source = rig_source(rig, "model", "/|tracks:" + std::to_string(TRACKS));
    player* player = rig_player("model", source, 0, TRACKS);
    model m;
    std::iota(m.order.begin(), m.order.end(), 0);
    for (int32_t step = 0; step < STEPS; ++step) {
        if (step % 50 == 0) {
            refuse_others(rig, m, random);
        }
        const auto kind = static_cast<int32_t>(random() % 11);
        const auto number = static_cast<int32_t>(random() % 1000);
        const outcome done =
            kind < 8 ? command(m, player, kind, number) : event(m, player, kind, number);
        const trksession_place at = trksession_current(player->trksession);
        ASSERT_TRUE(done.got == done.expected && same(m, player))
            << "LYRANE_SEED=" << seed << " step " << step << ": " << done.what << " gave "
            << done.got << " for " << done.expected << "; track " << at.trk_id << " shown "
            << at.cli_index << " position " << at.trk_pos << " status " << player->status
            << "; the model: track " << m.current << " shown " << m.shown << " position "
            << m.position << " status " << m.status;
    }
    msglog_set_level(MSGLOG_LEVEL_MAX);
}

} // namespace
