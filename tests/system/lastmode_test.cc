/* Ending and starting again: what the players played comes back. */
#include <csignal>
#include <thread>

#include <gtest/gtest.h>

#include "rig.h"
#include "saved.h"

namespace {

bool start(rig& rig, const std::string& script) {
    rig.daemon.plugins = {{"disk", script, {}}};
    return rig_run(rig, "/a|tracks:20\n/b|A\n");
}

} // namespace

/* With saves while it runs, a kill loses nothing that was saved: not what plays, not what still
 * waits for its source, and not what a plug-in keeps busy. */
TEST(Lastmode, SavesWhileItRuns) {
    rig rig;
    daemon_prepare(rig.daemon);
    rig.daemon.options = {"-l"};
    rig.daemon.lastmode = R"({"checkpoint": "1", "timeout": "60", "device_type": ["HDD"]})";
    ASSERT_TRUE(start(rig, "source disk"));
    rig_session(rig, "paused", "/a", 20);
    rig_session(rig, "plays", "/a", 20, 7);
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
    EXPECT_EQ(rig_stop(rig), 0);

    /* Both wait for their source while a third one plays from another. */
    ASSERT_TRUE(start(rig, "source disk auto=0\nsource other"));
    rig_session(rig, "third", "/a", 20, 2);
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
    EXPECT_TRUE(saved_await("third", "length||' '||trk_id||' '||status", "20 2 2"));
    for (const char* player : {"third", "plays", "paused"}) {
        EXPECT_EQ(saved_tracks(player), 20) << player;
    }

    /* A client's own session takes the place of one that waits, and goes with its player. */
    rig_session(rig, "paused", "/", 21);
    EXPECT_TRUE(saved_await("paused", "mn_id||' '||length", "/ 21"));
    EXPECT_EQ(saved_tracks("paused"), 21);
    rig_session(rig, "gone", "/a", 20);
    EXPECT_TRUE(saved_await("gone", "length", "20"));
    EXPECT_EQ(request_close(rig.client, "gone"), 0);
    EXPECT_TRUE(saved_await("gone", "length", ""));

    /* A player that its plug-in does not let go stays as it was; the others go on. */
    EXPECT_EQ(request_open(rig.client, "without a session"), 0);
    rig_session(rig, "busy", "/a", 20, 5);
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

    EXPECT_EQ(rig_stop(rig, SIGKILL), 128 + SIGKILL);
    ASSERT_TRUE(start(rig, "source other\nsource disk"));
    EXPECT_FALSE(rig_has_player(rig.daemon, "gone"));
    EXPECT_FALSE(rig_has_player(rig.daemon, "without a session"));
    EXPECT_TRUE(daemon_await_object(rig.daemon, "plays", "state", "status", "::playing"));
    EXPECT_TRUE(daemon_await_object(rig.daemon, "plays", "track", "index", ":n:7"));
    EXPECT_TRUE(daemon_await_object(rig.daemon, "paused", "trksession", "length", ":n:21"));
    EXPECT_TRUE(daemon_await_object(rig.daemon, "third", "state", "status", "::playing"));
    EXPECT_TRUE(daemon_await_object(rig.daemon, "busy", "track", "index", ":n:5"));
    EXPECT_EQ(rig_stop(rig), 0);

    /* A source that comes late finds a client's session in the place of the saved one. */
    ASSERT_TRUE(start(rig, "source other\nsource disk auto=0"));
    rig_session(rig, "plays", "/", 21);
    fake_do(rig.disk, "event connected uid=disk");
    EXPECT_EQ(daemon_settle(rig.daemon, saved_restoring, 0), 0);
    EXPECT_EQ(daemon_object(rig.daemon, "plays", "trksession").at("length"), ":n:21");
    EXPECT_EQ(rig_stop(rig), 0);
    daemon_remove(rig.daemon);
}

/* What was saved of a source that is away goes, or is kept when that is asked for; a track that is
 * not there any more is passed by. */
TEST(Lastmode, KeepsWhatIsAwayIfItIsTo) {
    for (const bool keeps : {false, true}) {
        SCOPED_TRACE(keeps);
        rig rig;
        daemon_prepare(rig.daemon);
        rig.daemon.options = {"-l", "-vvvvvvv"};
        rig.daemon.lastmode =
            std::string(R"({"timeout": "300", "keep_missing": ")") + (keeps ? "1" : "0") + "\"}";
        ASSERT_TRUE(start(rig, "source disk"));
        rig_session(rig, "p", "/a", 20, 3);
        EXPECT_EQ(fake_number(rig.disk, "event position value=777"), 0);
        EXPECT_EQ(rig_stop(rig), 0);

        /* Nobody waits at the end for who waits for a source. */
        const size_t mark = daemon_log_mark(rig.daemon);
        ASSERT_TRUE(start(rig, "source disk auto=0"));
        daemon_await_log(rig.daemon, "check whether the media source is ready: 2", mark);
        EXPECT_EQ(rig_stop(rig), 0);

        ASSERT_TRUE(start(rig, "source disk\nrule attach id=/a/t3 result=-1"));
        EXPECT_EQ(daemon_settle(rig.daemon, saved_restoring, 0), 0);
        EXPECT_EQ(rig_has_player(rig.daemon, "p"), keeps);
        if (keeps) {
            int32_t position = -1;
            EXPECT_EQ(request_open(rig.client, "p"), 0);
            EXPECT_EQ(request_current(rig.client).index, 4);
            EXPECT_EQ(request_position(rig.client, &position), 0);
            EXPECT_EQ(position, 0);
        }
        EXPECT_EQ(rig_stop(rig), 0);
        daemon_remove(rig.daemon);
    }
}
