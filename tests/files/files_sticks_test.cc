/* Drives that are plugged in and pulled out, through the plug-in's tables. */
#include <algorithm>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include "host.h"
#include "media_files.h"
#include "sticks.h"

namespace fs = std::filesystem;

namespace {

using connected = std::map<int32_t, host_source>;

constexpr const char* CLOCKED = "fakesink sync=true";

/* A started plug-in that looks for drives below one place, and one pair of sessions, as the service
 * makes them. All of it ends with the scope. */
struct port {
    temporary_folder base; /* with the drives' images */
    std::string place;
    const lyrp_api* api = nullptr;
    void* browse = nullptr;
    void* play = nullptr;
    int32_t player = 0; /* its address is the callback data */
    port() = default;
    ~port();
    port(const port&) = delete;
    port& operator=(const port&) = delete;
};

void close_sessions(port* port) {
    if (port->play != nullptr) {
        EXPECT_EQ(port->api->play_api->destroy(port->play), 0);
    }
    if (port->browse != nullptr) {
        EXPECT_EQ(port->api->browse_api->destroy(port->browse), 0);
    }
    port->play = nullptr;
    port->browse = nullptr;
}

void close_port(port* port) {
    close_sessions(port);
    if (port->api != nullptr) {
        host_stop();
    }
    port->api = nullptr;
}

port::~port() {
    close_port(this);
}

/* False when the plug-in has no such source. */
bool open_sessions(port* port, int32_t ms_id) {
    port->browse = port->api->browse_api->create(ms_id, nullptr);
    port->play = port->api->play_api->create(ms_id, &port->player);
    return port->browse != nullptr && port->play != nullptr;
}

void open_port(port* port, std::map<std::string, std::string> settings = {}) {
    port->place = port->base.path + "/media";
    settings.insert({{"mounts", port->place},
                     {"index", "0"}, /* it would read while a drive is to be unmounted */
                     {"audio_output", CLOCKED},
                     {"update_interval", "20"}});
    port->api = host_start(settings);
    ASSERT_EQ(port->api->set_mediasource_detection(1), 0);
}

std::string image_of(const port& port, const std::string& label) {
    return port.base.path + '/' + label + ".img";
}

/* A drive with two tracks, in the place where the images are. */
std::string make_stick(const port& port, const std::string& type, const std::string& label) {
    const std::string image = image_of(port, label);
    const std::string point = port.base.path + "/filling";
    stick_make(image, type, label);
    stick_plug(image, point);
    fs::remove(point + "/lost+found");
    write_tone(point + "/Long.wav", 440, 60000);
    write_tone(point + "/Album/Short.wav", 880, 500);
    write_file(point + "/" + label + ".mp3", "");
    stick_unplug(point);
    return image;
}

bool wait_count(size_t count) {
    return host_wait_connected([count](const connected& now) { return now.size() == count; });
}

/* The only source that is connected, at a mount point. */
host_source wait_at(const std::string& point) {
    EXPECT_TRUE(host_wait_connected([&point](const connected& now) {
        return now.size() == 1 && now.begin()->second.view_name == point;
    })) << point;
    const connected now = host_connected();
    return now.size() == 1 ? now.begin()->second : host_source{};
}

/* The ids of the nodes at the top, or "failed". */
std::string top_of(const port& port) {
    medianode* nodes = nullptr;
    int32_t count = -1;
    if (port.api->browse_api->browse(port.browse, "/", 0, &count, &nodes) != 0) {
        return "failed";
    }
    std::string ids;
    for (int32_t i = 0; i < count; ++i) {
        ids += std::string(nodes[i].id) + ' ';
        EXPECT_EQ(nodes[i].ms_type, LYR_MS_TYPE_USB);
    }
    free_medianodes(&nodes, count);
    return ids;
}

int32_t attach(const port& port, std::string id) {
    medianode node = {};
    node.id = id.data();
    node.type = LYR_NODE_AUDIO;
    return port.api->play_api->attach_medianode(port.play, &node);
}

bool any(const std::vector<host_event>& events, int kind, int32_t least) {
    return std::any_of(events.begin(), events.end(), [=](const host_event& event) {
        return event.kind == kind && event.value >= least;
    });
}

/* Plays until it moves. */
void play(const port& port, const std::string& id) {
    host_forget();
    ASSERT_EQ(attach(port, id), 0);
    ASSERT_EQ(port.api->play_api->play(port.play), 0);
    ASSERT_TRUE(host_wait([](const auto& events) { return any(events, host_event::position, 1); }));
}

struct sticks : testing::TestWithParam<const char*> {
    void SetUp() override {
        const std::string missing = sticks_missing(GetParam());
        if (!missing.empty()) {
            GTEST_SKIP() << missing;
        }
    }
};

} // namespace

