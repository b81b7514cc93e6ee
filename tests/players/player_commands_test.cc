/* The playback commands, in player mode and in device mode. */
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "media.h"
#include "player_commands.h"
#include "player_publish.h"
#include "player_registry.h"
#include "player_rig.h"
#include "trksession.h"
#include "trksession_hold.h"
#include "trksession_walk.h"

/* Every capability; metadata would only lengthen the lists of calls. */
static constexpr uint64_t ALL = 0xE045F;

namespace {

using command = int32_t (*)(player*);

int32_t seek_7(player* player) {
    return player_seek(player, 7);
}
int32_t rate_2(player* player) {
    return player_set_playback_rate(player, 2.0F);
}
int32_t shuffle_1(player* player) {
    return player_shuffle(player, 1);
}
int32_t repeat_1(player* player) {
    return player_repeat(player, 1);
}
int32_t jump_3(player* player) {
    return player_jump(player, 3);
}

/* What a command meets. Every combination is tried. */
enum world : uint8_t { WHOLE, NO_SESSION, NO_PLAY_HALF };
enum mode : uint8_t { DEVICE, PLAYER };
constexpr int32_t REFUSED = 9; /* what a plug-in that refuses answers */

struct named_command {
    const char* name;
    command run;
    uint64_t needs[2]; /* capability in device mode, in player mode */
};
const named_command commands[] = {
    {"play", player_play, {LYR_CAP_PLAY, LYR_CAP_PLAY}},
    {"pause", player_pause, {LYR_CAP_PAUSE, LYR_CAP_PAUSE}},
    {"stop", player_stop, {LYR_CAP_STOP, LYR_CAP_STOP}},
    {"rate", rate_2, {LYR_CAP_STOP, LYR_CAP_STOP}},
    {"seek", seek_7, {LYR_CAP_SEEK, LYR_CAP_SEEK}},
    {"next", player_next, {LYR_CAP_NEXT, LYR_CAP_STOP}},
    {"previous", player_previous, {LYR_CAP_PREVIOUS, LYR_CAP_STOP}},
    {"jump", jump_3, {LYR_CAP_STOP, LYR_CAP_STOP}},
    {"shuffle", shuffle_1, {LYR_CAP_MODES, LYR_CAP_MODES}},
    {"repeat", repeat_1, {LYR_CAP_MODES, LYR_CAP_MODES}},
};

struct encounter {
    const named_command* command;
    world place;
    mode walker;
    int32_t status;
    bool capable;
    std::string refusing; /* the entry that the plug-in refuses, or none */
};

/* What comes of it. The first row that fits an encounter counts; "*", ANY fit all. */
constexpr int32_t ANY = -1;
constexpr int32_t SAME = -1;    /* the field keeps its value */
constexpr int32_t SOUNDING = 2; /* status */
constexpr int32_t SILENT = -2;  /* any other status */
struct outcome {
    const char* command;
    int32_t place;
    int32_t walker;
    int32_t status;
    int32_t capable;
    const char* refusing;
    int32_t result;
    int error;
    const char* calls; /* of the plug-in, in order */
    int32_t then;      /* status */
    int32_t current;   /* track; 1 before */
    const char* log;
};

const char* const NONE_PLAYED = "There is no trksession to be played";
const char* const NONE_ACTIVE = "There is no active trksession";
const char* const NO_HALF = "There is no valid ms_session to play the trksession";
const char* const NOT_STOPPED = "The current trksession is playing but cannot be stopped";
const char* const NO_TRACK = "Cannot find valid media nodes to be attached";

const outcome outcomes[] = {
    /* Without a session, without a play half. */
    {"play", NO_SESSION, ANY, ANY, ANY, "*", -1, EINVAL, "", SAME, SAME,
     "There is no trksession to be played"},
    {"pause", NO_SESSION, ANY, ANY, ANY, "*", -1, EINVAL, "", SAME, SAME,
     "There is no trksession to be paused"},
    {"next", NO_SESSION, ANY, ANY, ANY, "*", -1, EINVAL, "", SAME, SAME, NONE_PLAYED},
    {"previous", NO_SESSION, ANY, ANY, ANY, "*", -1, EINVAL, "", SAME, SAME, NONE_PLAYED},
    {"jump", NO_SESSION, ANY, ANY, ANY, "*", -1, EINVAL, "", SAME, SAME, NONE_PLAYED},
    {"shuffle", NO_SESSION, ANY, ANY, ANY, "*", -1, EINVAL, "", SAME, SAME,
     "There is a active trksession"},
    {"*", NO_SESSION, ANY, ANY, ANY, "*", -1, EINVAL, "", SAME, SAME, NONE_ACTIVE},
    {"play", ANY, ANY, SOUNDING, ANY, "*", 0, 0, "", SAME, SAME,
     "The current trksession is already playing"},
    {"pause", ANY, ANY, LYR_STATUS_PAUSED, ANY, "*", 0, 0, "", SAME, SAME, ""},
    {"play", NO_PLAY_HALF, ANY, ANY, ANY, "*", -1, ENOTSUP, "", SAME, SAME, NO_HALF},
    {"jump", NO_PLAY_HALF, ANY, ANY, ANY, "*", -1, ENOTSUP, "", SAME, SAME, NO_HALF},
    {"*", NO_PLAY_HALF, ANY, ANY, ANY, "*", -1, ENOTSUP, "", SAME, SAME, ""},

    /* The same in both modes, but that a device must be able to play. */
    {"play", ANY, DEVICE, ANY, false, "*", -1, ENOTSUP, "", SAME, SAME, ""},
    {"play", ANY, PLAYER, ANY, ANY, "play", 9, 0, "play", SAME, SAME, "call plugin play: 9"},
    {"play", ANY, ANY, ANY, ANY, "play", 9, 0, "play", SAME, SAME, ""},
    {"play", ANY, PLAYER, ANY, ANY, "*", 0, 0, "play", 2, SAME, "call plugin play: 0"},
    {"play", ANY, ANY, ANY, ANY, "*", 0, 0, "play", 2, SAME, ""},
    {"pause", ANY, ANY, ANY, false, "*", -1, 0, "", SAME, SAME, ""},
    {"pause", ANY, ANY, ANY, true, "pause", 9, 0, "pause", SAME, SAME, ""},
    {"pause", ANY, ANY, ANY, true, "*", 0, 0, "pause", 3, SAME, ""},
    {"stop", ANY, ANY, LYR_STATUS_STOPPED, ANY, "*", 0, 0, "", SAME, SAME,
     "The player was already stopped"},
    {"stop", ANY, ANY, ANY, false, "*", -1, 0, "", SAME, SAME, ""},
    {"stop", ANY, ANY, ANY, true, "stop", 9, 0, "stop", SAME, SAME, "Calling plugin stop"},
    {"stop", ANY, ANY, ANY, true, "*", 0, 0, "stop", 4, SAME, "Calling plugin stop"},
    {"rate", ANY, ANY, ANY, false, "*", -1, 0, "", SAME, SAME, ""},
    {"rate", ANY, ANY, ANY, true, "rate", 9, 0, "rate", SAME, SAME, ""},
    {"rate", ANY, ANY, ANY, true, "*", 0, 0, "rate", SAME, SAME, ""},
    {"seek", ANY, ANY, ANY, false, "*", -1, 0, "", SAME, SAME, ""},
    {"seek", ANY, ANY, ANY, true, "seek", 9, 0, "seek", SAME, SAME, ""},
    {"seek", ANY, ANY, ANY, true, "*", 0, 0, "seek", SAME, SAME, ""},

    /* A device walks its own list. */
    {"next", ANY, DEVICE, ANY, false, "*", -1, ENOTSUP, "", SAME, SAME,
     "The device does not support play next"},
    {"next", ANY, DEVICE, ANY, true, "next", 9, 0, "next", SAME, SAME, ""},
    {"next", ANY, DEVICE, ANY, true, "*", 0, 0, "next", SAME, SAME, ""},
    {"previous", ANY, DEVICE, ANY, false, "*", -1, ENOTSUP, "", SAME, SAME,
     "The device does not support play next"},
    {"previous", ANY, DEVICE, ANY, true, "previous", 9, 0, "previous", SAME, SAME, ""},
    {"previous", ANY, DEVICE, ANY, true, "*", 0, 0, "previous", SAME, SAME, ""},
    {"jump", ANY, DEVICE, ANY, ANY, "*", -1, ENOTSUP, "", SAME, SAME, ""},
    {"shuffle", ANY, DEVICE, ANY, false, "*", -1, ENOTSUP, "", SAME, SAME, ""},
    {"shuffle", ANY, DEVICE, ANY, true, "shuffle", 9, 0, "shuffle", SAME, SAME, ""},
    {"shuffle", ANY, DEVICE, ANY, true, "*", 0, 0, "shuffle", SAME, SAME, ""},
    {"repeat", ANY, DEVICE, ANY, false, "*", -1, ENOTSUP, "", SAME, SAME, ""},
    {"repeat", ANY, DEVICE, ANY, true, "repeat", 9, 0, "repeat", SAME, SAME, ""},
    {"repeat", ANY, DEVICE, ANY, true, "*", 0, 0, "repeat", SAME, SAME, ""},

    /* The service walks: five tracks, the second is current, nothing is repeated. */
    {"shuffle", ANY, PLAYER, ANY, ANY, "*", 0, 0, "", SAME, SAME, "shuffle trksession: 0"},
    {"repeat", ANY, PLAYER, ANY, ANY, "*", 0, 0, "", SAME, SAME, ""},
    {"next", ANY, PLAYER, SOUNDING, true, "stop", 9, 0, "stop", SAME, SAME, NOT_STOPPED},
    {"next", ANY, PLAYER, SOUNDING, true, "attach", -1, 0, "stop attach attach attach", 4, 4,
     NO_TRACK},
    {"next", ANY, PLAYER, SOUNDING, true, "play", 9, 0, "stop attach play", SAME, 2,
     "The new track cannot be played"},
    {"next", ANY, PLAYER, SOUNDING, true, "*", 0, 0, "stop attach play", SAME, 2, ""},
    {"next", ANY, PLAYER, SOUNDING, false, "play", 9, 0, "attach play", SAME, 2,
     "The new track cannot be played"},
    {"next", ANY, PLAYER, ANY, ANY, "attach", -1, 0, "attach attach attach", 4, 4, NO_TRACK},
    {"next", ANY, PLAYER, SOUNDING, false, "*", 0, 0, "attach play", SAME, 2, ""},
    {"next", ANY, PLAYER, SILENT, ANY, "*", 0, 0, "attach", SAME, 2, ""},
    {"previous", ANY, PLAYER, SOUNDING, true, "stop", 9, 0, "stop", SAME, SAME, NOT_STOPPED},
    {"previous", ANY, PLAYER, SOUNDING, true, "attach", -1, 0,
     "stop attach attach attach attach attach", 4, 4, NO_TRACK},
    {"previous", ANY, PLAYER, SOUNDING, true, "play", 9, 0, "stop attach play", SAME, 0,
     "The new track cannot be played"},
    {"previous", ANY, PLAYER, SOUNDING, true, "*", 0, 0, "stop attach play", SAME, 0, ""},
    {"previous", ANY, PLAYER, SOUNDING, false, "play", 9, 0, "attach play", SAME, 0,
     "The new track cannot be played"},
    {"previous", ANY, PLAYER, ANY, ANY, "attach", -1, 0, "attach attach attach attach attach", 4, 4,
     NO_TRACK},
    {"previous", ANY, PLAYER, SOUNDING, false, "*", 0, 0, "attach play", SAME, 0, ""},
    {"previous", ANY, PLAYER, SILENT, ANY, "*", 0, 0, "attach", SAME, 0, ""},
    {"jump", ANY, PLAYER, SOUNDING, ANY, "stop", -1, 0, "stop", SAME, SAME, NOT_STOPPED},
    {"jump", ANY, PLAYER, SOUNDING, ANY, "attach", -1, 0, "stop attach attach", 4, 4, NO_TRACK},
    {"jump", ANY, PLAYER, SOUNDING, ANY, "play", 9, 0, "stop attach play", SAME, 3,
     "Failed to play"},
    {"jump", ANY, PLAYER, SOUNDING, ANY, "*", 0, 0, "stop attach play", SAME, 3, ""},
    {"jump", ANY, PLAYER, SILENT, ANY, "attach", -1, 0, "attach attach", 4, 4, NO_TRACK},
    {"jump", ANY, PLAYER, SILENT, ANY, "*", 0, 0, "attach", SAME, 3, ""},
};

bool fits(const outcome& row, const encounter& met) {
    const std::string name = row.command;
    const std::string refusing = row.refusing;
    const bool status = row.status == ANY || row.status == met.status ||
                        (row.status == SILENT && met.status != SOUNDING);
    return (name == "*" || name == met.command->name) && status &&
           (row.place == ANY || row.place == met.place) &&
           (row.walker == ANY || row.walker == met.walker) &&
           (row.capable == ANY || row.capable == static_cast<int32_t>(met.capable)) &&
           (refusing == "*" || refusing == met.refusing);
}

/* The plug-in's calls in order, metadata aside. */
std::string calls_made(player_rig& rig) {
    std::string calls;
    for (const fake_record& record : fake_log(rig.fake, "")) {
        if (record.entry != "metadata") {
            calls += (calls.empty() ? "" : " ") + record.entry;
        }
    }
    return calls;
}

/* The player's fields, its objects and the current track, in one line each. */
std::string fields(player* player) {
    std::ostringstream text;
    text << player->status << " shuffle " << player->shuffle_mode << " repeat "
         << player->repeat_mode << " rate " << player->playback_rate;
    return text.str();
}

std::string objects(const player_rig& rig) {
    std::string text;
    for (const char* attribute : {"status", "shuffle", "repeat", "rate"}) {
        text += rig_attribute(rig, "commander", "state", attribute) + " ";
    }
    return text + rig_attribute(rig, "commander", "track", "index");
}

/* Five tracks in a row, the second is current; status and modes published. */
void prepare(player* player, trksession* session, const encounter& met) {
    vel_lock_guard guard(player->lock);
    player->status = met.status;
    player->shuffle_mode = 0;
    player->repeat_mode = 0;
    player->playback_rate = 1.0F;
    player_publish_state(player);
    player->trksession = met.place == NO_SESSION ? nullptr : session;
    session->ms_session->player_mode = met.walker;
    __atomic_store_n(&session->mediasource->capabilities,
                     met.capable ? ALL : ALL & ~met.command->needs[met.walker], __ATOMIC_RELEASE);
    trksession_set_current(session, {1, 1, 0});
    player_publish_track_index(player, 1);
    vel_lock_guard inner(session->lock);
    for (int32_t i = 0; i < session->length; ++i) {
        session->order[i] = session->inverse_order[i] = i;
    }
}

void check(player_rig& rig, player* player, trksession* session, const encounter& met,
           const outcome& expected) {
    prepare(player, session, met);
    const lyr_play_api* api = session->ms_session->play_api;
    if (met.place == NO_PLAY_HALF) {
        session->ms_session->play_api = nullptr;
    }
    errno = 0;
    const int32_t result = rig_do(player, met.command->run);
    const int error = errno;
    session->ms_session->play_api = api;
    player->trksession = session;

    /* A mode or a rate that was accepted is stored and shown. */
    const bool accepted = result == 0 && met.place == WHOLE;
    const std::string name = met.command->name;
    const int32_t status = expected.then == SAME ? met.status : expected.then;
    const int32_t current = expected.current == SAME ? 1 : expected.current;
    const bool shuffled = accepted && name == "shuffle";
    const bool repeated = accepted && name == "repeat";
    const bool faster = accepted && name == "rate";
    static const char* const shown[] = {"::destroyed", "::idle", "::playing", "::paused",
                                        "::stopped"};
    EXPECT_EQ(result, expected.result);
    if (result == -1 && *expected.calls == '\0') {
        EXPECT_EQ(error, expected.error);
    }
    EXPECT_EQ(calls_made(rig), expected.calls);
    EXPECT_EQ(fields(player), std::to_string(status) + " shuffle " + (shuffled ? "1" : "0") +
                                  " repeat " + (repeated ? "1" : "0") + " rate " +
                                  (faster ? "2" : "1"));
    EXPECT_EQ(rig_current(player), current);
    EXPECT_EQ(objects(rig), std::string(shown[status]) + (shuffled ? " ::on" : " ::off") +
                                (repeated ? " ::all" : " ::off") +
                                (faster ? " :n:2.0" : " :n:1.0") + " :n:" +
                                std::to_string(expected.result != 0 && expected.then == 4
                                                   ? 1 /* nothing was attached */
                                                   : current));
    EXPECT_TRUE(*expected.log == '\0' || rig_logged(rig, expected.log) == 1);
}

std::vector<encounter> encounters() {
    std::vector<encounter> all;
    for (const named_command& each : commands) {
        for (const world place : {WHOLE, NO_SESSION, NO_PLAY_HALF}) {
            for (int32_t bits = 0; bits < 20; ++bits) {
                const mode walker = bits % 2 == 0 ? DEVICE : PLAYER;
                const bool capable = bits / 2 % 2 == 0;
                const char* own = each.run == jump_3 ? "next" : each.name; /* no entry of its own */
                for (const char* refusing : {"", own, "stop", "attach", "play"}) {
                    all.push_back({&each, place, walker, bits / 4, capable, refusing});
                }
            }
        }
    }
    return all;
}

TEST(player_commands, do_in_every_combination_what_they_should) {
    player_rig& rig = rig_fresh();
    const int32_t source = rig_source(rig, "commands", ALL, "/|tracks:5");
    player* player = rig_player(rig, "commander", source, "/", 1, 5);
    trksession* session = player->trksession;
    for (const encounter& met : encounters()) {
        SCOPED_TRACE(testing::Message()
                     << met.command->name << (met.walker == PLAYER ? " player" : " device")
                     << " world " << int{met.place} << " status " << met.status << " capable "
                     << met.capable << " refusing " << met.refusing);
        rig_fresh();
        fake_do(rig.fake, "clear");
        if (!met.refusing.empty()) {
            fake_do(rig.fake, "rule %s result=%d", met.refusing.c_str(), REFUSED);
        }
        const auto* row = std::find_if(std::begin(outcomes), std::end(outcomes),
                                       [&met](const outcome& o) { return fits(o, met); });
        ASSERT_NE(row, std::end(outcomes));
        check(rig, player, session, met, *row);
        if (HasFailure()) {
            break; /* the others fail for the same reason */
        }
    }
    player_close(&mmcontrol, "commander");
}

struct command_scene {
    player_rig* rig;
    ::player* player;
};

/* A player with five tracks whose second is current. */
command_scene scene() {
    player_rig& rig = rig_fresh();
    const int32_t source = rig_source(rig, "commands", ALL, "/|tracks:5");
    player* player = rig_player(rig, "commander", source, "/", 1, 5);
    fake_do(rig.fake, "clear");
    return {&rig, player};
}

/* Repeating one track does not hold a listener who skips; 5 s into a track "previous" restarts it.
 */
TEST(player_commands, skip_where_a_listener_expects) {
    command_scene s = scene();
    const struct {
        int32_t status;
        int32_t position;
        command run;
        int32_t current;
        const char* calls;
    } cases[] = {
        {LYR_STATUS_PLAYING, 0, player_next, 2, "stop attach play"},
        {LYR_STATUS_PLAYING, 5000, player_previous, 0, "stop attach play"},
        {LYR_STATUS_PLAYING, 5001, player_previous, 1, "stop attach play"},
    };
    for (const auto& c : cases) {
        trksession_set_current(s.player->trksession, {1, 1, c.position});
        s.player->status = c.status;
        s.player->repeat_mode = LYR_REPEAT_ONE; /* does not hold a skip */
        fake_do(s.rig->fake, "clear");
        EXPECT_EQ(rig_do(s.player, c.run), 0);
        EXPECT_EQ(rig_current(s.player), c.current);
        EXPECT_EQ(calls_made(*s.rig), c.calls);
        EXPECT_EQ(s.player->status, c.status);
        EXPECT_EQ(s.player->repeat_mode, LYR_REPEAT_ONE);
    }
    EXPECT_EQ(rig_do(s.player, player_jump, 5), -1);
    EXPECT_EQ(rig_logged(*s.rig, "The specified index is out of range"), 1);
    EXPECT_EQ(rig_do(s.player, player_jump, -1), -1);
    EXPECT_EQ(rig_logged(*s.rig, "Invalid track index"), 1);
    player_close(&mmcontrol, "commander");
}

TEST(player_commands, refuse_rates_that_are_no_numbers) {
    command_scene s = scene();
    vel_lock_guard guard(s.player->lock);
    for (const float rate : {NAN, INFINITY, -INFINITY}) {
        errno = 0;
        EXPECT_EQ(player_set_playback_rate(s.player, rate), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(fake_number(s.rig->fake, "count rate"), 0);
    EXPECT_EQ(player_set_playback_rate(s.player, 1e30F), 0);
    EXPECT_EQ(rig_attribute(*s.rig, "commander", "state", "rate"),
              ":n:1000000015047466219876688855040.0");
}

/* The mode words of the Veloran progressions: "ROSP" shows the index again. */
TEST(player_commands, set_modes_as_they_are_told) {
    player_close(&mmcontrol, "commander");
    command_scene s = scene();
    mmcontrol.player_cfg->progression_mode = 0;
    EXPECT_EQ(rig_do(s.player, player_shuffle, 1), 0);
    EXPECT_EQ(rig_do(s.player, player_shuffle, 1), 0);
    EXPECT_EQ(rig_logged(*s.rig, "Shuffled 5 tracks"), 1);
    EXPECT_EQ(rig_do(s.player, player_shuffle, -3), 0);
    EXPECT_EQ(rig_attribute(*s.rig, "commander", "state", "shuffle"), "::on");
    EXPECT_EQ(rig_do(s.player, player_repeat, 7), 0);
    EXPECT_EQ(rig_attribute(*s.rig, "commander", "state", "repeat"), "::all");
    EXPECT_EQ(rig_do(s.player, player_next), 0); /* no such mode: the end */
    EXPECT_EQ(rig_current(s.player), 1);
    player_close(&mmcontrol, "commander");
}

/* Requests alone could once lead into arrays that are not there. */
TEST(player_commands, has_no_tracks_to_walk) {
    player_rig& rig = rig_fresh();
    const int32_t source = rig_source(rig, "commands", ALL, "/|tracks:2");
    player* player = rig_player(rig, "empty", source, "/", 7, -1);
    EXPECT_EQ(rig_do(player, player_shuffle, 1), 0);
    EXPECT_EQ(rig_do(player, player_next), 0);
    EXPECT_EQ(rig_logged(rig, "We are at the end of the trksession"), 1);
    EXPECT_EQ(rig_do(player, player_repeat, LYR_REPEAT_ALL), 0);
    EXPECT_EQ(rig_do(player, player_next), -1);
    EXPECT_EQ(rig_do(player, player_previous), -1);
    EXPECT_EQ(rig_logged(rig, "Cannot retrieve media node from trksession"), 2);
    player_close(&mmcontrol, "empty");
}

TEST(player_commands, hands_out_pages) {
    player_rig& rig = rig_fresh();
    const int32_t source = rig_source(rig, "commands", ALL, "/|tracks:5");
    player* player = rig_player(rig, "pager", source, "/", 0, 5);
    trksession* session = trksession_hold(player);
    const struct {
        int32_t offset;
        int32_t limit;
        int32_t result;
        int32_t delivered;
    } cases[] = {{0, -1, 0, 5},  {3, -1, 0, 2},  {3, 9, 0, 2},         {1, 2, 0, 2},
                 {0, 0, 0, 0},   {9, 0, 0, 0},   {1, INT32_MAX, 0, 4}, {5, 1, -1, 1},
                 {-1, 1, -1, 1}, {0, -2, -1, -2}};
    for (const auto& c : cases) {
        vel_lock_guard guard(session->lock);
        medianode* tracks = nullptr;
        int32_t limit = c.limit;
        EXPECT_EQ(trksession_get_tracks(session, 0, c.offset, &limit, &tracks), c.result);
        EXPECT_EQ(limit, c.delivered) << c.offset << " " << c.limit;
        EXPECT_EQ(tracks != nullptr, c.result == 0 && c.limit != 0);
    }
    trksession_release(session);
    player_close(&mmcontrol, "pager");
}

} // namespace
