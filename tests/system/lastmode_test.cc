/* Ending and starting again: what the players played comes back. */
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <thread>

#include <gtest/gtest.h>

#include "rig.h"
#include "saved.h"

namespace {

constexpr const char* TREE = "/a|tracks:20\n/it's \\x22odd\\x22|A|it's\\xff\n";

/* A daemon with last mode and one source. */
bool start(rig& rig, const std::string& script = "source disk") {
    if (rig.daemon.plugins.empty()) {
        daemon_prepare(rig.daemon);
        rig.daemon.options.push_back("-l");
        rig.daemon.options.push_back("-vvvvvvv");
        if (rig.daemon.lastmode.empty()) { /* no source comes too late */
            rig.daemon.lastmode = R"({"timeout": "300", "device_type": ["HDD"]})";
        }
    }
    rig.daemon.plugins = {{"disk", script, {}}};
    if (!daemon_start(rig.daemon)) {
        return false;
    }
    rig.disk = daemon_fake(rig.daemon, "disk");
    fake_tree(rig.disk, "", TREE);
    return request_connect(rig.client, rig.daemon.service);
}

void stop(rig& rig) {
    request_disconnect(rig.client);
    fake_close(rig.disk);
    EXPECT_EQ(daemon_stop(rig.daemon), 0);
}

struct saved_player {
    const char* name;
    uint16_t command; /* the last one; 0: none */
    int32_t shuffle;
    int32_t repeat;
    int32_t track;
    int32_t position;
    const char* status; /* after the restart */
};
const saved_player saved[] = {
    {"plays", LYR_MSG_PLAY, 1, 1, 7, 61000, "::playing"},
    {"paused", LYR_MSG_PAUSE, 0, 2, 19, 5, "::idle"},
    {"stopped", LYR_MSG_STOP, 1, 0, 0, 0, "::idle"},
    {"it's \"odd\"", 0, 0, 0, 3, 1000, "::idle"},
};

/* Opens a player and brings it to where the row says. */
void bring(rig& rig, const saved_player& row) {
    uint64_t ts_id = 0;
    EXPECT_EQ(request_open(rig.client, row.name), 0);
    EXPECT_EQ(request_create(rig.client, 0, "/a", -1, 0, &ts_id), 0);
    EXPECT_TRUE(daemon_await_object(rig.daemon, row.name, "trksession", "length", ":n:20"));
    EXPECT_EQ(request_number(rig.client, LYR_MSG_JUMP, row.track), 0);
    EXPECT_EQ(request_number(rig.client, LYR_MSG_SHUFFLE, row.shuffle), 0);
    EXPECT_EQ(request_number(rig.client, LYR_MSG_REPEAT, row.repeat), 0);
    if (row.command != 0) {
        EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
        EXPECT_EQ(request_simple(rig.client, row.command), 0);
    }
    fake_do(rig.disk, "event position value=%d", row.position);
}

void expect_back(rig& rig, const saved_player& row) {
    SCOPED_TRACE(row.name);
    EXPECT_TRUE(daemon_await_object(rig.daemon, row.name, "state", "repeat",
                                    row.repeat == 2   ? "::one"
                                    : row.repeat == 1 ? "::all"
                                                      : "::off"));
    EXPECT_TRUE(daemon_await_object(rig.daemon, row.name, "state", "status", row.status));
    EXPECT_TRUE(daemon_await_object(rig.daemon, row.name, "track", "index",
                                    ":n:" + std::to_string(row.track)));
    EXPECT_EQ(daemon_object(rig.daemon, row.name, "state").at("shuffle"),
              row.shuffle == 1 ? "::on" : "::off");
    int32_t position = -1;
    uint64_t ts_id = 0;
    int32_t length = 0;
    EXPECT_EQ(request_open(rig.client, row.name), 0);
    EXPECT_EQ(request_session(rig.client, &ts_id, &length), 0);
    EXPECT_EQ(length, 20);
    std::vector<request_node> nodes;
    EXPECT_EQ(request_tracks(rig.client, ts_id, 0, -1, nodes), 0);
    ASSERT_EQ(nodes.size(), 20u);
    EXPECT_EQ(nodes[13].id, "/a/t13");
    EXPECT_EQ(nodes[13].name, "Track 14");
    EXPECT_EQ(request_position(rig.client, &position), 0);
    EXPECT_EQ(position, row.position);
    EXPECT_EQ(request_close(rig.client, row.name), 0);
}

} // namespace