TEST_P(sticks, are_the_same_source_wherever_they_are_plugged_in) {
    port port;
    open_port(&port);
    EXPECT_TRUE(host_connected().empty());
    const std::string image = make_stick(port, GetParam(), "MUSIC");
    const std::string points[] = {port.place + "/one", port.place + "/ann/two", port.place};
    host_source first;
    for (const std::string& point : points) {
        stick_plug(image, point);
        const host_source source = wait_at(point);
        first = first.uid.empty() ? source : first;
        EXPECT_EQ(source.id, first.id);
        EXPECT_EQ(source.uid, first.uid);
        EXPECT_EQ(source.name, "MUSIC");
        EXPECT_EQ(source.type, LYR_MS_TYPE_USB);
        ASSERT_TRUE(open_sessions(&port, source.id));
        EXPECT_EQ(top_of(port).substr(0, 27), "/Album /Long.wav /MUSIC.mp3");
        metadata* data = nullptr;
        EXPECT_EQ(port.api->browse_api->get_metadata(port.browse, "/Album/Short.wav", &data), 0);
        free_metadata(&data);
        medianode saved = {};
        saved.id = strdup("/Album/Short.wav");
        EXPECT_EQ(port.api->browse_api->update_medianodes(port.browse, 1, &saved), 0);
        EXPECT_EQ(saved.url, "file://" + point + "/Album/Short.wav");
        EXPECT_EQ(saved.ms_type, LYR_MS_TYPE_USB);
        free_medianode_contents(&saved);
        play(port, "/Album/Short.wav");
        ASSERT_TRUE(
            host_wait([](const auto& events) { return any(events, host_event::finished, 0); }));
        /* Sessions that do nothing keep nobody from unmounting it. */
        stick_unplug(point);
        EXPECT_TRUE(wait_count(0));
        EXPECT_EQ(top_of(port), "failed");
        EXPECT_EQ(attach(port, "/Long.wav"), -1);
        EXPECT_EQ(port.api->browse_api->create(source.id, nullptr), nullptr);
        close_sessions(&port);
    }
}

TEST_P(sticks, can_be_pulled_out_while_they_play) {
    port port;
    open_port(&port, {{"index", "1"}});
    const std::string image = make_stick(port, GetParam(), "MUSIC");
    for (int round = 0; round < 4; ++round) {
        const std::string point = port.place + '/' + std::to_string(round % 2);
        stick_plug(image, point);
        const host_source source = wait_at(point);
        ASSERT_TRUE(open_sessions(&port, source.id));
        play(port, "/Long.wav");
        if (round == 1) {
            EXPECT_EQ(port.api->play_api->pause(port.play), 0);
        }
        /* What the service does, on the thread that reports it. */
        host_on_disconnected([&](int32_t id) {
            EXPECT_EQ(id, source.id);
            EXPECT_EQ(top_of(port), "failed");
            EXPECT_EQ(attach(port, "/Long.wav"), -1);
            EXPECT_EQ(port.api->play_api->stop(port.play), 0);
            EXPECT_EQ(port.api->browse_api->cancel_browse(port.browse), 0);
            close_sessions(&port);
        });
        if (round == 2) {
            EXPECT_EQ(port.api->play_api->seek(port.play, 30000), 0);
        }
        stick_pull(point);
        EXPECT_TRUE(wait_count(0));
        host_on_disconnected(nullptr);
    }
}

