/* Starting and ending the service, also beside others and in the middle of everything. */
#include <csignal>
#include <filesystem>
#include <thread>

#include <gtest/gtest.h>

#include "rig.h"

namespace {

constexpr const char* ALBUM = "/album|tracks:3\n";

/* A second daemon on its own folder, with the given name and without plug-ins. */
test_daemon other_daemon(const std::string& service, bool own_root) {
    test_daemon daemon;
    daemon.service = service;
    daemon.own_root = own_root;
    daemon_prepare(daemon);
    return daemon;
}

} // namespace

TEST(Lifecycle, LoadsAndUnloadsItsPlugins) {
    test_daemon daemon;
    daemon_prepare(daemon);
    /* A plug-in that starts a thread in init must not take the termination signals away. */
    for (const char* name : {"zulu", "alpha", "mike"}) {
        daemon.plugins.push_back({name,
                                  "source " + std::string(name) +
                                      "\nevent position nowait=1\nrule detection "
                                      "result=-1 skip=1",
                                  {{"update_interval", "7"}, {"mode", "device"}}});
    }
    ASSERT_TRUE(daemon_start(daemon));
    request_client client;
    ASSERT_TRUE(request_connect(client, daemon.service));
    const std::vector<request_source> sources = request_sources(client);
    ASSERT_EQ(sources.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        fake_client fake = daemon_fake(daemon, daemon.plugins[static_cast<size_t>(i)].name);
        EXPECT_EQ(sources[static_cast<size_t>(i)].uid, daemon.plugins[static_cast<size_t>(i)].name);
        EXPECT_EQ(fake_number(fake, "plugin"), i);
        EXPECT_EQ(fake_do(fake, "detection"), "1");
        const std::string settings = "\n" + fake_do(fake, "settings");
        for (const char* setting : {"\nupdate_interval=7\n", "\naudio_output=null\n",
                                    "\nmode=device\n", "\nrecursion_depth=-1\n"}) {
            EXPECT_NE(settings.find(setting), std::string::npos) << settings;
        }
        fake_close(fake);
    }
    request_disconnect(client);
    EXPECT_EQ(daemon_stop(daemon), 0);
    rig_expect_clean(daemon);
    const std::string log = daemon_log(daemon);
    EXPECT_NE(log.find("lyrane terminated"), std::string::npos);
    daemon_remove(daemon);
}

