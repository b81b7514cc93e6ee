/* Starting and ending the service, also beside others and in the middle of everything. */
#include <csignal>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "rig.h"

namespace {

constexpr const char* ALBUM = "/album|tracks:3\n";

} // namespace

/* A plug-in that starts a thread in init does not take the termination signals away. */
TEST(Lifecycle, LoadsAndUnloadsItsPlugins) {
    rig rig;
    daemon_prepare(rig.daemon);
    for (const std::string name : {"zulu", "alpha", "mike"}) {
        rig.daemon.plugins.push_back(
            {name,
             "source " + name + "\nevent position nowait=1\nrule detection result=-1 skip=1",
             {{"update_interval", "7"}, {"mode", "device"}}});
    }
    ASSERT_TRUE(rig_run(rig));
    const std::vector<request_source> sources = request_sources(rig.client);
    ASSERT_EQ(sources.size(), 3u);
    for (size_t i = 0; i < sources.size(); ++i) {
        fake_client fake = daemon_fake(rig.daemon, rig.daemon.plugins[i].name);
        EXPECT_EQ(sources[i].uid, rig.daemon.plugins[i].name);
        EXPECT_EQ(fake_number(fake, "plugin"), static_cast<int64_t>(i));
        EXPECT_EQ(fake_do(fake, "detection"), "1");
        const std::string settings = "\n" + fake_do(fake, "settings");
        for (const char* setting : {"\nupdate_interval=7\n", "\naudio_output=null\n"}) {
            EXPECT_NE(settings.find(setting), std::string::npos) << settings;
        }
        fake_close(fake);
    }
    rig_end(rig);
}

TEST(Lifecycle, EndsWhenAPluginCannotBeUsed) {
    const std::string long_name(300, 'n');
    const struct {
        std::string script; /* "": there is no such file */
        int status;
        std::string line;
    } cases[] = {
        {"", 128 + SIGABRT, "Unable to load DLL"},
        {"name " + long_name + "\nrule init result=-1", EXIT_FAILURE,
         "Error initializing DLL \"" + long_name + "\"."},
        {"rule init result=-2", 0, ""}, /* only -1 is a failure */
        {"rule cleanup result=-1", 0, "Failed to clean up fake"},
        {"null cleanup\nnull detection", 0, ""},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.script);
        test_daemon daemon;
        daemon_prepare(daemon);
        daemon.plugins.push_back({"first", "", {}});
        daemon.plugins.push_back({"second", each.script, {}, each.script.empty()});
        if (each.status == 0) {
            daemon.plugins[1].settings.push_back({"control", ""}); /* no threads without cleanup */
            ASSERT_TRUE(daemon_start(daemon));
            daemon_signal(daemon, SIGTERM);
        } else {
            daemon_spawn(daemon);
        }
        EXPECT_EQ(daemon_wait(daemon), each.status);
        EXPECT_NE(daemon_log(daemon).find(each.line), std::string::npos) << daemon_log(daemon);
        daemon_remove(daemon);
    }
}

/* A second one of the name ends, one of another name comes and goes; the first does not notice. */
TEST(Lifecycle, OneServiceAName) {
    rig first;
    ASSERT_TRUE(rig_start(first, ALBUM));
    EXPECT_EQ(request_open(first.client, "radio"), 0);
    test_daemon second;
    daemon_prepare(second);
    daemon_spawn(second);
    EXPECT_EQ(daemon_wait(second), 128 + SIGABRT);
    EXPECT_NE(daemon_log(second).find("msgserver_add() failed"), std::string::npos);
    request_client again;
    EXPECT_TRUE(request_connect(again, "lyrane.sys"));
    request_disconnect(again);

    second.service = "other.sys";
    ASSERT_TRUE(daemon_start(second));
    ASSERT_TRUE(request_connect(again, "other.sys"));
    EXPECT_TRUE(request_sources(again).empty());
    request_disconnect(again);
    EXPECT_EQ(daemon_stop(second), 0);
    EXPECT_TRUE(rig_has_player(first.daemon, "radio"));
    EXPECT_EQ(request_sources(first.client).size(), 1u);
    rig_end(first);
}

