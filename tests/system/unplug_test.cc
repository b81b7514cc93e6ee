/* Sources that go in the midst of everything, many times over. */
#include <atomic>
#include <cstdlib>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "rig.h"

namespace {

constexpr int UNPLUGS = RIG_SANITIZED ? 240 : 1000;
constexpr int SOURCES = 4; /* "s0" ..., each with a thread that pulls it out */
constexpr int PLAYERS = 6;

std::string uid_of(int source) {
    return "s" + std::to_string(source);
}

/* Pulls its source out and puts it back; now and then a playing source says something first. */
void unplug(const test_daemon& daemon, int source, std::atomic<int>& left) {
    std::mt19937 random(static_cast<unsigned>(source));
    fake_client fake = daemon_fake(daemon, "stick");
    const std::string uid = uid_of(source);
    while (left.fetch_sub(1) > 0) {
        fake_number(fake, "event position value=%d thread=%d", static_cast<int>(random() % 9000),
                    source);
        if (random() % 4 == 0) { /* without waiting for the end of the first */
            fake_do(fake, "event disconnected uid=%s thread=%d nowait=1", uid.c_str(), source + 4);
        }
        fake_number(fake, "event disconnected uid=%s thread=%d", uid.c_str(), source);
        EXPECT_GE(fake_number(fake, "event connected uid=%s thread=%d", uid.c_str(), source), 0);
    }
    fake_close(fake);
}

/* Plays whatever is there. */
void play(const test_daemon& daemon, int number, const std::atomic<int>& left) {
    static constexpr uint16_t commands[] = {LYR_MSG_PLAY, LYR_MSG_NEXT, LYR_MSG_PAUSE,
                                            LYR_MSG_PREVIOUS, LYR_MSG_STOP};
    std::mt19937 random(static_cast<unsigned>(100 + number));
    request_client client;
    ASSERT_TRUE(request_connect(client, daemon.service));
    ASSERT_EQ(request_open(client, "p" + std::to_string(number)), 0);
    while (left > 0) {
        uint64_t ts_id = 0;
        EXPECT_NE(request_create(client, static_cast<int32_t>(random() % SOURCES), "/a", -1,
                                 static_cast<int32_t>(random() % 3), &ts_id),
                  REQUEST_FAILED);
        EXPECT_NE(request_simple(client, LYR_MSG_PLAY), REQUEST_FAILED);
        for (unsigned i = random() % 6; i > 0; --i) {
            EXPECT_NE(request_simple(client, commands[random() % std::size(commands)]),
                      REQUEST_FAILED);
        }
    }
    request_disconnect(client);
}

} // namespace

TEST(Unplug, AThousandTimesDuringPlay) {
    rig rig;
    daemon_prepare(rig.daemon);
    std::string script;
    for (int i = 0; i < SOURCES; ++i) {
        script += "source " + uid_of(i) + "\n";
    }
    rig.daemon.plugins.push_back({"stick", script, {}});
    ASSERT_TRUE(rig_run(rig, "/a|tree:2,2,6\n"));
    fake_do(rig.disk, "rule browse page=3");

    std::atomic<int> left = UNPLUGS;
    std::vector<std::thread> threads;
    for (int i = 0; i < SOURCES; ++i) {
        threads.emplace_back([&, i] { unplug(rig.daemon, i, left); });
    }
    for (int i = 0; i < PLAYERS; ++i) {
        threads.emplace_back([&, i] { play(rig.daemon, i, left); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    /* The last ones to be pulled out twice may be out; a source that is there counts once. */
    for (int i = 0; i < SOURCES; ++i) {
        EXPECT_EQ(fake_number(rig.disk, "event connected uid=s%d", i),
                  fake_number(rig.disk, "id s%d", i));
    }
    EXPECT_EQ(request_sources(rig.client).size(), static_cast<size_t>(SOURCES));
    for (int i = 0; i < PLAYERS; ++i) {
        const std::string name = "p" + std::to_string(i);
        SCOPED_TRACE(name);
        uint64_t ts_id = 0;
        EXPECT_EQ(request_open(rig.client, name), 0);
        EXPECT_EQ(request_create(rig.client, i % SOURCES, "/a", -1, 0, &ts_id), 0);
        EXPECT_TRUE(daemon_await_object(rig.daemon, name, "trksession", "length", ":n:42"));
        EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
        EXPECT_EQ(request_destroy(rig.client, ts_id), 0);
        EXPECT_EQ(request_close(rig.client, name), 0);
    }
    EXPECT_EQ(fake_do(rig.disk, "violations"), "");
    rig_end(rig);
}
