/* The playback commands, in player mode and in device mode. */
#include <cerrno>
#include <cmath>
#include <map>
#include <string>

#include "media.h"
#include "msglog.h"
#include "player_commands.h"
#include "player_publish.h"
#include "player_rig.h"
#include "trksession.h"
#include "trksession_shuffle.h"
#include "trksession_walk.h"

namespace {

using player_commands = player_test;

struct named_command {
    const char* name;
    int32_t (*run)(player*);
};
const named_command PLAY = {"play", player_play};
const named_command PAUSE = {"pause", player_pause};
const named_command STOP = {"stop", player_stop};
const named_command NEXT = {"next", player_next};
const named_command PREVIOUS = {"previous", player_previous};
const named_command SEEK = {"seek", [](player* player) { return player_seek(player, 7); }};
const named_command RATE = {"rate",
                            [](player* player) { return player_set_playback_rate(player, 2); }};
const named_command NO_RATE = {
    "rate nan", [](player* player) { return player_set_playback_rate(player, NAN); }};
const named_command SHUFFLE = {"shuffle", [](player* player) { return player_shuffle(player, 1); }};
const named_command REPEAT = {"repeat", [](player* player) { return player_repeat(player, 1); }};
const named_command JUMP = {"jump", [](player* player) { return player_jump(player, 3); }};

enum mode : uint8_t { DEVICE, PLAYER };
constexpr int32_t PLAYING = LYR_STATUS_PLAYING;
constexpr int32_t PAUSED = LYR_STATUS_PAUSED;
constexpr int32_t STOPPED = LYR_STATUS_STOPPED;

/* What a command meets, and what comes of it. */
struct command_case {
    named_command command;
    mode walker;
    int32_t status;
    uint64_t lacks;      /* capability */
    const char* refused; /* the entry that the plug-in refuses, with 9 */
    int32_t result;
    int error;         /* where nothing is called */
    const char* calls; /* of the plug-in, in order */
    int32_t then;      /* status */
    int32_t current;   /* track; 1 before */
};

const command_case CASES[] = {
    {PLAY, DEVICE, STOPPED, 0, "", 0, 0, "play", PLAYING, 1},
    {PLAY, DEVICE, STOPPED, LYR_CAP_PLAY, "", -1, ENOTSUP, "", STOPPED, 1},
    {PLAY, PLAYER, STOPPED, LYR_CAP_PLAY, "", 0, 0, "play", PLAYING, 1},
    {PLAY, PLAYER, PAUSED, 0, "play", 9, 0, "play", PAUSED, 1},
    {PLAY, PLAYER, PLAYING, 0, "", 0, 0, "", PLAYING, 1},
    {PAUSE, PLAYER, PLAYING, 0, "", 0, 0, "pause", PAUSED, 1},
    {PAUSE, PLAYER, PLAYING, LYR_CAP_PAUSE, "", -1, 0, "", PLAYING, 1},
    {PAUSE, PLAYER, PLAYING, 0, "pause", 9, 0, "pause", PLAYING, 1},
    {PAUSE, PLAYER, PAUSED, 0, "", 0, 0, "", PAUSED, 1},
    {STOP, PLAYER, PLAYING, 0, "", 0, 0, "stop", STOPPED, 1},
    {STOP, PLAYER, PLAYING, LYR_CAP_STOP, "", -1, 0, "", PLAYING, 1},
    {STOP, PLAYER, PLAYING, 0, "stop", 9, 0, "stop", PLAYING, 1},
    {STOP, PLAYER, STOPPED, 0, "", 0, 0, "", STOPPED, 1},
    {RATE, PLAYER, PLAYING, 0, "", 0, 0, "rate", PLAYING, 1},
    {RATE, PLAYER, PLAYING, LYR_CAP_STOP, "", -1, 0, "", PLAYING, 1},
    {RATE, PLAYER, PLAYING, 0, "rate", 9, 0, "rate", PLAYING, 1},
    {NO_RATE, PLAYER, PLAYING, 0, "", -1, EINVAL, "", PLAYING, 1},
    {SEEK, PLAYER, PLAYING, 0, "", 0, 0, "seek", PLAYING, 1},
    {SEEK, PLAYER, PLAYING, LYR_CAP_SEEK, "", -1, 0, "", PLAYING, 1},
    {SEEK, PLAYER, PLAYING, 0, "seek", 9, 0, "seek", PLAYING, 1},

    /* A device walks its own list. */
    {NEXT, DEVICE, PLAYING, 0, "", 0, 0, "next", PLAYING, 1},
    {NEXT, DEVICE, PLAYING, LYR_CAP_NEXT, "", -1, ENOTSUP, "", PLAYING, 1},
    {NEXT, DEVICE, PLAYING, 0, "next", 9, 0, "next", PLAYING, 1},
    {PREVIOUS, DEVICE, PLAYING, 0, "", 0, 0, "previous", PLAYING, 1},
    {PREVIOUS, DEVICE, PLAYING, LYR_CAP_PREVIOUS, "", -1, ENOTSUP, "", PLAYING, 1},
    {JUMP, DEVICE, PLAYING, 0, "", -1, ENOTSUP, "", PLAYING, 1},
    {SHUFFLE, DEVICE, PLAYING, 0, "", 0, 0, "shuffle", PLAYING, 1},
    {SHUFFLE, DEVICE, PLAYING, LYR_CAP_MODES, "", -1, ENOTSUP, "", PLAYING, 1},
    {SHUFFLE, DEVICE, PLAYING, 0, "shuffle", 9, 0, "shuffle", PLAYING, 1},
    {REPEAT, DEVICE, PLAYING, 0, "", 0, 0, "repeat", PLAYING, 1},
    {REPEAT, DEVICE, PLAYING, LYR_CAP_MODES, "", -1, ENOTSUP, "", PLAYING, 1},
    {REPEAT, DEVICE, PLAYING, 0, "repeat", 9, 0, "repeat", PLAYING, 1},

    /* The service walks: five tracks, the second is current, nothing is repeated. */
    {SHUFFLE, PLAYER, PLAYING, LYR_CAP_MODES, "", 0, 0, "", PLAYING, 1},
    {REPEAT, PLAYER, PLAYING, LYR_CAP_MODES, "", 0, 0, "", PLAYING, 1},
    {NEXT, PLAYER, PLAYING, 0, "", 0, 0, "stop attach play", PLAYING, 2},
    {NEXT, PLAYER, PLAYING, LYR_CAP_STOP, "", 0, 0, "attach play", PLAYING, 2},
    {NEXT, PLAYER, PLAYING, 0, "stop", 9, 0, "stop", PLAYING, 1},
    {NEXT, PLAYER, PLAYING, 0, "attach", -1, 0, "stop attach attach attach", STOPPED, 4},
    {NEXT, PLAYER, PLAYING, 0, "play", 9, 0, "stop attach play", PLAYING, 2},
    {NEXT, PLAYER, PAUSED, 0, "", 0, 0, "attach", PAUSED, 2},
    {PREVIOUS, PLAYER, PLAYING, 0, "", 0, 0, "stop attach play", PLAYING, 0},
    {PREVIOUS, PLAYER, PAUSED, 0, "", 0, 0, "attach", PAUSED, 0},
    {JUMP, PLAYER, PLAYING, 0, "", 0, 0, "stop attach play", PLAYING, 3},
    {JUMP, PLAYER, PLAYING, 0, "stop", -1, 0, "stop", PLAYING, 1},
    {JUMP, PLAYER, PLAYING, 0, "attach", -1, 0, "stop attach attach", STOPPED, 4},
    {JUMP, PLAYER, PLAYING, 0, "play", 9, 0, "stop attach play", PLAYING, 3},
    {JUMP, PLAYER, PAUSED, 0, "", 0, 0, "attach", PAUSED, 3},
};

/* The second of five tracks is current; status and modes are published. */
void prepare(player* player, const command_case& met) {
    vel_lock_guard guard(player->lock);
    trksession* session = player->trksession;
    player->status = met.status;
    player->shuffle_mode = 0;
    player->repeat_mode = 0;
    player->playback_rate = 1.0F;
    player_publish_state(player);
    session->ms_session->player_mode = met.walker;
    __atomic_store_n(&session->mediasource->capabilities, RIG_ALL & ~LYR_CAP_METADATA & ~met.lacks,
                     __ATOMIC_RELEASE);
    trksession_set_current(session, {1, 1, 0});
    player_publish_track_index(player, 1);
}

std::string calls_made(player_rig& rig) {
    std::string calls;
    for (const fake_record& record : fake_log(rig.fake, "")) {
        calls += (calls.empty() ? "" : " ") + record.entry;
    }
    return calls;
}

std::string shown(const player_rig& rig) {
    std::string text;
    for (const char* attribute : {"status", "shuffle", "repeat", "rate"}) {
        text += rig_attribute(rig, "commander", "state", attribute) + " ";
    }
    return text;
}

/* What is shown is what the player's fields say, and a track that was attached. */
void expect_shown(const player_rig& rig, player* player, int32_t index) {
    const std::string before = shown(rig);
    player_publish_state(player);
    EXPECT_EQ(before, shown(rig));
    EXPECT_EQ(rig_attribute(rig, "commander", "track", "index"), ":n:" + std::to_string(index));
}

TEST_F(player_commands, do_what_they_should_and_show_it) {
    player* player = rig_player("commander", rig_source(rig, "commands", "/|tracks:5"), 1, 5);
    for (const command_case& met : CASES) {
        SCOPED_TRACE(testing::Message()
                     << met.command.name << " mode " << int{met.walker} << " status " << met.status
                     << " lacks " << met.lacks << " refused " << met.refused);
        prepare(player, met);
        fake_do(rig.fake, "reset");
        if (*met.refused != '\0') {
            fake_do(rig.fake, "rule %s result=9", met.refused);
        }
        errno = 0;
        const int32_t result = rig_do(player, met.command.run);
        EXPECT_TRUE(result == 0 || *met.calls != '\0' || errno == met.error) << errno;
        EXPECT_EQ(result, met.result);
        EXPECT_EQ(calls_made(rig), met.calls);
        EXPECT_EQ(player->status, met.then);
        EXPECT_EQ(player->shuffle_mode, result == 0 && met.command.run == SHUFFLE.run ? 1 : 0);
        EXPECT_EQ(player->repeat_mode, result == 0 && met.command.run == REPEAT.run ? 1 : 0);
        EXPECT_EQ(player->playback_rate, result == 0 && met.command.run == RATE.run ? 2 : 1);
        EXPECT_EQ(rig_current(player), met.current);
        expect_shown(rig, player, std::string(met.refused) == "attach" ? 1 : met.current);
    }
}

TEST_F(player_commands, need_a_session_that_can_play) {
    player* player = rig_player("commander", rig_source(rig, "commands", "/|tracks:5"), 1, 5);
    trksession* session = player->trksession;
    const lyr_play_api* api = session->ms_session->play_api;
    fake_do(rig.fake, "clear");
    for (const named_command& each :
         {PLAY, PAUSE, STOP, RATE, SEEK, NEXT, PREVIOUS, JUMP, SHUFFLE, REPEAT}) {
        SCOPED_TRACE(each.name);
        player->trksession = nullptr;
        EXPECT_EQ(rig_do(player, each.run), -1);
        EXPECT_EQ(errno, EINVAL);
        player->trksession = session;
        session->ms_session->play_api = nullptr;
        EXPECT_EQ(rig_do(player, each.run), -1);
        EXPECT_EQ(errno, ENOTSUP);
        session->ms_session->play_api = api;
    }
    EXPECT_EQ(calls_made(rig), "");
    EXPECT_EQ(player->status, STOPPED);
}

/* Progression "ROSP" shows the current track, which may have been refused, after a shuffle. */
TEST_F(player_commands, shuffle_once_and_show_the_index_again) {
    player* player = rig_player("commander", rig_source(rig, "commands", "/|tracks:5"), 1, 5);
    mmcontrol.player_cfg->progression_mode = 0;
    trksession_set_current(player->trksession, {3, 1, 0});
    EXPECT_EQ(rig_do(player, player_shuffle, 1), 0);
    EXPECT_EQ(rig_do(player, player_shuffle, 1), 0);
    EXPECT_EQ(rig_logged(rig, "Shuffled 5 tracks"), 1);
    EXPECT_EQ(rig_attribute(rig, "commander", "track", "index"), ":n:3");
}

/* Refused tracks hold up everybody for a bounded time; a command tries a thousand all the same. */
TEST_F(player_commands, passes_over_refused_tracks_for_a_bounded_time) {
    player* player = rig_player("bounded", rig_source(rig, "commands", "/|tracks:2001"), 0, 2001);
    player_skip_ms = 0;
    msglog_set_level(4); /* a line for each refusal is more than the log takes */
    fake_do(rig.fake, "rule attach result=1");
    fake_do(rig.fake, "clear");
    const struct {
        int32_t attempts; /* in all */
        bool event;
    } cases[] = {{1000, false}, {1001, true}};
    for (const auto& c : cases) {
        player->status = PLAYING;
        EXPECT_EQ(c.event ? fake_number(rig.fake, "event error value=0")
                          : rig_do(player, player_next),
                  -1);
        EXPECT_EQ(fake_number(rig.fake, "count attach"), c.attempts);
        EXPECT_EQ(rig_current(player), c.attempts);
        EXPECT_EQ(player->status, STOPPED);
    }
    EXPECT_EQ(rig_logged(rig, "Cannot find valid media nodes to be attached"), 2);
    msglog_set_level(MSGLOG_LEVEL_MAX);
}

/* Counted over seeds that are always the same: nothing here is left to chance. What comes of a seed
 * is saved, and so never changes. */
TEST_F(player_commands, shuffle_fairly) {
    constexpr int32_t SEEDS = 6000;
    player* player = rig_player("commander", rig_source(rig, "commands", "/|tracks:5"), 3, 5);
    trksession* session = player->trksession;
    const auto order = [session] {
        vel_lock_guard guard(session->lock);
        std::string text;
        for (int32_t i = 0; i < 5; ++i) {
            text += std::to_string(session->order[i]);
            EXPECT_EQ(session->inverse_order[session->order[i]], i);
        }
        return text;
    };
    std::map<std::string, int32_t> met;
    for (uint64_t seed = 0; seed < SEEDS; ++seed) {
        EXPECT_TRUE(trksession_shuffle_again(session, {seed, 4, 3}));
        ++met[order()];
    }
    EXPECT_EQ(met.size(), 6U); /* three tracks between the first and the one that came later */
    for (const auto& [text, times] : met) {
        EXPECT_NEAR(times, SEEDS / 6, 90) << text;
    }
    EXPECT_TRUE(trksession_shuffle_again(session, {0x123456789abcdef0, 5, 1}));
    EXPECT_EQ(order(), "14032");
    for (const trksession_draw wrong :
         {trksession_draw{1, 6, 0}, {1, 5, 5}, {1, 5, -1}, {1, 0, 0}, {1, -1, -2}}) {
        EXPECT_FALSE(trksession_shuffle_again(session, wrong));
    }
    mmcontrol.player_cfg->fair_shuffle = 1;
    met.clear();
    for (int32_t turn = 0; turn < 100; ++turn) {
        EXPECT_EQ(rig_do(player, player_shuffle, 0), 0);
        EXPECT_EQ(rig_do(player, player_shuffle, 1), 0);
        ++met[order()];
        EXPECT_EQ(order()[0], '3');
    }
    mmcontrol.player_cfg->fair_shuffle = 0;
    EXPECT_GT(met.size(), 3U); /* of 24 */
}

/* Requests and events could lead into arrays that are not there. */
TEST_F(player_commands, has_no_tracks_to_walk) {
    player* player = rig_player("empty", rig_source(rig, "commands", "/|tracks:2"), 7, -1);
    EXPECT_EQ(rig_tracks(player), "");
    EXPECT_EQ(rig_do(player, player_shuffle, 1), 0);
    EXPECT_EQ(rig_do(player, player_next), 0);
    EXPECT_EQ(fake_number(rig.fake, "event error value=0"), 0);
    EXPECT_EQ(rig_do(player, player_repeat, LYR_REPEAT_ALL), 0);
    EXPECT_EQ(rig_do(player, player_next), -1);
    EXPECT_EQ(rig_do(player, player_previous), -1);
    EXPECT_EQ(fake_number(rig.fake, "event error value=0"), -1);
    EXPECT_EQ(rig_logged(rig, "Cannot retrieve media node from trksession"), 3);
}

} // namespace