TEST(Lifecycle, EndsInTheMiddleOfPlaying) {
    for (const int signal : {SIGTERM, SIGINT, SIGQUIT}) {
        rig rig;
        ASSERT_TRUE(rig_start(rig, "/big|tree:3,5,20\n"));
        uint64_t ts_id = 0;
        EXPECT_EQ(request_open(rig.client, "radio"), 0);
        fake_do(rig.disk, "rule browse id=/big/f1/f1 block=slow");
        EXPECT_EQ(request_create(rig.client, 0, "/big", -1, 0, &ts_id), 0);
        EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
        fake_do(rig.disk, "blocked slow");
        for (int thread = 0; thread < 3; ++thread) {
            fake_do(rig.disk, "event %s thread=%d repeat=10000000 nowait=1",
                    thread == 0 ? "finished" : "position", thread);
        }
        fake_do(rig.disk, "await event.position 100");
        daemon_signal(rig.daemon, signal);
        daemon_signal(rig.daemon, signal);
        EXPECT_EQ(daemon_wait(rig.daemon), 0);
        rig_expect_clean(rig.daemon);
        const std::string log = daemon_log(rig.daemon);
        EXPECT_EQ(log.find("lyrane terminating"), log.rfind("lyrane terminating"));
        rig_end(rig);
    }
}

/* A plug-in keeps the standard output, which nobody reads, and does not block the signal. The end
 * is in order all the same. */
TEST(Lifecycle, EndsBesideAPluginThatTakesOutputAndSignals) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    ASSERT_EQ(fcntl(ends[1], F_SETPIPE_SZ, 4096), 4096);
    ASSERT_EQ(write(ends[1], std::string(4096, 'x').data(), 4096), 4096);
    rig rig;
    daemon_prepare(rig.daemon);
    rig.daemon.standard_output = ends[1];
    rig.daemon.options = {"-l"};
    rig.daemon.plugins = {{"disk", "source disk\ntree\n /album|tracks:3", {}}};
    ASSERT_TRUE(rig_run(rig));
    rig_session(rig, "radio", "/album", 3);
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
    fake_do(rig.disk, "print text");
    if (RIG_SANITIZED) { /* it keeps a signal from its handler while the thread waits */
        daemon_signal(rig.daemon, SIGTERM);
    } else {
        const auto thread = static_cast<pid_t>(fake_number(rig.disk, "expose"));
        syscall(SYS_tgkill, rig.daemon.pid, thread, SIGTERM);
    }
    EXPECT_EQ(daemon_wait(rig.daemon), 0);
    EXPECT_NE(daemon_log(rig.daemon).find("lyrane terminated"), std::string::npos);
    rig_hang_up(rig);
    ASSERT_TRUE(rig_run(rig));
    EXPECT_TRUE(daemon_await_object(rig.daemon, "radio", "trksession", "length", ":n:3"));
    rig_end(rig);
    close(ends[0]);
    close(ends[1]);
}

/* Played by another plug-in than the one its source comes from, one player is held by an event; the
 * build of its session holds another. Neither keeps the service, each call is named, and all the
 * code that a thread may go on into stays where it is. */