/* A session never reaches another drive that has taken the place of its own. */
TEST_P(sticks, are_not_mixed_up) {
    port port;
    open_port(&port);
    const std::string images[] = {make_stick(port, GetParam(), "FIRST"),
                                  make_stick(port, GetParam(), "SECOND")};
    const std::string point = port.place + "/here";
    stick_plug(images[0], point);
    const host_source first = wait_at(point);
    ASSERT_TRUE(open_sessions(&port, first.id));
    EXPECT_EQ(top_of(port).substr(0, 7), "/Album ");
    ASSERT_EQ(port.api->set_mediasource_detection(0), 0);
    stick_unplug(point);
    stick_plug(images[1], point);
    EXPECT_EQ(top_of(port), "failed");
    EXPECT_EQ(attach(port, "/Long.wav"), -1);
    ASSERT_EQ(port.api->set_mediasource_detection(1), 0);
    EXPECT_TRUE(host_wait_connected(
        [&](const connected& now) { return now.size() == 1 && now.count(first.id) == 0; }));
    const connected now = host_connected();
    ASSERT_EQ(now.size(), 1U);
    EXPECT_EQ(now.begin()->second.name, "SECOND");
    EXPECT_NE(now.begin()->second.uid, first.uid);
    EXPECT_EQ(port.api->browse_api->create(first.id, nullptr), nullptr);
    close_sessions(&port);
    stick_unplug(point);
    EXPECT_TRUE(wait_count(0));
}

INSTANTIATE_TEST_SUITE_P(file_systems, sticks, testing::Values("ext4", "vfat", "ntfs"),
                         [](const auto& test) { return std::string(test.param); });

namespace {

struct drives : testing::Test {
    void SetUp() override {
        const std::string missing = sticks_missing("ext4");
        if (!missing.empty()) {
            GTEST_SKIP() << missing;
        }
    }
};

} // namespace

/* One source a file system, and only where it can be reached. */
TEST_F(drives, are_found_however_they_are_mounted) {
    port port;
    const std::string real = port.base.path + "/real";
    fs::create_directories(real);
    fs::create_symlink(real, port.base.path + "/media");
    const std::string image = make_stick(port, "ext4", "ONE");
    const std::string other = make_stick(port, "ext4", "TWO");
    stick_plug(image, real + "/a");
    open_port(&port);
    const host_source source = wait_at(real + "/a");
    EXPECT_EQ(source.name, "ONE");

    /* A second mount is no second source; it takes over from the first. */
    fs::create_directories(real + "/b");
    ASSERT_EQ(mount((real + "/a").c_str(), (real + "/b").c_str(), nullptr, MS_BIND, nullptr), 0);
    stick_plug(other, real + "/a/Album");
    EXPECT_TRUE(wait_count(2));
    stick_pull(real + "/a");
    EXPECT_EQ(wait_at(real + "/b").uid, source.uid);

    /* Covered by something that is no drive. */
    ASSERT_EQ(mount("none", (real + "/b").c_str(), "tmpfs", 0, nullptr), 0);
    EXPECT_TRUE(wait_count(0));
    stick_plug(other, real + "/c");
    EXPECT_EQ(wait_at(real + "/c").name, "TWO");
    stick_unplug(real + "/b");
    EXPECT_TRUE(wait_count(2));
    stick_unplug(real + "/b");
    EXPECT_EQ(wait_at(real + "/c").name, "TWO");
    stick_unplug(real + "/c");
    EXPECT_TRUE(wait_count(0));
}

TEST_F(drives, with_the_same_uuid_are_two) {
    port port;
    open_port(&port);
    const std::string image = make_stick(port, "ext4", "ONE");
    fs::copy_file(image, port.base.path + "/copy.img");
    stick_plug(image, port.place + "/a");
    const host_source source = wait_at(port.place + "/a");
    stick_plug(port.base.path + "/copy.img", port.place + "/b");
    ASSERT_TRUE(wait_count(2));
    EXPECT_EQ(host_connected().rbegin()->second.uid, source.uid + "-2");
    stick_unplug(port.place + "/a");
    stick_unplug(port.place + "/b");
    EXPECT_TRUE(wait_count(0));
}

