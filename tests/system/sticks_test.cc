/* The whole service with drives that come and go, and with last mode. As root only. */
#include <csignal>
#include <filesystem>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "media_files.h"
#include "rig.h"
#include "sticks.h"

namespace fs = std::filesystem;

namespace {

constexpr int32_t LENGTH = 60000; /* ms of each track */

struct sticks : testing::Test {
    void SetUp() override {
        const std::string missing = sticks_missing("ext4");
        if (!missing.empty()) {
            GTEST_SKIP() << missing;
        }
    }
};

/* A service that looks for drives below one place, and a drive that is not plugged in. */
struct car {
    temporary_folder base;
    std::string place;
    std::string image;
    rig service;
    size_t mark = 0; /* the log was read up to here */
};

void build_car(car& car, int32_t more_files) {
    car.place = car.base.path + "/media";
    car.image = car.base.path + "/image";
    const std::string point = car.base.path + "/filling";
    stick_make(car.image, "ext4", "MUSIC");
    stick_plug(car.image, point);
    fs::remove(point + "/lost+found");
    for (const char* name : {"/a/1.wav", "/a/2.wav", "/a/3.wav"}) {
        write_tone(point + name, 440, LENGTH);
    }
    for (int32_t i = 0; i < more_files; ++i) {
        write_file(point + "/more/" + std::to_string(i % 20) + '/' + std::to_string(i) + ".wav",
                   "");
    }
    stick_unplug(point);

    test_daemon& daemon = car.service.daemon;
    daemon_prepare(daemon);
    daemon.options = {"-l", "-vvvvvvv"};
    daemon.lastmode = R"({"timeout": "1000", "device_type": ["usb"]})";
    daemon.player["audio_output"] = "fakesink sync=true";
    daemon.player["update_interval"] = "50";
    daemon.plugins.push_back({"files", "", {{"mounts", car.place}}, false, FILES_PLUGIN});
}

bool start(car& car) {
    car.mark = daemon_log_mark(car.service.daemon);
    return daemon_start(car.service.daemon) &&
           request_connect(car.service.client, car.service.daemon.service) &&
           request_open(car.service.client, "car") == 0;
}

void stop(car& car) {
    request_disconnect(car.service.client);
    EXPECT_EQ(daemon_stop(car.service.daemon), 0) << daemon_log(car.service.daemon);
}

/* Plugs the drive in and waits until the service knows it. */
bool plug(car& car, const std::string& point) {
    car.mark = daemon_log_mark(car.service.daemon);
    stick_plug(car.image, car.place + point);
    return daemon_await_log(car.service.daemon, "media source connected: MUSIC", car.mark);
}

bool await_gone(car& car) {
    return daemon_await_log(car.service.daemon, "media source disconnected: MUSIC", car.mark);
}

/* Asks for the position until it is behind a place; false when there is none to be had. */
bool await_position(car& car, int32_t place) {
    for (int32_t position = 0; position < place;) {
        if (request_position(car.service.client, &position) != 0) {
            ADD_FAILURE() << "no position\n" << daemon_log(car.service.daemon);
            return false;
        }
    }
    return true;
}

bool begin_to_play(car& car, const std::string& folder, int32_t index) {
    uint64_t ts_id = 0;
    EXPECT_EQ(request_create(car.service.client, 0, folder, -1, index, &ts_id), 0);
    EXPECT_EQ(request_simple(car.service.client, LYR_MSG_PLAY), 0);
    return await_position(car, 1);
}

} // namespace