TEST(Lifecycle, EndsWhenAPluginCannotBeUsed) {
    const std::string long_name(300, 'n');
    const struct {
        std::string script;
        int status;
        std::string line;
    } cases[] = {
        {"rule init result=-1", 1, "Error initializing DLL \"fake\"."},
        {"name " + long_name + "\nrule init result=-1", 1,
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
        daemon.plugins.push_back({"second", each.script, {}});
        if (each.status == 0) {
            daemon.plugins[1].settings.push_back({"control", ""}); /* no threads without cleanup */
            ASSERT_TRUE(daemon_start(daemon));
            EXPECT_EQ(daemon_stop(daemon), 0);
        } else {
            daemon_spawn(daemon);
            EXPECT_EQ(daemon_wait(daemon), each.status);
        }
        EXPECT_NE(daemon_log(daemon).find(each.line), std::string::npos) << daemon_log(daemon);
        daemon_remove(daemon);
    }
    test_daemon missing = other_daemon("lyrane.sys", false);
    missing.plugins.push_back({"gone", "", {}, true});
    daemon_spawn(missing);
    EXPECT_EQ(daemon_wait(missing), 128 + SIGABRT);
    EXPECT_NE(daemon_log(missing).find("Unable to load DLL"), std::string::npos);
    daemon_remove(missing);
}

TEST(Lifecycle, OneServiceAName) {
    rig first;
    ASSERT_TRUE(rig_start(first, ALBUM));
    EXPECT_EQ(request_open(first.client, "radio"), 0);

    test_daemon second = other_daemon("lyrane.sys", false);
    daemon_spawn(second);
    EXPECT_EQ(daemon_wait(second), 128 + SIGABRT);
    EXPECT_NE(daemon_log(second).find("msgserver_add() failed"), std::string::npos);
    /* The first one has not noticed. */
    EXPECT_EQ(request_sources(first.client).size(), 1u);
    EXPECT_TRUE(rig_has_player(first.daemon, "radio"));
    request_client again;
    EXPECT_TRUE(request_connect(again, "lyrane.sys"));
    request_disconnect(again);

    /* Another name, and the same name below another root, are other services. */
    test_daemon named = other_daemon("other.sys", false);
    test_daemon apart = other_daemon("lyrane.sys", true);
    ASSERT_TRUE(daemon_start(named));
    ASSERT_TRUE(daemon_start(apart));
    request_client to_named;
    request_client to_apart;
    ASSERT_TRUE(request_connect(to_named, "other.sys"));
    ASSERT_TRUE(request_connect_wire(to_apart, rig_socket(apart), "lyrane.sys"));
    EXPECT_TRUE(request_sources(to_named).empty());
    EXPECT_TRUE(request_sources(to_apart).empty());
    EXPECT_EQ(request_open(to_apart, "radio"), 0);
    EXPECT_TRUE(rig_has_player(apart, "radio"));
    request_disconnect(to_named);
    request_disconnect(to_apart);
    EXPECT_EQ(daemon_stop(apart), 0);
    rig_expect_clean(apart);
    EXPECT_EQ(daemon_stop(named), 0);
    EXPECT_TRUE(rig_has_player(first.daemon, "radio"));
    EXPECT_EQ(request_sources(first.client).size(), 1u);
    std::filesystem::remove_all(apart.root);
    rig_end(first);
}

TEST(Lifecycle, TakesOverFromAKilledService) {
    rig rig;
    ASSERT_TRUE(rig_start(rig, ALBUM));
    uint64_t ts_id = 0;
    EXPECT_EQ(request_open(rig.client, "radio"), 0);
    EXPECT_EQ(request_create(rig.client, 0, "/album", -1, 0, &ts_id), 0);
    EXPECT_EQ(fake_number(rig.disk, "event position value=99"), 0);
    daemon_signal(rig.daemon, SIGKILL);
    EXPECT_EQ(daemon_wait(rig.daemon), 128 + SIGKILL);
    EXPECT_TRUE(std::filesystem::exists(rig_socket(rig.daemon)));
    EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), REQUEST_FAILED);
    request_disconnect(rig.client);
    fake_close(rig.disk);

    ASSERT_TRUE(daemon_start(rig.daemon));
    EXPECT_FALSE(rig_has_player(rig.daemon, "radio"));
    rig.disk = daemon_fake(rig.daemon, "disk");
    fake_tree(rig.disk, "", ALBUM);
    ASSERT_TRUE(request_connect(rig.client, rig.daemon.service));
    EXPECT_EQ(request_open(rig.client, "radio"), 0);
    /* Nothing of the killed one's player shows under the new one. */
    EXPECT_EQ(daemon_object(rig.daemon, "radio", "state").at("status"), "::idle");
    EXPECT_EQ(daemon_object(rig.daemon, "radio", "status").count("position"), 0u);
    EXPECT_EQ(daemon_object(rig.daemon, "radio", "track").size(), 0u);
    EXPECT_EQ(request_create(rig.client, 0, "/album", -1, 0, &ts_id), 0);
    EXPECT_EQ(ts_id, 0u);
    request_disconnect(rig.client);
    fake_close(rig.disk);
    EXPECT_EQ(daemon_stop(rig.daemon), 0);
    EXPECT_FALSE(std::filesystem::exists(rig_socket(rig.daemon)));
    daemon_remove(rig.daemon);
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
        EXPECT_NE(log.find("lyrane terminated"), std::string::npos);
        EXPECT_EQ(log.find("lyrane terminating"), log.rfind("lyrane terminating"));
        rig_end(rig);
    }
}

/* One player is held by an event inside the plug-in, another by the build of its session: neither
 * keeps the service, and the code that a thread is inside of stays where it is. */