/* Pulled out, and nobody unmounts it: the track ends with an error that skips on. */
TEST_F(drives, that_fail_end_the_track) {
    port port;
    open_port(&port);
    stick_plug(make_stick(port, "ext4", "MUSIC"), port.place + "/a");
    const host_source source = wait_at(port.place + "/a");
    ASSERT_TRUE(open_sessions(&port, source.id));
    play(port, "/Long.wav");
    stick_break(port.place + "/a");
    /* What was read ahead may still be played. */
    EXPECT_EQ(port.api->play_api->seek(port.play, 50000), 0);
    EXPECT_TRUE(host_wait([](const auto& events) {
        return any(events, host_event::error, 0) || any(events, host_event::finished, 0);
    }));
    EXPECT_FALSE(any(host_events(), host_event::error, LYR_PLAY_ERROR_FATAL));
    EXPECT_EQ(attach(port, "/Album/Short.wav"), -1);
    close_sessions(&port);
    stick_pull(port.place + "/a");
    EXPECT_TRUE(wait_count(0));
}

/* The device has gone and the mount stays; then it is there again. */
TEST_F(drives, are_gone_with_their_device) {
    port port;
    const std::string point = port.base.path + "/media/a";
    stick_show_devices(true);
    stick_plug(make_stick(port, "ext4", "MUSIC"), point);
    open_port(&port);
    const host_source source = wait_at(point);
    stick_show_devices(false);
    EXPECT_TRUE(wait_count(0));
    stick_show_devices(true);
    EXPECT_EQ(wait_at(point).id, source.id);
    stick_pull(point);
    EXPECT_TRUE(wait_count(0));
    stick_pull(STICK_DEVICES);
}

/* A folder in which something is mounted later is another one from then on. */
TEST_F(drives, that_are_shares_come_late) {
    port port;
    const std::string share = port.base.path + "/share";
    fs::create_directories(share);
    open_port(&port, {{"folders", share + "/Music:" + share}});
    const host_source before = wait_at(share);
    EXPECT_EQ(before.type, LYR_MS_TYPE_HDD);
    ASSERT_EQ(mount("none", share.c_str(), "tmpfs", 0, nullptr), 0);
    EXPECT_TRUE(host_wait_connected([&before](const connected& now) {
        return now.size() == 1 && now.begin()->second.report > before.report;
    }));
    fs::create_directories(share + "/Music");
    EXPECT_TRUE(wait_count(2));
    stick_pull(share);
    wait_at(share);
}

/* A file system of FUSE that nobody answers for, as a share whose server is down; it comes to an
 * end with the descriptor. */
static int mount_dead_share(const std::string& point) {
    const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    const std::string options =
        "fd=" + std::to_string(device) + ",rootmode=40000,user_id=0,group_id=0";
    fs::create_directories(point);
    if (mount("dead", point.c_str(), "fuse", 0, options.c_str()) != 0) {
        close(device);
        return -1;
    }
    return device;
}

static bool has_thread(const std::string& name) {
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        std::string found;
        std::ifstream(task.path() / "comm") >> found;
        if (found == name) {
            return true;
        }
    }
    return false;
}

/* Neither the start, nor the drives, nor the end wait for a folder that does not answer. */
TEST_F(drives, do_not_wait_for_a_dead_share) {
    port port;
    const std::string share = port.base.path + "/share";
    vel_fd device(mount_dead_share(share));
    if (device.value < 0) {
        GTEST_SKIP() << "no FUSE";
    }
    const std::string image = make_stick(port, "ext4", "MUSIC");
    open_port(&port, {{"folders", share + "/Music"}});
    stick_plug(image, port.place + "/a");
    EXPECT_EQ(wait_at(port.place + "/a").name, "MUSIC");
    close_port(&port);
    EXPECT_TRUE(has_thread("files-folders")) << "it is left behind";
    close(device.release());
    while (has_thread("files-folders")) {
        sched_yield();
    }
    stick_pull(share);
    stick_pull(port.place + "/a");
}

/* They may come and go faster than anybody looks. */
TEST_F(drives, survive_being_plugged_and_pulled_quickly) {
    port port;
    const std::string image = make_stick(port, "ext4", "MUSIC");
    for (int round = 0; round < 5; ++round) {
        open_port(&port);
        for (int i = 0; i < 4 + round % 2; ++i) {
            const std::string point = port.place + '/' + std::to_string(i % 2);
            if (i % 2 == 0) {
                stick_plug(image, point);
            } else {
                stick_pull(port.place + "/0");
            }
        }
        if (round % 2 == 1) {
            wait_at(port.place + "/0");
            stick_pull(port.place + "/0");
        }
        close_port(&port);
    }
}
