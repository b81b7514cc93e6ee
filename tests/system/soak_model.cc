#include "soak_model.h"

#include <algorithm>
#include <cstdlib>

int32_t soak_tracks_of(int folder) {
    return 9 + folder * 17;
}

static int32_t length_of(const soak_model& m) {
    return m.has_session ? soak_tracks_of(m.folder) : 0;
}

/* The order that begins with the current track, or that of the tracks. */
void soak_model_set_order(soak_model& m, bool is_drawn) {
    m.order.assign(static_cast<size_t>(length_of(m)), SOAK_UNKNOWN);
    for (int32_t i = 0; !is_drawn && i < length_of(m); ++i) {
        m.order[static_cast<size_t>(i)] = i;
    }
    m.place = is_drawn ? 0 : m.current;
    m.order[static_cast<size_t>(m.place)] = m.current;
}

bool soak_model_status_is_open(const soak& soak, const soak_model& m) {
    return m.status != LYR_STATUS_IDLE &&
           (m.status_epoch % 2 != 0 || m.status_epoch != soak.arbiter_epoch);
}

namespace {

int32_t draw(soak_player& player, int32_t below) {
    return static_cast<int32_t>(player.random() % static_cast<unsigned>(below));
}

void forget_session(soak_model& m) {
    m = {};
}

/* The place one step on or back; SOAK_UNKNOWN: there is none. */
int32_t walk(const soak_model& m, int32_t repeat, int32_t step) {
    const int32_t length = length_of(m);
    if (repeat == LYR_REPEAT_ONE) {
        return m.place;
    }
    const int32_t to = m.place + step;
    if (repeat == LYR_REPEAT_OFF && (to < 0 || to >= length)) {
        return SOAK_UNKNOWN;
    }
    return (to + length) % length;
}

/* The player is at another place now. Which track that is, it tells the first time. */
void go(soak& soak, soak_player& player, int32_t place) {
    soak_model& m = player.model;
    m.place = place;
    m.position = 0;
    int32_t& track = m.order[static_cast<size_t>(place)];
    if (track == SOAK_UNKNOWN) {
        const int32_t shown = request_current(player.client).index;
        if (shown < 0 || shown >= length_of(m) ||
            std::find(m.order.begin(), m.order.end(), shown) != m.order.end()) {
            soak_differ(soak, "%s: place %d has track %d, which has another place or is none",
                        player.name.c_str(), place, shown);
        }
        track = shown;
    }
    m.current = track;
}

void set_status(soak& soak, soak_model& m, int32_t status, unsigned epoch_before) {
    m.status = status;
    m.status_epoch = epoch_before == soak.arbiter_epoch ? epoch_before : 1;
}

/* One thing that was done, what it gave and what it had to give. */
struct step {
    const char* what;
    int32_t got;
    int32_t expected;
};

/* All tracks of a new session are there. The build needs no command, so it is asked for again. */
void await_built(soak& soak, soak_player& player) {
    const int64_t limit = soak_now() + DAEMON_LIMIT;
    int32_t length = 0;
    while (request_session(player.client, &player.model.ts_id, &length) == 0 &&
           length != length_of(player.model) && soak_now() < limit) {
        std::this_thread::yield();
    }
    if (length != length_of(player.model)) {
        soak_differ(soak, "%s: session of %d tracks, not %d", player.name.c_str(), length,
                    length_of(player.model));
    }
}

step create(soak& soak, soak_player& player) {
    soak_model& m = player.model;
    const unsigned epoch = soak.arbiter_epoch;
    forget_session(m);
    m.has_session = true;
    m.folder = draw(player, SOAK_FOLDERS);
    m.current = draw(player, soak_tracks_of(m.folder));
    soak_model_set_order(m, false);
    const std::string folder = "/f" + std::to_string(m.folder);
    const int32_t got =
        request_create(player.client, player.source, folder, -1, m.current, &m.ts_id);
    set_status(soak, m, LYR_STATUS_STOPPED, epoch);
    if (got == 0) {
        await_built(soak, player);
    }
    return {"create", got, 0};
}

/* The source goes and comes back: the session has gone, the player stays. */
step unplug(soak& soak, soak_player& player) {
    std::string answer;
    const std::string uid = " uid=" + player.name;
    (void)fake_execute(player.fake, "event disconnected" + uid, answer);
    const int32_t got = answer == "0" ? 0 : REQUEST_FAILED;
    (void)fake_execute(player.fake, "event connected" + uid, answer);
    soak_add(soak, SOAK_UNPLUGS);
    forget_session(player.model);
    return {"unplug", got, 0};
}

/* What the service itself keeps open stays as it is. */
step reopen(const soak& soak, soak_player& player) {
    const int32_t closed = request_close(player.client, player.name);
    if (soak.kept.count(player.name) == 0) {
        forget_session(player.model);
    }
    return {"close and open", closed | request_open(player.client, player.name), 0};
}

/* An event of the plug-in for this player's session on its own source. */
int32_t send_event(soak_player& player, const std::string& event) {
    std::string sessions;
    if (fake_execute(player.fake, "sessions", sessions) != 0) {
        return REQUEST_FAILED;
    }
    const std::string mine = " play ms=" + std::to_string(player.source) + "\n";
    const size_t end = sessions.find(mine);
    if (end == std::string::npos) {
        return REQUEST_FAILED;
    }
    const size_t begin = sessions.rfind('\n', end) + 1; /* 0 without one */
    std::string answer;
    (void)fake_execute(player.fake, event + " session=" + sessions.substr(begin, end - begin),
                       answer);
    return answer.empty() ? REQUEST_FAILED : std::atoi(answer.c_str());
}

step destroy(soak_player& player) {
    const int32_t got = request_destroy(player.client, player.model.ts_id);
    forget_session(player.model);
    return {"destroy", got, 0};
}

step play_pause_stop(soak& soak, soak_player& player, int which) {
    static constexpr struct {
        const char* what;
        uint16_t type;
        int32_t status;
    } rows[] = {{"play", LYR_MSG_PLAY, LYR_STATUS_PLAYING},
                {"pause", LYR_MSG_PAUSE, LYR_STATUS_PAUSED},
                {"stop", LYR_MSG_STOP, LYR_STATUS_STOPPED}};
    const unsigned epoch = soak.arbiter_epoch;
    const int32_t got = request_simple(player.client, rows[which].type);
    const bool is_open = epoch % 2 != 0 || epoch != soak.arbiter_epoch;
    if (got == -1 && is_open && which == 0) { /* it has not got the focus */
        player.model.status_epoch = 1;
        return {"play without focus", 0, 0};
    }
    set_status(soak, player.model, rows[which].status, epoch);
    return {rows[which].what, got, 0};
}

step skip(soak& soak, soak_player& player, int32_t direction) {
    soak_model& m = player.model;
    const int32_t mode = m.repeat == LYR_REPEAT_ONE ? LYR_REPEAT_OFF : m.repeat;
    const int32_t to = direction < 0 && m.position >= 5001 ? m.place : walk(m, mode, direction);
    const int32_t got =
        request_simple(player.client, direction > 0 ? LYR_MSG_NEXT : LYR_MSG_PREVIOUS);
    if (to != SOAK_UNKNOWN) {
        go(soak, player, to);
    }
    return {direction > 0 ? "next" : "previous", got, 0};
}

step finish(soak& soak, soak_player& player) {
    soak_model& m = player.model;
    const unsigned epoch = soak.arbiter_epoch;
    const int32_t to = walk(m, m.repeat, 1);
    const int32_t got = send_event(player, "event finished");
    if (to != SOAK_UNKNOWN) {
        go(soak, player, to);
    } else {
        set_status(soak, m, LYR_STATUS_STOPPED, epoch);
    }
    return {"finished", got, 0};
}

step jump(soak& soak, soak_player& player) {
    soak_model& m = player.model;
    const int32_t place = draw(player, length_of(m));
    const int32_t track = m.order[static_cast<size_t>(place)];
    if (track == SOAK_UNKNOWN) { /* its place is not known: ask for one too far */
        return {"jump too far", request_number(player.client, LYR_MSG_JUMP, length_of(m)), -1};
    }
    const int32_t got = request_number(player.client, LYR_MSG_JUMP, track);
    go(soak, player, place);
    return {"jump", got, 0};
}

step set_mode(soak_player& player, bool is_shuffle) {
    soak_model& m = player.model;
    if (!is_shuffle) {
        m.repeat = draw(player, 3);
        return {"repeat", request_number(player.client, LYR_MSG_REPEAT, m.repeat), 0};
    }
    const int32_t mode = draw(player, 2);
    if (mode != m.shuffle) {
        m.shuffle = mode;
        soak_model_set_order(m, mode == 1);
    }
    return {"shuffle", request_number(player.client, LYR_MSG_SHUFFLE, mode), 0};
}

step one_with_session(soak& soak, soak_player& player) {
    soak_model& m = player.model;
    switch (draw(player, 40)) {
    case 0:
        return create(soak, player);
    case 1:
        return destroy(player);
    case 2:
        return unplug(soak, player);
    case 3:
        /* Not while an arbiter's word may be on its way to the earlier player of the name. */
        return soak.arbiter_epoch % 2 == 0 ? reopen(soak, player) : skip(soak, player, 1);
    case 4:
    case 5:
        m.rate = static_cast<float>(1 + draw(player, 4)) / 2;
        return {"rate", request_speed(player.client, m.rate), 0};
    case 6:
    case 7:
        return {"seek", request_number(player.client, LYR_MSG_SEEK, draw(player, 9000)), 0};
    case 8:
    case 9:
    case 10:
    case 11:
        return set_mode(player, draw(player, 2) == 0);
    case 12:
    case 13:
    case 14:
        m.position = draw(player, 3) * 4000;
        return {"position",
                send_event(player, "event position value=" + std::to_string(m.position)), 0};
    case 15:
    case 16:
    case 17:
        return finish(soak, player);
    case 18:
    case 19:
    case 20:
        return jump(soak, player);
    case 21:
    case 22:
    case 23:
    case 24:
    case 25:
        return skip(soak, player, -1);
    case 26:
    case 27:
    case 28:
    case 29:
    case 30:
        return skip(soak, player, 1);
    default:
        return play_pause_stop(soak, player, draw(player, 3));
    }
}

step one_without_session(soak& soak, soak_player& player) {
    uint64_t ts_id = 0;
    switch (draw(player, 8)) {
    case 0:
        return reopen(soak, player);
    case 1:
        return unplug(soak, player);
    case 2:
        return {"play nothing", request_simple(player.client, LYR_MSG_PLAY), -1};
    case 3:
        return {"create of a source that is none",
                request_create(player.client, 77, "/f0", -1, 0, &ts_id), -1};
    default:
        return create(soak, player);
    }
}

} // namespace

void soak_model_step(soak& soak, soak_player& player) {
    const step done = player.model.has_session ? one_with_session(soak, player)
                                               : one_without_session(soak, player);
    if (done.got != done.expected) {
        soak_differ(soak, "%s: %s gave %d for %d", player.name.c_str(), done.what, done.got,
                    done.expected);
    }
    soak_add(soak, SOAK_COMMANDS);
    soak_model_check_objects(soak, player, done.what);
}
