/* Every state that four players can be left in, and what comes back of it. */
#include <algorithm>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

#include "lastmode_rows.h"
#include "rig.h"

namespace {

constexpr int PLAYERS = 4;
constexpr int32_t TRACKS = 1000;
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int ROUNDS = 12;
#else
constexpr int ROUNDS = 36; /* every mode */
#endif
constexpr const char* PLUGINS[] = {"disk", "stick"};
constexpr const char* LASTMODE = R"({"timeout": "300", "device_type": ["HDD", "USB"]})";

/* What a player is left in. */
struct mode {
    int32_t status;
    int32_t shuffle;
    int32_t repeat;
    int32_t track;
    int32_t position;
};

/* One player with a source of its own. */
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
    bool updates = false; /* the plug-ins look at what comes back, and set its source */
    seat seats[PLAYERS];
    std::mt19937 random{std::random_device()()};
};

/* --- What was saved ---------------------------------------------------------------------- */

std::string row_of(const seat& seat) {
    const mode& now = seat.now;
    std::ostringstream line;
    line << seat.name << '|' << now.status << '|' << now.shuffle << '|' << now.repeat << "|1.0|"
         << seat.name << "|1|/a|" << TRACKS << '|' << now.track << '|' << now.position;
    return line.str();
}

/* What was saved: the players as they were, and their tracks in order, with keys from 1 on. */
void expect_saved(const scene& scene) {
    std::vector<std::string> expected;
    for (const seat& seat : scene.seats) {
        expected.push_back(row_of(seat));
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
            const std::string id = "/a/t" + std::to_string(i);
            expected.push_back(seat.name + '|' + id + "|Track " + std::to_string(i + 1) +
                               "|fake:" + id + "|2|" + seat.name + "|1");
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

/* --- Rounds ------------------------------------------------------------------------------- */

/* A daemon whose sources have not come yet. */
bool start(scene& scene) {
    scene.daemon.plugins.clear();
    for (const char* plugin : PLUGINS) {
        std::string script;
        for (const seat& seat : scene.seats) {
            if (PLUGINS[seat.plugin] == std::string(plugin)) {
                script += "source " + seat.name + " auto=0\n";
            }
        }
        scene.daemon.plugins.push_back({plugin, script, {}});
    }
    if (!daemon_start(scene.daemon)) {
        return false;
    }
    for (int i = 0; i < 2; ++i) {
        scene.fakes[i] = daemon_fake(scene.daemon, PLUGINS[i]);
        fake_tree(scene.fakes[i], "", "/a|tracks:" + std::to_string(TRACKS));
    }
    return true;
}

/* The sources come in a random order. */
bool connect_sources(scene& scene) {
    std::vector<seat*> order;
    for (seat& seat : scene.seats) {
        order.push_back(&seat);
    }
    std::shuffle(order.begin(), order.end(), scene.random);
    for (seat* seat : order) {
        fake_client& fake = scene.fakes[seat->plugin];
        fake_do(fake, "event connected uid=%s", seat->name.c_str());
        seat->source = static_cast<int32_t>(fake_number(fake, "id %s", seat->name.c_str()));
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
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(fake_do(scene.fakes[i], "violations"), "");
        fake_close(scene.fakes[i]);
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
            const std::string number = std::to_string(at);
            ++at;
            ASSERT_EQ(node.id + node.name, "/a/t" + number + "Track " + std::to_string(at));
            ASSERT_EQ(node.ms_id, source);
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
    EXPECT_EQ(calls, "attach /a/t" + std::to_string(seat.now.track) + ' ' +
                         (seat.now.position != 0 ? "seek " + std::to_string(seat.now.position) + ' '
                                                 : "") +
                         (seat.now.status == LYR_STATUS_PLAYING ? "play  " : ""));
}

void expect_back(scene& scene, seat& seat) {
    SCOPED_TRACE(seat.name);
    const mode& was = seat.now;
    daemon_await_object(scene.daemon, seat.name, "trksession", "length",
                        ":n:" + std::to_string(TRACKS));
    const request_track track = request_current_settled(seat.client);
    const lyr_state_reply state = request_state(seat.client);
    const bool plays = was.status == LYR_STATUS_PLAYING;
    EXPECT_EQ(state.status, plays ? LYR_STATUS_PLAYING : LYR_STATUS_IDLE);
    EXPECT_EQ(state.shuffle_mode, was.shuffle);
    EXPECT_EQ(state.repeat_mode, was.repeat);
    const auto shown = daemon_object(scene.daemon, seat.name, "state");
    EXPECT_EQ(shown.at("status"), plays ? "::playing" : "::idle");
    EXPECT_EQ(track.index, was.track);
    EXPECT_EQ(track.node.id, "/a/t" + std::to_string(was.track));
    int32_t position = -1;
    EXPECT_EQ(request_position(seat.client, &position), 0);
    EXPECT_EQ(position, was.position);
    expect_calls(scene, seat);
    expect_tracks(seat, track.ts_id, scene.updates ? seat.source : 0);
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
    scene.daemon.options.push_back("-l");
    scene.daemon.lastmode = LASTMODE;
    for (int i = 0; i < PLAYERS; ++i) {
        scene.seats[i].name = "p" + std::to_string(i);
        scene.seats[i].plugin = i % 2;
    }
    if (!start(scene) || !connect_sources(scene)) {
        return false;
    }
    for (int i = 0; i < PLAYERS; ++i) {
        uint64_t ts_id = 0;
        seat& seat = scene.seats[i];
        EXPECT_EQ(request_create(seat.client, seat.source, "/a", -1, 0, &ts_id), 0);
        daemon_await_object(scene.daemon, seat.name, "trksession", "length",
                            ":n:" + std::to_string(TRACKS));
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
        scene.updates = round % 2 != 0;
        for (fake_client& fake : scene.fakes) {
            if (!scene.updates) { /* what was saved is all that the session is made of */
                fake_do(fake, "rule update result=0");
            }
        }
        const auto seed = static_cast<std::mt19937::result_type>(std::random_device()());
        SCOPED_TRACE("seed " + std::to_string(seed));
        scene.random.seed(seed);
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

/* Any text comes back as it was, whatever it would mean in a statement or in a table of text. */
TEST(LastmodeMatrix, KeepsEveryByteOfEveryText) {
    const std::string odd = "it's \"odd\"; -- %s\n\t\\x\x01\xff\xc3'";
    const std::string large(1 << 20, '\'');
    std::string escaped;
    for (const char byte : odd) {
        char text[8];
        snprintf(text, sizeof text, "\\x%02x", static_cast<unsigned char>(byte));
        escaped += text;
    }
    rig rig;
    daemon_prepare(rig.daemon);
    rig.daemon.options.push_back("-l");
    rig.daemon.lastmode = LASTMODE;
    rig.daemon.plugins = {{"it's", "source " + fake_quote(odd) + " auto=0", {}}};
    const std::string player = "it's \"odd\" %q";
    for (int run = 0; run < 3; ++run) {
        ASSERT_TRUE(daemon_start(rig.daemon));
        rig.disk = daemon_fake(rig.daemon, "it's");
        fake_tree(rig.disk, "",
                  "/f" + escaped + "/" + escaped + "|A|" + escaped + '|' + escaped + "\n/f" +
                      escaped + "/large|A|" + large + '|' + large + '\n');
        if (run == 1) {
            fake_do(rig.disk, "rule update result=0");
        }
        fake_do(rig.disk, "event connected uid=%s", fake_quote(odd).c_str());
        ASSERT_TRUE(request_connect(rig.client, rig.daemon.service));
        ASSERT_EQ(request_open(rig.client, player), 0);
        if (run == 0) {
            uint64_t ts_id = 0;
            EXPECT_EQ(request_create(rig.client, 0, "/f" + odd, -1, 0, &ts_id), 0);
        }
        daemon_await_object(rig.daemon, player, "trksession", "length", ":n:2");
        EXPECT_EQ(request_current(rig.client).node.name, odd);
        request_disconnect(rig.client);
        fake_close(rig.disk);
        EXPECT_EQ(daemon_stop(rig.daemon), 0) << daemon_log(rig.daemon);
        EXPECT_EQ(lastmode_rows(rig.daemon, "SELECT p.name, s.ms_uid, s.mn_id FROM players p JOIN "
                                            "trksessions s USING (ts_id)"),
                  std::vector<std::string>{player + '|' + odd + "|/f" + odd});
        const std::string folder = "/f" + odd + '/';
        EXPECT_TRUE(lastmode_rows(rig.daemon, "SELECT mn_id, name, url, ms_uid FROM "
                                              "trksession_medianodes ORDER BY id") ==
                    (std::vector<std::string>{folder + odd + '|' + odd + '|' + odd + '|' + odd,
                                              folder + "large|" + large + '|' + large + '|' + odd}))
            << "run " << run;
    }
    daemon_remove(rig.daemon);
}
