/* Ending and starting again: what the players played comes back. */
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "rig.h"

namespace {

constexpr const char* TREE = "/a|tracks:20\n/it's \\x22odd\\x22|A|it's\\xff\n";

/* A daemon with last mode and one source. */
bool start(rig& rig, const std::string& script = "source disk") {
    if (rig.daemon.plugins.empty()) {
        daemon_prepare(rig.daemon);
        rig.daemon.options.push_back("-l");
        rig.daemon.options.push_back("-vvvvvvv");
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

std::string database(const rig& rig) {
    return rig.daemon.root + "/state/db/lyrane.db";
}

} // namespace

TEST(Lastmode, BringsEveryPlayerBackTwice) {
    rig rig;
    ASSERT_TRUE(start(rig));
    for (const saved_player& row : saved) {
        bring(rig, row);
    }
    for (int run = 0; run < 2; ++run) {
        stop(rig);
        ASSERT_TRUE(start(rig));
        for (const saved_player& row : saved) {
            expect_back(rig, row);
        }
    }
    EXPECT_EQ(fake_do(rig.disk, "violations"), "");
    stop(rig);
    daemon_remove(rig.daemon);
}

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

/* Whatever stands in the place of the database, the service plays. */
TEST(Lastmode, StartsWithoutAUsableDatabase) {
    const char* contents[] = {"no database at all", "SQLite format 3"};
    for (const char* content : contents) {
        rig rig;
        daemon_prepare(rig.daemon);
        std::filesystem::create_directories(rig.daemon.root + "/state/db");
        std::ofstream(database(rig)) << content;
        rig.daemon.options.push_back("-l");
        rig.daemon.plugins = {{"disk", "source disk", {}}};
        ASSERT_TRUE(start(rig));
        bring(rig, saved[0]);
        stop(rig);
        ASSERT_TRUE(start(rig));
        expect_back(rig, saved[0]);
        stop(rig);
        EXPECT_TRUE(std::filesystem::exists(database(rig) + ".damaged"));
        daemon_remove(rig.daemon);
    }
}
