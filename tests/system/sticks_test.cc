/* The whole service with a drive that comes and goes, and with last mode. As root only. */
#include <csignal>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "media_files.h"
#include "rig.h"
#include "sticks.h"

namespace {

/* A service that looks for drives below one place, and a drive that is not plugged in. */
struct car : rig {
    temporary_folder base;
    std::string place;
    std::string image;
    size_t mark = 0; /* the log was read up to here */
};

void build_car(car& car, int32_t more_files = 0) {
    car.place = car.base.path + "/media";
    car.image = car.base.path + "/image";
    const std::string point = car.base.path + "/filling";
    stick_make(car.image, "ext4", "MUSIC");
    stick_plug(car.image, point);
    for (const char* name : {"/a/1.wav", "/a/2.wav", "/a/3.wav"}) {
        make_track(point + name, 440, 60000);
    }
    for (int32_t i = 0; i < more_files; ++i) {
        write_file(point + "/more/" + std::to_string(i % 20) + '/' + std::to_string(i) + ".wav",
                   "");
    }
    stick_unplug(point);

    daemon_prepare(car.daemon);
    car.daemon.options = {"-l", "-vvvvvvv"};
    car.daemon.lastmode = R"({"timeout": "1000", "device_type": ["usb"]})";
    car.daemon.player["audio_output"] = "fakesink sync=true";
    car.daemon.player["update_interval"] = "50";
    car.daemon.plugins.push_back({"files", "", {{"mounts", car.place}}, false, FILES_PLUGIN});
}

bool start(car& car) {
    car.mark = daemon_log_mark(car.daemon);
    return rig_run(car) && request_open(car.client, "car") == 0;
}

/* Plugs the drive in and waits until the service knows it. */
bool plug(car& car, const std::string& point) {
    car.mark = daemon_log_mark(car.daemon);
    stick_plug(car.image, car.place + point);
    return daemon_await_log(car.daemon, "media source connected: MUSIC", car.mark);
}

bool await_gone(car& car) {
    return daemon_await_log(car.daemon, "media source disconnected: MUSIC", car.mark);
}

/* Asks for the position until it is behind a place; false when there is none to be had. */
bool await_position(car& car, int32_t place) {
    for (int32_t position = 0; position < place;) {
        if (request_position(car.client, &position) != 0) {
            ADD_FAILURE() << "no position\n" << daemon_log(car.daemon);
            return false;
        }
    }
    return true;
}

bool begin_to_play(car& car, const std::string& folder, int32_t index) {
    uint64_t ts_id = 0;
    EXPECT_EQ(request_create(car.client, 0, folder, -1, index, &ts_id), 0);
    EXPECT_EQ(request_simple(car.client, LYR_MSG_PLAY), 0);
    return await_position(car, 1);
}

} // namespace

struct Sticks : testing::Test {
    void SetUp() override {
        const std::string missing = sticks_missing("ext4");
        if (!missing.empty()) {
            GTEST_SKIP() << missing;
        }
    }
};