/* The source comes late, or never, or a client was faster. */
TEST(Lastmode, WaitsForTheSourceAndYieldsToAClient) {
    rig rig;
    ASSERT_TRUE(start(rig));
    bring(rig, saved[0]);
    bring(rig, saved[1]);
    stop(rig);

    ASSERT_TRUE(start(rig, "source disk auto=0\nsource other"));
    daemon_await_log(rig.daemon, "check whether the media source is ready: 2");
    uint64_t ts_id = 0;
    EXPECT_EQ(request_open(rig.client, "paused"), 0);
    EXPECT_EQ(request_create(rig.client, 0, "/", -1, 0, &ts_id), 0);
    fake_do(rig.disk, "event connected uid=disk");
    EXPECT_TRUE(daemon_await_object(rig.daemon, "plays", "state", "status", "::playing"));
    daemon_await_log(rig.daemon, "Last mode trksession is created");
    EXPECT_TRUE(daemon_await_object(rig.daemon, "paused", "trksession", "length", ":n:21"));
    stop(rig);

    /* Nobody waits at the end for who waits for a source. */
    ASSERT_TRUE(start(rig, "source other"));
    daemon_await_log(rig.daemon, "check whether the media source is ready: 1");
    stop(rig);
    daemon_remove(rig.daemon);
}

/* With saves while it runs, a kill loses nothing that was saved: not what plays, not what still
 * waits for its source, and not what a plug-in keeps busy. */
TEST(Lastmode, SavesWhileItRuns) {
    rig rig;
    rig.daemon.lastmode = R"({"checkpoint": "1", "timeout": "60", "device_type": ["HDD"]})";
    ASSERT_TRUE(start(rig));
    bring(rig, saved[0]);
    bring(rig, saved[1]);
    stop(rig);

    /* Both wait for their source while a third one plays from another. */
    ASSERT_TRUE(start(rig, "source disk auto=0\nsource other"));
    uint64_t ts_id = 0;
    EXPECT_EQ(request_open(rig.client, "third"), 0);
    EXPECT_EQ(request_create(rig.client, 0, "/a", -1, 2, &ts_id), 0);
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
    EXPECT_TRUE(saved_await("third", "length||' '||trk_id||' '||status", "20 2 2"));
    EXPECT_EQ(saved_tracks("third"), 20);
    EXPECT_EQ(saved_tracks("plays"), 20);
    EXPECT_EQ(saved_tracks("paused"), 20);

    /* A client's own session takes the place of one that waits, and goes with its player. */
    EXPECT_EQ(request_open(rig.client, "paused"), 0);
    EXPECT_EQ(request_create(rig.client, 0, "/", -1, 0, &ts_id), 0);
    EXPECT_TRUE(saved_await("paused", "mn_id||' '||length", "/ 21"));
    EXPECT_EQ(saved_tracks("paused"), 21);
    EXPECT_EQ(request_open(rig.client, "gone"), 0);
    EXPECT_EQ(request_create(rig.client, 0, "/a", -1, 0, &ts_id), 0);
    EXPECT_TRUE(saved_await("gone", "length", "20"));
    EXPECT_EQ(request_close(rig.client, "gone"), 0);
    EXPECT_TRUE(saved_await("gone", "length", ""));

    /* A player that its plug-in does not let go stays as it was; the others go on. */
    EXPECT_EQ(request_open(rig.client, "busy"), 0);
    EXPECT_EQ(request_create(rig.client, 0, "/a", -1, 5, &ts_id), 0);
    EXPECT_TRUE(saved_await("busy", "trk_id", "5"));
    fake_do(rig.disk, "rule pause block=gate");
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
    std::thread client([&rig] { EXPECT_EQ(request_simple(rig.client, LYR_MSG_PAUSE), 0); });
    fake_do(rig.disk, "blocked gate");
    const auto sessions = fake_log(rig.disk, "play.create");
    fake_do(rig.disk, "event position value=777 session=%s",
            fake_word(sessions.front(), "session").c_str());
    EXPECT_TRUE(saved_await("third", "trk_pos", "777"));
    EXPECT_EQ(saved_value("busy", "trk_id"), "5");
    fake_do(rig.disk, "release gate");
    client.join();

    request_disconnect(rig.client);
    fake_close(rig.disk);
    daemon_signal(rig.daemon, SIGKILL);
    daemon_wait(rig.daemon);
    ASSERT_TRUE(start(rig, "source other\nsource disk"));
    expect_back(rig, saved[0]);
    EXPECT_TRUE(daemon_await_object(rig.daemon, "paused", "trksession", "length", ":n:21"));
    EXPECT_TRUE(daemon_await_object(rig.daemon, "third", "state", "status", "::playing"));
    EXPECT_TRUE(daemon_await_object(rig.daemon, "busy", "track", "index", ":n:5"));
    EXPECT_FALSE(rig_has_player(rig.daemon, "gone"));
    stop(rig);
    daemon_remove(rig.daemon);
}