TEST(Lifecycle, EndsAlthoughAPluginDoesNotReturn) {
    rig rig;
    ASSERT_TRUE(rig_start(rig, "/big|tree:3,5,20\n"));
    request_client other;
    ASSERT_TRUE(request_connect(other, rig.daemon.service));
    uint64_t ts_id = 0;
    EXPECT_EQ(request_open(rig.client, "radio"), 0);
    EXPECT_EQ(request_create(rig.client, 0, "/big", 1, 8, &ts_id), 0);
    EXPECT_EQ(request_number(rig.client, LYR_MSG_REPEAT, 1), 0);
    fake_do(rig.disk, "rule attach block=attach deaf=1");
    fake_do(rig.disk, "event finished nowait=1");
    fake_do(rig.disk, "blocked attach");
    fake_do(rig.disk, "unrule");
    fake_do(rig.disk, "rule browse id=/big/f1/f1 block=browse deaf=1");
    EXPECT_EQ(request_open(other, "kitchen"), 0);
    EXPECT_EQ(request_create(other, 0, "/big", -1, 8, &ts_id), 0);
    fake_do(rig.disk, "blocked browse");
    EXPECT_EQ(daemon_stop(rig.daemon), 0);
    const std::string log = daemon_log(rig.daemon);
    for (const char* line : {"Player radio is busy in a plug-in", "Player kitchen is busy in a",
                             "is left loaded", "lyrane terminated"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line;
    }
    EXPECT_FALSE(std::filesystem::exists(rig_socket(rig.daemon)));
    request_disconnect(other);
    request_disconnect(rig.client);
    fake_close(rig.disk);
    daemon_remove(rig.daemon);
}

/* The main thread hangs in a plug-in, so the signal thread saves; it waits for a restore as the
 * main thread comes out, which must not take the players apart under it. */
TEST(Lifecycle, ASaveAtTheLastIsNotPassedBy) {
    rig rig;
    daemon_prepare(rig.daemon);
    rig.daemon.options = {"-l"};
    rig.daemon.plugins = {{"disk", "source disk\ntree\n /album|tracks:3\n", {}},
                          {"stick", "source stick\ntree\n /album|tracks:3\n", {}}};
    ASSERT_TRUE(daemon_start(rig.daemon));
    ASSERT_TRUE(request_connect(rig.client, rig.daemon.service));
    uint64_t ts_id = 0;
    for (const auto& [player, source] : {std::pair("held", 1), std::pair("kept", 0)}) {
        EXPECT_EQ(request_open(rig.client, player), 0);
        EXPECT_EQ(request_create(rig.client, source, "/album", 3, 1, &ts_id), 0);
    }
    request_disconnect(rig.client);
    EXPECT_EQ(daemon_stop(rig.daemon), 0);

    rig.daemon.plugins[1].script += "rule update block=restoring\n";
    ASSERT_TRUE(daemon_start(rig.daemon));
    fake_client stick = daemon_fake(rig.daemon, "stick");
    fake_do(stick, "blocked restoring");
    EXPECT_TRUE(daemon_await_object(rig.daemon, "kept", "track", "index", ":n:1"));
    rig.disk = daemon_fake(rig.daemon, "disk");
    fake_do(rig.disk, "rule seek block=seeking");
    ASSERT_TRUE(request_connect(rig.client, rig.daemon.service));
    EXPECT_EQ(request_open(rig.client, "kept"), 0);
    std::thread seeking([&rig] { request_number(rig.client, LYR_MSG_SEEK, 1); });
    fake_do(rig.disk, "blocked seeking");
    daemon_signal(rig.daemon, SIGTERM);
    EXPECT_TRUE(daemon_await_log(rig.daemon, "cut short"));
    fake_do(rig.disk, "release seeking");
    EXPECT_EQ(daemon_wait(rig.daemon), EXIT_FAILURE);
    seeking.join();
    request_disconnect(rig.client);
    fake_close(rig.disk);
    fake_close(stick);

    rig.daemon.plugins[1].script = "source stick\ntree\n /album|tracks:3\n";
    ASSERT_TRUE(daemon_start(rig.daemon));
    for (const char* player : {"held", "kept"}) {
        EXPECT_TRUE(daemon_await_object(rig.daemon, player, "track", "index", ":n:1")) << player;
    }
    EXPECT_EQ(daemon_stop(rig.daemon), 0);
    daemon_remove(rig.daemon);
}

/* What a session is played by need not be what its source came from: the one that the thread is in
 * is named, and both stay, since the thread may go on into the other. */
TEST(Lifecycle, LeavesThePluginThatACallIsIn) {
    rig rig;
    daemon_prepare(rig.daemon);
    rig.daemon.plugins.push_back({"disk", "source disk type=0x2\nnull play_api", {}});
    rig.daemon.plugins.push_back({"player", "types 0x2", {}});
    rig.daemon.options = {"-vvvvvvv"};
    ASSERT_TRUE(daemon_start(rig.daemon));
    rig.disk = daemon_fake(rig.daemon, "disk");
    fake_client player = daemon_fake(rig.daemon, "player");
    fake_tree(rig.disk, "", ALBUM);
    ASSERT_TRUE(request_connect(rig.client, rig.daemon.service));
    uint64_t ts_id = 0;
    EXPECT_EQ(request_open(rig.client, "radio"), 0);
    EXPECT_EQ(request_create(rig.client, 0, "/album", 1, 0, &ts_id), 0);
    EXPECT_EQ(request_number(rig.client, LYR_MSG_REPEAT, 1), 0);
    fake_do(player, "rule attach block=attach deaf=1");
    fake_do(player, "event finished nowait=1");
    fake_do(player, "blocked attach");
    EXPECT_EQ(daemon_stop(rig.daemon), 0);
    const std::string log = daemon_log(rig.daemon);
    const std::string folder = rig.daemon.root + '/';
    for (const std::string& line :
         {"A call of 'attach_medianode' into " + folder + "player.so does not return",
          "Plug-in " + folder + "player.so is left loaded",
          "Plug-in " + folder + "disk.so is left loaded"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line << '\n' << log;
    }
    request_disconnect(rig.client);
    fake_close(player);
    fake_close(rig.disk);
    daemon_remove(rig.daemon);
}
