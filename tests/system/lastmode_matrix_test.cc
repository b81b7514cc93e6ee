/* Every state that four players can be left in, and what comes back of it: also every byte of every
 * text, whatever it would mean in a statement, in a path or in a table of text. */
#include <algorithm>
#include <sstream>

#include <gtest/gtest.h>

#include "lastmode_rows.h"
#include "rig.h"

namespace {

constexpr int PLAYERS = 4;
constexpr int32_t TRACKS = 1000;
constexpr const char* ALL_THERE = ":n:1000";
constexpr int ROUNDS = RIG_SANITIZED ? 12 : 36; /* every mode */
constexpr const char* LASTMODE = R"({"timeout": "300", "device_type": ["HDD", "USB"]})";

/* A folder of TRACKS, in the words of the plug-in and as it is; and the name of its first track. */
constexpr const char* TREE =
    "/it's \\x22odd\\x22; -- %s\\x0a\\x09\\x5cx\\x01\\xff\\xc3'|tracks:999\n"
    "/it's \\x22odd\\x22; -- %s\\x0a\\x09\\x5cx\\x01\\xff\\xc3'/first|A|it's\\x0a\\x22;\\xff'\n";
const std::string FOLDER = "/it's \"odd\"; -- %s\n\t\\x\x01\xff\xc3'";
const std::string FIRST = "it's\n\";\xff'";

std::string id_of(int32_t track) {
    return FOLDER + (track == 0 ? "/first" : "/t" + std::to_string(track - 1));
}

std::string name_of(int32_t track) {
    return track == 0 ? FIRST : "Track " + std::to_string(track);
}

/* What a player is left in. */
struct mode {
    int32_t status;
    int32_t shuffle;
    int32_t repeat;
    int32_t track;
    int32_t position;
};

/* One player with a source of its own, of the same name. */
struct seat {
    std::string name;
    int plugin = 0;
    int32_t source = -1; /* its id in this run */
    request_client client = {};
    mode now = {};
};

struct scene {
    test_daemon daemon;
    fake_client fakes[2];
    seat seats[PLAYERS] = {{"it's \"odd\" %q \xff", 0}, {"p1", 1}, {"p2", 0}, {"p3", 1}};
    int order[PLAYERS] = {0, 1, 2, 3}; /* in which the sources come */
};

/* What was saved: the players as they were, and their tracks in order, with keys from 1 on. */
void expect_saved(const scene& scene) {
    std::vector<std::string> expected;
    for (const seat& seat : scene.seats) {
        std::ostringstream line;
        line << seat.name << '|' << seat.now.status << '|' << seat.now.shuffle << '|'
             << seat.now.repeat << "|1.0|" << seat.name << "|1|" << FOLDER << '|' << TRACKS << '|'
             << seat.now.track << '|' << seat.now.position;
        expected.push_back(line.str());
    }
    EXPECT_EQ(
        lastmode_rows(scene.daemon,
                      "SELECT name, status, shuffle_mode, repeat_mode, playback_rate, ms_uid, "
                      "ms_type, mn_id, length, trk_id, trk_pos FROM players JOIN trksessions "
                      "USING (ts_id) ORDER BY name"),
        expected);
    expected.clear();
    for (const seat& seat : scene.seats) {
        for (int32_t i = 0; i < TRACKS; ++i) {
            expected.push_back(seat.name + '|' + id_of(i) + '|' + name_of(i) + "|fake:" + id_of(i) +
                               "|2|" + seat.name + "|1");
        }
    }
    EXPECT_EQ(
        lastmode_rows(scene.daemon,
                      "SELECT p.name, t.mn_id, t.name, t.url, t.mn_type, t.ms_uid, t.ms_type FROM "
                      "trksession_medianodes t JOIN players p USING (ts_id) ORDER BY p.name, t.id"),
        expected);
    EXPECT_EQ(lastmode_rows(scene.daemon, "SELECT min(id), max(id) FROM trksession_medianodes"),
              std::vector<std::string>{"1|" + std::to_string(PLAYERS * TRACKS)});
}

/* A daemon whose sources have not come yet. */
bool start(scene& scene) {
    const bool is_up = daemon_start(scene.daemon);
    for (int i = 0; i < 2 && is_up; ++i) {
        scene.fakes[i] = daemon_fake(scene.daemon, scene.daemon.plugins[i].name);
        fake_tree(scene.fakes[i], "", TREE);
    }
    return is_up;
}

/* The sources come, in another order than last time. */
bool connect_sources(scene& scene) {
    std::next_permutation(std::begin(scene.order), std::end(scene.order));
    for (const int number : scene.order) {
        seat& seat = scene.seats[number];
        fake_client& fake = scene.fakes[seat.plugin];
        const std::string uid = fake_quote(seat.name);
        fake_do(fake, "event connected uid=%s", uid.c_str());
        seat.source = static_cast<int32_t>(fake_number(fake, "id %s", uid.c_str()));
    }
    for (seat& seat : scene.seats) {
        if (!request_connect(seat.client, scene.daemon.service) ||
            request_open(seat.client, seat.name) != 0) {
            return false;
        }
    }
    return true;
}

void stop(scene& scene) {
    for (fake_client& fake : scene.fakes) {
        EXPECT_EQ(fake_do(fake, "violations"), "");
        fake_close(fake);
    }
    for (seat& seat : scene.seats) {
        request_disconnect(seat.client);
    }
    EXPECT_EQ(daemon_stop(scene.daemon), 0) << daemon_log(scene.daemon);
}

/* The serial of a source's play session. */
std::string play_session(fake_client& fake, int32_t source) {
    std::istringstream lines(fake_do(fake, "sessions"));
    for (std::string line; std::getline(lines, line);) {
        if (line.ends_with(" play ms=" + std::to_string(source))) {
            return line.substr(0, line.find(' '));
        }
    }
    ADD_FAILURE() << "no play session";
    return "0";
}

/* Brings a player from what it was restored to, or from a new session, to a mode. A player is idle
 * only when it was restored so. */
void bring(scene& scene, seat& seat, const mode& wanted) {
    const int32_t status = request_state(seat.client).status;
    const auto command = [&seat](uint16_t type) {
        EXPECT_EQ(request_simple(seat.client, type), 0);
    };
    if (wanted.status == LYR_STATUS_IDLE) {
        EXPECT_EQ(status, LYR_STATUS_IDLE);
    } else if (status != LYR_STATUS_PLAYING) {
        command(LYR_MSG_PLAY);
    }
    if (wanted.status == LYR_STATUS_PAUSED) {
        command(LYR_MSG_PAUSE);
    } else if (wanted.status == LYR_STATUS_STOPPED) {
        command(LYR_MSG_STOP);
    }
    EXPECT_EQ(request_number(seat.client, LYR_MSG_JUMP, wanted.track), 0);
    EXPECT_EQ(request_number(seat.client, LYR_MSG_SHUFFLE, wanted.shuffle), 0);
    EXPECT_EQ(request_number(seat.client, LYR_MSG_REPEAT, wanted.repeat), 0);
    if (wanted.position != 0) {
        fake_client& fake = scene.fakes[seat.plugin];
        fake_do(fake, "event position value=%d session=%s", wanted.position,
                play_session(fake, seat.source).c_str());
    }
    seat.now = wanted;
}

void expect_tracks(seat& seat, uint64_t ts_id, int32_t source) {
    int32_t at = 0;
    for (std::vector<request_node> nodes; at < TRACKS; nodes.clear()) {
        ASSERT_EQ(request_tracks(seat.client, ts_id, at, -1, nodes), 0);
        ASSERT_FALSE(nodes.empty());
        for (const request_node& node : nodes) {
            ASSERT_EQ(node.id + node.name, id_of(at) + name_of(at));
            ASSERT_EQ(node.ms_id, source);
            ++at;
        }
    }
    EXPECT_EQ(at, TRACKS);
}

/* What the plug-in was told to bring one player back. */
void expect_calls(scene& scene, const seat& seat) {
    fake_client& fake = scene.fakes[seat.plugin];
    const std::string session = play_session(fake, seat.source);
    std::string calls;
    for (const fake_record& record : fake_log(fake, "")) {
        if (fake_word(record, "session") == session &&
            (record.entry == "attach" || record.entry == "seek" || record.entry == "play")) {
            calls +=
                record.entry + ' ' + fake_word(record, "id") + fake_word(record, "value") + ' ';
        }
    }
    EXPECT_EQ(calls, "attach " + id_of(seat.now.track) + ' ' +
                         (seat.now.position != 0 ? "seek " + std::to_string(seat.now.position) + ' '
                                                 : "") +
                         (seat.now.status == LYR_STATUS_PLAYING ? "play  " : ""));
}

void expect_back(scene& scene, seat& seat) {
    SCOPED_TRACE(seat.name);
    const mode& was = seat.now;
    daemon_await_object(scene.daemon, seat.name, "trksession", "length", ALL_THERE);
    const request_track track = request_current_settled(seat.client);
    const lyr_state_reply state = request_state(seat.client);
    const bool plays = was.status == LYR_STATUS_PLAYING;
    EXPECT_EQ(state.status, plays ? LYR_STATUS_PLAYING : LYR_STATUS_IDLE);
    EXPECT_EQ(state.shuffle_mode, was.shuffle);
    EXPECT_EQ(state.repeat_mode, was.repeat);
    const auto shown = daemon_object(scene.daemon, seat.name, "state");
    EXPECT_EQ(shown.at("status"), plays ? "::playing" : "::idle");
    EXPECT_EQ(track.index, was.track);
    EXPECT_EQ(track.node.id, id_of(was.track));
    int32_t position = -1;
    EXPECT_EQ(request_position(seat.client, &position), 0);
    EXPECT_EQ(position, was.position);
    expect_calls(scene, seat);
    expect_tracks(seat, track.ts_id, seat.source);
    seat.now.status = state.status;
}

/* Over 36 rounds every player is left in 36 modes, no two players in the same: nine of shuffle,
 * repeat, track and position, each with every status. A player is idle in the round after the one
 * in which it was paused. */
mode mode_of(int player, int round) {
    constexpr int32_t STATUS[] = {LYR_STATUS_STOPPED, LYR_STATUS_PAUSED, LYR_STATUS_IDLE,
                                  LYR_STATUS_PLAYING};
    constexpr int32_t TRACK[] = {0, TRACKS / 2 - 1, TRACKS - 1};
    const int step = round + player + 36;
    const int rest = player * 9 + step / 4 % 9;
    return {STATUS[step % 4], rest % 2, rest / 2 % 3, TRACK[rest / 6 % 3],
            rest / 18 % 2 == 0 ? 0 : 61000 + rest};
}

bool first_round(scene& scene) {
    daemon_prepare(scene.daemon);
    scene.daemon.options = {"-l"};
    scene.daemon.lastmode = LASTMODE;
    scene.daemon.plugins = {
        {"it's", "source " + fake_quote(scene.seats[0].name) + " auto=0\nsource p2 auto=0\n", {}},
        {"stick", "source p1 auto=0\nsource p3 auto=0\n", {}}};
    if (!start(scene) || !connect_sources(scene)) {
        return false;
    }
    for (int i = 0; i < PLAYERS; ++i) {
        uint64_t ts_id = 0;
        seat& seat = scene.seats[i];
        EXPECT_EQ(request_create(seat.client, seat.source, FOLDER, -1, 0, &ts_id), 0);
        daemon_await_object(scene.daemon, seat.name, "trksession", "length", ALL_THERE);
        mode wanted = mode_of(i, -1);
        if (wanted.status == LYR_STATUS_IDLE) {
            wanted.status = LYR_STATUS_STOPPED; /* nothing was restored yet */
        }
        bring(scene, seat, wanted);
    }
    return true;
}

} // namespace

TEST(LastmodeMatrix, BringsEveryModeBack) {
    scene scene;
    ASSERT_TRUE(first_round(scene));
    for (int round = 0; round < ROUNDS && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        stop(scene);
        expect_saved(scene);
        ASSERT_TRUE(start(scene));
        for (fake_client& fake : scene.fakes) {
            if (round % 2 == 0) { /* what was saved is all that the session is made of */
                fake_do(fake, "rule update result=0");
            }
        }
        ASSERT_TRUE(connect_sources(scene));
        for (int i = 0; i < PLAYERS; ++i) {
            expect_back(scene, scene.seats[i]);
            bring(scene, scene.seats[i], mode_of(i, round));
        }
    }
    stop(scene);
    expect_saved(scene);
    daemon_remove(scene.daemon);
}