/* An entry that never returns costs the orderly end, not what was played. Each takes the service's
 * whole limit, so they hang side by side. */
TEST(Lastmode, SavesAlthoughAPluginHangs) {
    const struct {
        const char* entry;
        void (*ask)(request_client&); /* hangs the main thread; null: the end itself comes to it */
    } rows[] = {{"pause", [](request_client& client) { request_simple(client, LYR_MSG_PAUSE); }},
                {"rate", [](request_client& client) { request_speed(client, 2); }},
                {"seek", [](request_client& client) { request_number(client, LYR_MSG_SEEK, 1); }},
                {"browse",
                 [](request_client& client) {
                     std::vector<request_node> nodes;
                     request_browse(client, 0, "/a", 0, 5, nodes);
                 }},
                {"search",
                 [](request_client& client) {
                     std::vector<request_node> nodes;
                     request_search(client, 0, "", "x", 0, 5, nodes);
                 }},
                {"metadata",
                 [](request_client& client) {
                     request_metadata data;
                     request_metadata_of(client, 0, "/a/t1", data);
                 }},
                {"extended",
                 [](request_client& client) {
                     std::vector<std::string> values;
                     request_extended(client, 0, "/a/t1", {"key"}, values);
                 }},
                {"stop", nullptr},
                {"play.destroy", nullptr},
                {"browse.destroy", nullptr},
                {"detection", nullptr},
                {"cleanup", nullptr}};
    struct rig rigs[std::size(rows)];
    std::thread clients[std::size(rows)];
    for (size_t i = 0; i < std::size(rows); ++i) {
        rigs[i].daemon.service = "hangs" + std::to_string(i);
        rigs[i].daemon.own_root = true;
        daemon_prepare(rigs[i].daemon);
        rigs[i].daemon.options = {"-l", "-vvvvvvv"};
        rigs[i].daemon.plugins = {{"disk", "source disk", {}}};
        ASSERT_TRUE(daemon_start(rigs[i].daemon));
        rigs[i].disk = daemon_fake(rigs[i].daemon, "disk");
        fake_tree(rigs[i].disk, "", TREE);
        ASSERT_TRUE(request_connect_wire(rigs[i].client, rig_socket(rigs[i].daemon),
                                         rigs[i].daemon.service));
        bring(rigs[i], saved[0]);
        fake_do(rigs[i].disk, "rule %s block=never", rows[i].entry);
        if (rows[i].ask != nullptr) {
            clients[i] = std::thread(rows[i].ask, std::ref(rigs[i].client));
            fake_do(rigs[i].disk, "blocked never");
        }
        daemon_signal(rigs[i].daemon, SIGTERM);
    }
    for (size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].entry);
        EXPECT_EQ(daemon_wait(rigs[i].daemon), EXIT_FAILURE);
        EXPECT_TRUE(daemon_log(rigs[i].daemon).find("does not return (player") !=
                    std::string::npos);
        if (clients[i].joinable()) {
            clients[i].join();
        }
        request_disconnect(rigs[i].client);
        fake_close(rigs[i].disk);
        rigs[i].daemon.plugins[0].script = "source disk";
        ASSERT_TRUE(daemon_start(rigs[i].daemon));
        EXPECT_TRUE(daemon_await_object(rigs[i].daemon, "plays", "state", "status", "::playing"));
        EXPECT_TRUE(daemon_await_object(rigs[i].daemon, "plays", "track", "index", ":n:7"));
        EXPECT_EQ(daemon_stop(rigs[i].daemon), 0);
        daemon_remove(rigs[i].daemon);
    }
}