TEST(Lifecycle, LeavesThePluginsThatCallsAreIn) {
    rig rig;
    daemon_prepare(rig.daemon);
    rig.daemon.plugins = {{"disk", "source disk type=0x2\nnull play_api", {}},
                          {"other", "types 0x10", {}},
                          {"player", "types 0x12", {}},
                          {"stick", "source stick\ntree\n /big|tree:3,5,20\n", {}}};
    rig.daemon.options = {"-vvvvvvv"};
    ASSERT_TRUE(rig_run(rig, ALBUM));
    fake_client player = daemon_fake(rig.daemon, "player");
    fake_client stick = daemon_fake(rig.daemon, "stick");
    rig_session(rig, "radio", "/album", 3);
    EXPECT_EQ(fake_ids(player, "attach"), std::vector<std::string>{"/album/t0"});
    EXPECT_EQ(fake_number(player, "count browse.create"), 0);
    /* The source goes on its owner's thread; both plug-ins' sessions end there. */
    EXPECT_EQ(fake_number(rig.disk, "event disconnected uid=disk"), 0);
    EXPECT_EQ(fake_do(player, "sessions"), "");
    EXPECT_EQ(fake_do(rig.disk, "sessions"), "");
    EXPECT_EQ(fake_number(rig.disk, "event connected uid=disk"), 0);

    uint64_t ts_id = 0; /* of sessions; one that is left behind has no build thread to join */
    EXPECT_EQ(request_create(rig.client, 0, "/album", 1, 0, &ts_id), 0);
    EXPECT_EQ(request_number(rig.client, LYR_MSG_REPEAT, 1), 0);
    fake_do(player, "rule attach block=attach deaf=1");
    fake_do(player, "event finished nowait=1");
    fake_do(player, "blocked attach");
    request_client other;
    ASSERT_TRUE(request_connect(other, rig.daemon.service));
    EXPECT_EQ(request_open(other, "kitchen"), 0);
    fake_do(stick, "rule browse id=/big/f1/f1 block=browse deaf=1");
    EXPECT_EQ(request_create(other, static_cast<int32_t>(fake_number(stick, "id stick")), "/big",
                             -1, 8, &ts_id),
              0);
    fake_do(stick, "blocked browse");
    EXPECT_EQ(daemon_stop(rig.daemon), 0);
    const std::string log = daemon_log(rig.daemon);
    const std::string folder = rig.daemon.root + '/';
    for (const std::string& line :
         {std::string("Player radio is busy in a plug-in"),
          std::string("Player kitchen is busy in a plug-in"), std::string("lyrane terminated"),
          "A call of 'attach_medianode' into " + folder + "player.so does not return",
          "Plug-in " + folder + "player.so is left loaded",
          "Plug-in " + folder + "disk.so is left loaded",
          "Plug-in " + folder + "stick.so is left loaded"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line << '\n' << log;
    }
    EXPECT_FALSE(std::filesystem::exists(rig_socket(rig.daemon)));
    request_disconnect(other);
    fake_close(player);
    fake_close(stick);
    rig_end(rig);
}

/* The main thread hangs in a plug-in, so the signal thread saves; it waits for a restore as the
 * main thread comes out, which must not take the players apart under it. */
TEST(Lifecycle, ASaveAtTheLastIsNotPassedBy) {
    const std::string tree = "\ntree\n /album|tracks:3\n";
    rig rig;
    daemon_prepare(rig.daemon);
    rig.daemon.options = {"-l"};
    rig.daemon.plugins = {{"disk", "source disk" + tree, {}}, {"stick", "source stick" + tree, {}}};
    ASSERT_TRUE(rig_run(rig));
    uint64_t ts_id = 0;
    for (const auto& [player, source] : {std::pair("held", 1), std::pair("kept", 0)}) {
        EXPECT_EQ(request_open(rig.client, player), 0);
        EXPECT_EQ(request_create(rig.client, source, "/album", 3, 1, &ts_id), 0);
    }
    EXPECT_EQ(rig_stop(rig), 0);

    rig.daemon.plugins[1].script += "rule update block=restoring\n";
    ASSERT_TRUE(rig_run(rig));
    fake_client stick = daemon_fake(rig.daemon, "stick");
    fake_do(stick, "blocked restoring");
    EXPECT_TRUE(daemon_await_object(rig.daemon, "kept", "track", "index", ":n:1"));
    fake_do(rig.disk, "rule seek block=seeking");
    EXPECT_EQ(request_open(rig.client, "kept"), 0);
    std::thread seeking([&rig] { request_number(rig.client, LYR_MSG_SEEK, 1); });
    fake_do(rig.disk, "blocked seeking");
    daemon_signal(rig.daemon, SIGTERM);
    EXPECT_TRUE(daemon_await_log(rig.daemon, "cut short"));
    fake_do(rig.disk, "release seeking");
    EXPECT_EQ(daemon_wait(rig.daemon), EXIT_FAILURE);
    seeking.join();
    rig_hang_up(rig);
    fake_close(stick);

    rig.daemon.plugins[1].script = "source stick" + tree;
    ASSERT_TRUE(rig_run(rig));
    for (const char* player : {"held", "kept"}) {
        EXPECT_TRUE(daemon_await_object(rig.daemon, player, "track", "index", ":n:1")) << player;
    }
    EXPECT_EQ(rig_stop(rig), 0);
    daemon_remove(rig.daemon);
}