TEST_F(Sticks, PlayOnAfterARestartWhereverTheyArePluggedIn) {
    car car;
    build_car(car);
    ASSERT_TRUE(start(car));
    ASSERT_TRUE(plug(car, "/one"));
    ASSERT_TRUE(begin_to_play(car, "/a", 1));
    EXPECT_EQ(request_number(car.client, LYR_MSG_SEEK, 20000), 0);
    ASSERT_TRUE(await_position(car, 20000));
    EXPECT_EQ(rig_stop(car), 0) << daemon_log(car.daemon);
    stick_unplug(car.place + "/one");

    ASSERT_TRUE(start(car));
    daemon_await_log(car.daemon, "check whether the media source is ready: 2", car.mark);
    ASSERT_TRUE(plug(car, "/ann/two"));
    ASSERT_TRUE(daemon_await_object(car.daemon, "car", "state", "status", "::playing"));
    EXPECT_TRUE(await_position(car, 20001));
    EXPECT_EQ(request_current(car.client).index, 1);
    EXPECT_EQ(request_current(car.client).node.id, "/a/2.wav");
    uint64_t ts_id = 0;
    int32_t length = 0;
    EXPECT_EQ(request_session(car.client, &ts_id, &length), 0);
    EXPECT_EQ(length, 3);
    EXPECT_EQ(request_simple(car.client, LYR_MSG_NEXT), 0);
    EXPECT_TRUE(daemon_await_object(car.daemon, "car", "track", "index", ":n:2"));

    /* Pulled out in the middle of the song, and back in a third place: the same source. */
    car.mark = daemon_log_mark(car.daemon);
    stick_pull(car.place + "/ann/two");
    EXPECT_TRUE(await_gone(car));
    EXPECT_TRUE(daemon_await_object(car.daemon, "car", "state", "status", "::idle"));
    ASSERT_TRUE(plug(car, "/three"));
    const auto sources = request_sources(car.client);
    ASSERT_EQ(sources.size(), 1U);
    EXPECT_EQ(sources[0].name, "MUSIC");
    EXPECT_EQ(sources[0].type, LYR_MS_TYPE_USB);
    EXPECT_EQ(sources[0].view_name, car.place + "/three");
    EXPECT_TRUE(begin_to_play(car, "/a", 2));
    EXPECT_EQ(rig_stop(car), 0) << daemon_log(car.daemon);
    rig_expect_clean(car.daemon);
    daemon_remove(car.daemon);
}

TEST_F(Sticks, MayBePulledOutAtAnyMoment) {
    car car;
    build_car(car, 2000);
    ASSERT_TRUE(start(car));
    std::vector<request_node> nodes;
    request_metadata data;
    uint64_t ts_id = 0;
    /* Each is repeated until the drive has gone under it. */
    const std::function<int32_t()> stages[] = {
        [&] { return request_browse(car.client, 0, "/more/7", 0, -1, nodes); },
        [&] { return request_metadata_of(car.client, 0, "/a/1.wav", data); },
        [&] { return request_create(car.client, 0, "/", -1, 0, &ts_id); },
        [&] { return request_simple(car.client, LYR_MSG_PLAY); },
        [&] { return request_number(car.client, LYR_MSG_SEEK, 30000); },
        [&] { return request_simple(car.client, LYR_MSG_NEXT); },
    };
    for (size_t i = 0; i < std::size(stages); ++i) {
        SCOPED_TRACE(i);
        const std::string point = i % 2 == 0 ? "/one" : "/two";
        ASSERT_TRUE(plug(car, point));
        if (i > 2) {
            ASSERT_TRUE(begin_to_play(car, "/a", 0));
        }
        ASSERT_EQ(stages[i](), 0);
        std::thread hand([&] { stick_pull(car.place + point); });
        while (stages[i]() == 0) {
        }
        hand.join();
        EXPECT_TRUE(await_gone(car));
        EXPECT_TRUE(daemon_await_object(car.daemon, "car", "state", "status", "::idle"));
    }
    /* While the session is being built, and at the end of everything. */
    for (int round = 0; round < 4; ++round) {
        ASSERT_TRUE(plug(car, "/one"));
        EXPECT_EQ(request_create(car.client, 0, "/", -1, 0, &ts_id), 0);
        EXPECT_EQ(request_simple(car.client, LYR_MSG_PLAY), 0);
        if (round < 3) {
            stick_pull(car.place + "/one");
            EXPECT_TRUE(await_gone(car));
        }
    }
    daemon_signal(car.daemon, SIGTERM);
    stick_pull(car.place + "/one");
    EXPECT_EQ(daemon_wait(car.daemon), 0) << daemon_log(car.daemon);
    rig_hang_up(car);
    rig_expect_clean(car.daemon);
    daemon_remove(car.daemon);
}
