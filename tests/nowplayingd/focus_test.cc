/* The service, the arbiter and a phone: two players never talk over each other. */
#include <csignal>

#include <gtest/gtest.h>

#include <daemon.h>
#include <requests.h>

#include "rig.h"

namespace {

/* A player with a session that has been asked to play. */
void play(request_client& client, const test_daemon& daemon, const char* player) {
    uint64_t ts_id = 0;
    ASSERT_TRUE(request_connect(client, daemon.service));
    EXPECT_EQ(request_open(client, player), 0);
    daemon_await_log(daemon, std::string("NowPlaying service now available for player:") + player);
    EXPECT_EQ(request_create(client, 0, "/a", -1, 0, &ts_id), 0);
    EXPECT_EQ(request_simple(client, LYR_MSG_PLAY), 0);
}

void await_status(const test_daemon& daemon, const char* player, const char* status) {
    EXPECT_TRUE(daemon_await_object(daemon, player, "state", "status", status)) << player;
}

} // namespace

TEST(Focus, PlayersTakeTurnsAndYieldToAPhone) {
    test_daemon daemon;
    daemon_prepare(daemon);
    daemon.options.push_back("-vvvvvvv");
    daemon.plugins.push_back({"disk", "source disk", {}});
    program arbiter = rig_start();
    ASSERT_TRUE(daemon_start(daemon));
    fake_client disk = daemon_fake(daemon, "disk");
    fake_tree(disk, "", "/a|tracks:9\n");
    request_client kitchen;
    request_client bath;
    play(kitchen, daemon, "kitchen");
    play(bath, daemon, "bath");
    await_status(daemon, "kitchen", "::paused");
    EXPECT_EQ(request_simple(bath, LYR_MSG_STOP), 0);
    await_status(daemon, "kitchen", "::playing");

    rig_ctl({"take", "phone"});
    await_status(daemon, "kitchen", "::paused");
    EXPECT_EQ(request_simple(bath, LYR_MSG_PLAY), -1);
    const std::string told = rig_ctl({"status"}) + rig_run({"ctl", "play", "bath"}).out;
    for (const char* part : {"holder:  phone (#", "waiting: kitchen (#", "outranks bath"}) {
        EXPECT_NE(told.find(part), std::string::npos) << told;
    }
    rig_ctl({"give-back", "phone"});
    await_status(daemon, "kitchen", "::playing");
    rig_ctl({"next", "kitchen"});
    EXPECT_TRUE(daemon_await_object(daemon, "kitchen", "track", "index", ":n:1"));

    /* What plays goes on without an arbiter, which finds it as it was when it is back. */
    EXPECT_EQ(program_end(arbiter, SIGKILL).status, 128 + SIGKILL);
    daemon_await_log(daemon, "player:kitchen monitorNowPlayingPPS: lost NowPlaying control file");
    await_status(daemon, "kitchen", "::playing");
    EXPECT_EQ(request_simple(bath, LYR_MSG_PLAY), 0);
    EXPECT_EQ(request_simple(bath, LYR_MSG_STOP), 0);
    const size_t mark = daemon_log_mark(daemon);
    arbiter = rig_start();
    daemon_await_log(daemon, "now available for player:bath", mark);
    daemon_await_log(daemon, "player:kitchen sending msg to NowPlaying: msg::state", mark);
    EXPECT_EQ(request_simple(bath, LYR_MSG_PLAY), 0);
    await_status(daemon, "kitchen", "::paused");

    request_disconnect(kitchen);
    request_disconnect(bath);
    fake_close(disk);
    EXPECT_EQ(daemon_stop(daemon), 0);
    EXPECT_EQ(program_end(arbiter, SIGTERM).status, 0);
    daemon_remove(daemon);
}