TEST_F(sticks, play_on_after_a_restart_wherever_they_are_plugged_in) {
    car car;
    build_car(car, 0);
    ASSERT_TRUE(start(car));
    ASSERT_TRUE(plug(car, "/one"));
    ASSERT_TRUE(begin_to_play(car, "/a", 1));
    EXPECT_EQ(request_number(car.service.client, LYR_MSG_SEEK, 20000), 0);
    ASSERT_TRUE(await_position(car, 20000));
    stop(car);
    stick_unplug(car.place + "/one");

    ASSERT_TRUE(start(car));
    daemon_await_log(car.service.daemon, "check whether the media source is ready: 2", car.mark);
    ASSERT_TRUE(plug(car, "/ann/two"));
    ASSERT_TRUE(daemon_await_object(car.service.daemon, "car", "state", "status", "::playing"));
    EXPECT_TRUE(await_position(car, 20001));
    EXPECT_EQ(request_current(car.service.client).index, 1);
    EXPECT_EQ(request_current(car.service.client).node.id, "/a/2.wav");
    uint64_t ts_id = 0;
    int32_t length = 0;
    EXPECT_EQ(request_session(car.service.client, &ts_id, &length), 0);
    EXPECT_EQ(length, 3);
    EXPECT_EQ(request_simple(car.service.client, LYR_MSG_NEXT), 0);
    EXPECT_TRUE(daemon_await_object(car.service.daemon, "car", "track", "index", ":n:2"));

    /* Pulled out in the middle of the song, and back in a third place: the same source. */
    car.mark = daemon_log_mark(car.service.daemon);
    stick_pull(car.place + "/ann/two");
    EXPECT_TRUE(await_gone(car));
    EXPECT_TRUE(daemon_await_object(car.service.daemon, "car", "state", "status", "::idle"));
    ASSERT_TRUE(plug(car, "/three"));
    const auto sources = request_sources(car.service.client);
    ASSERT_EQ(sources.size(), 1U);
    EXPECT_EQ(sources[0].name, "MUSIC");
    EXPECT_EQ(sources[0].type, LYR_MS_TYPE_USB);
    EXPECT_EQ(sources[0].view_name, car.place + "/three");
    EXPECT_TRUE(begin_to_play(car, "/a", 2));
    stop(car);
    rig_expect_clean(car.service.daemon);
    daemon_remove(car.service.daemon);
}

TEST_F(sticks, may_be_pulled_out_at_any_moment) {
    car car;
    build_car(car, 2000);
    ASSERT_TRUE(start(car));
    request_client& client = car.service.client;
    std::vector<request_node> nodes;
    /* Each is repeated until the drive has gone under it. */
    const std::function<int32_t()> stages[] = {
        [&] { return request_browse(client, 0, "/more/7", 0, -1, nodes); },
        [&] {
            request_metadata data;
            return request_metadata_of(client, 0, "/a/1.wav", data);
        },
        [&] {
            uint64_t ts_id = 0;
            return request_create(client, 0, "/", -1, 0, &ts_id);
        },
        [&] { return request_simple(client, LYR_MSG_PLAY); },
        [&] { return request_number(client, LYR_MSG_SEEK, 30000); },
        [&] { return request_simple(client, LYR_MSG_NEXT); },
    };
    for (size_t i = 0; i < std::size(stages); ++i) {
        SCOPED_TRACE(i);
        ASSERT_TRUE(plug(car, i % 2 == 0 ? "/one" : "/two"));
        if (i > 2) {
            ASSERT_TRUE(begin_to_play(car, "/a", 0));
        }
        ASSERT_EQ(stages[i](), 0);
        std::thread hand([&car, i] { stick_pull(car.place + (i % 2 == 0 ? "/one" : "/two")); });
        while (stages[i]() == 0) {
        }
        hand.join();
        EXPECT_TRUE(await_gone(car));
        EXPECT_TRUE(daemon_await_object(car.service.daemon, "car", "state", "status", "::idle"));
    }
    /* While the session is being built, and at the end of everything. */
    for (int round = 0; round < 4; ++round) {
        ASSERT_TRUE(plug(car, "/one"));
        uint64_t ts_id = 0;
        EXPECT_EQ(request_create(client, 0, "/", -1, 0, &ts_id), 0);
        EXPECT_EQ(request_simple(client, LYR_MSG_PLAY), 0);
        if (round < 3) {
            stick_pull(car.place + "/one");
            EXPECT_TRUE(await_gone(car));
        }
    }
    daemon_signal(car.service.daemon, SIGTERM);
    stick_pull(car.place + "/one");
    EXPECT_EQ(daemon_wait(car.service.daemon), 0) << daemon_log(car.service.daemon);
    request_disconnect(client);
    rig_expect_clean(car.service.daemon);
    daemon_remove(car.service.daemon);
}
