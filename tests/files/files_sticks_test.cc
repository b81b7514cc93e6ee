/* Drives that are plugged in and pulled out, through the plug-in's tables. */
#include <filesystem>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include "library.h"
#include "sticks.h"

namespace fs = std::filesystem;

namespace {

/* A plug-in that looks for drives below one place. Their images are in its folder. */
struct port : library {
    std::string place = folder.path + "/media";
};

void open_port(port* port, std::map<std::string, std::string> settings = {}) {
    /* An index would be read while a drive is to be unmounted. */
    settings.insert({{"mounts", port->place}, {"index", "0"}});
    start_plugin(port, settings);
}

/* A drive with what is written into the place where it is mounted. */
std::string make_stick(const port& port, const std::string& type, const std::string& label,
                       const std::function<void(const std::string& point)>& fill) {
    const std::string image = port.folder.path + '/' + label + ".img";
    const std::string point = port.folder.path + "/filling";
    stick_make(image, type, label);
    stick_plug(image, point);
    fs::remove(point + "/lost+found");
    fill(point);
    stick_unplug(point);
    return image;
}

/* A drive with two tracks. */
std::string make_stick(const port& port, const std::string& type, const std::string& label) {
    return make_stick(port, type, label, [&label](const std::string& point) {
        make_track(point + "/Long.wav", 440, 60000);
        make_track(point + "/Album/Short.wav", 880, 500);
        write_file(point + "/" + label + ".mp3", "");
    });
}

/* The only source that is connected, at a mount point. */
host_source wait_at(const std::string& point) {
    EXPECT_TRUE(host_wait([&point](const host_record& now) {
        return now.connected.size() == 1 && now.connected.begin()->second.view_name == point;
    })) << point;
    const auto connected = host_now().connected;
    return connected.size() == 1 ? connected.begin()->second : host_source{};
}

/* The sessions reach nothing any more. */
void expect_gone(const port& port) {
    EXPECT_EQ(browse(port, "/"), FAILED);
    EXPECT_EQ(attach(port, "/Long.wav"), -1);
}

void skip_without(const std::string& type) {
    const std::string missing = sticks_missing(type);
    if (!missing.empty()) {
        GTEST_SKIP() << missing;
    }
}

struct sticks : testing::TestWithParam<const char*> {
    void SetUp() override { skip_without(GetParam()); }
};

struct scanned : sticks {};

struct drives : testing::Test {
    void SetUp() override { skip_without("ext4"); }
};

} // namespace

TEST_P(sticks, are_the_same_source_wherever_they_are_plugged_in) {
    port port;
    open_port(&port);
    EXPECT_TRUE(host_now().connected.empty());
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
        open_sessions(&port, source.id);
        EXPECT_EQ(browse(port, "/", 0, 3), (lines{"/Album|Album|1", "/Long.wav", "/MUSIC.mp3"}));
        EXPECT_EQ(about(port, "/Album/Short.wav", &metadata::title), "Short");
        medianode saved = {};
        saved.id = strdup("/Album/Short.wav");
        EXPECT_EQ(port.api->browse_api->update_medianodes(port.session, 1, &saved), 0);
        EXPECT_EQ(saved.url, "file://" + point + "/Album/Short.wav");
        EXPECT_EQ(saved.ms_type, LYR_MS_TYPE_USB);
        free_medianode_contents(&saved);
        play(port, "/Album/Short.wav");
        ASSERT_TRUE(host_wait_event(host_event::finished));
        /* Sessions that do nothing keep nobody from unmounting it. */
        stick_unplug(point);
        EXPECT_TRUE(host_wait_sources(0));
        expect_gone(port);
        EXPECT_EQ(port.api->browse_api->create(source.id, nullptr), nullptr);
        close_sessions(&port);
    }
}

TEST_P(sticks, can_be_pulled_out_while_they_play) {
    port port;
    open_port(&port, {{"index", "1"}});
    const std::string image = make_stick(port, GetParam(), "MUSIC");
    const std::function<int32_t()> last_commands[] = {
        [] { return 0; },
        [&port] { return port.api->play_api->pause(port.play); },
        [&port] { return port.api->play_api->seek(port.play, 30000); },
    };
    for (const auto& command : last_commands) {
        stick_plug(image, port.place);
        open_sessions(&port, wait_at(port.place).id);
        play(port, "/Long.wav");
        /* What the service does, on the thread that reports it. */
        host_on_source([&port](int32_t) {
            expect_gone(port);
            EXPECT_EQ(port.api->play_api->stop(port.play), 0);
            EXPECT_EQ(port.api->browse_api->cancel_browse(port.session), 0);
            close_sessions(&port);
        });
        EXPECT_EQ(command(), 0);
        stick_pull(port.place);
        EXPECT_TRUE(host_wait_sources(0));
        host_on_source(nullptr);
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
    open_sessions(&port, first.id);
    EXPECT_NE(browse(port, "/"), FAILED);
    ASSERT_EQ(port.api->set_mediasource_detection(0), 0);
    stick_unplug(point);
    stick_plug(images[1], point);
    expect_gone(port);
    ASSERT_EQ(port.api->set_mediasource_detection(1), 0);
    EXPECT_TRUE(host_wait([&first](const host_record& now) {
        return now.connected.size() == 1 && now.connected.count(first.id) == 0;
    }));
    const host_source second = wait_at(point);
    EXPECT_EQ(second.name, "SECOND");
    EXPECT_NE(second.uid, first.uid);
    EXPECT_EQ(port.api->browse_api->create(first.id, nullptr), nullptr);
    close_sessions(&port);
    stick_unplug(point);
    EXPECT_TRUE(host_wait_sources(0));
}

/* How many tracks a search of titles finds from one on, in one page; -1: it failed. */
static int32_t songs(const port& port, int32_t offset = 0) {
    const lines found = search(port, "title", "song", offset);
    return found == FAILED ? -1 : static_cast<int32_t>(found.size());
}

TEST_P(scanned, are_pulled_out_in_the_midst) {
    constexpr int32_t TRACKS = 2000;
    port port;
    const std::string image = make_stick(port, GetParam(), "MUSIC", [](const std::string& point) {
        for (int32_t i = 0; i < TRACKS; ++i) {
            const std::string number = std::to_string(i);
            write_file(point + "/Album " + std::to_string(i / 100) + '/' + number + ".mp3",
                       tagged_file("Song " + number));
        }
    });
    open_port(&port, {{"index", "1"}});
    /* Each time a little later, under another name. */
    int32_t id = -1;
    for (const int32_t wanted : {0, 1, 300, 600, 1000}) {
        const std::string point = port.place + "/at " + std::to_string(wanted);
        stick_plug(image, point);
        id = wait_at(point).id;
        open_sessions(&port, id);
        while (songs(port) < wanted) {
            sched_yield();
        }
        std::thread hand([&point] { stick_pull(point); });
        while (browse(port, "/Album 3") != FAILED) {
            songs(port);
        }
        hand.join();
        ASSERT_TRUE(host_wait_sources(0));
        close_sessions(&port);
    }

    const std::string point = port.place + "/last";
    const std::string all = std::to_string(TRACKS) + " tracks";
    const int32_t before = host_log_count(all);
    stick_plug(image, point);
    ASSERT_TRUE(host_log_wait(all, before + 1));
    EXPECT_EQ(host_log_count(" 0 gone"), host_log_count(" gone")) << "no drive lost a file";
    open_sessions(&port, id); /* it is the same source */
    EXPECT_EQ(songs(port, TRACKS - 2), 2) << "none was read that was not there";

    /* All is quiet now: it can be unmounted, and is known when it comes back. */
    stick_unplug(point);
    ASSERT_TRUE(host_wait_sources(0));
    stick_plug(image, point);
    ASSERT_TRUE(host_log_wait(all + ", 0 read, 0 gone", 1));
    stick_pull(point);
    ASSERT_TRUE(host_wait_sources(0));
}

static std::string name_of(const testing::TestParamInfo<const char*>& test) {
    return test.param;
}

INSTANTIATE_TEST_SUITE_P(file_systems, sticks, testing::Values("ext4", "vfat", "ntfs"), name_of);
INSTANTIATE_TEST_SUITE_P(file_systems, scanned, testing::Values("ext4", "vfat"), name_of);

/* One source a file system, and only where it can be reached. */
TEST_F(drives, are_found_however_they_are_mounted) {
    port port;
    const std::string real = port.folder.path + "/real";
    fs::create_directories(real);
    fs::create_symlink(real, port.place);
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
    EXPECT_TRUE(host_wait_sources(2));
    stick_pull(real + "/a");
    EXPECT_EQ(wait_at(real + "/b").uid, source.uid);

    /* Covered by something that is no drive. */
    ASSERT_EQ(mount("none", (real + "/b").c_str(), "tmpfs", 0, nullptr), 0);
    EXPECT_TRUE(host_wait_sources(0));
    stick_plug(other, real + "/c");
    EXPECT_EQ(wait_at(real + "/c").name, "TWO");
    stick_unplug(real + "/b");
    EXPECT_TRUE(host_wait_sources(2));
    stick_unplug(real + "/b");
    EXPECT_EQ(wait_at(real + "/c").name, "TWO");
    stick_unplug(real + "/c");
    EXPECT_TRUE(host_wait_sources(0));

    /* A copy has the same UUID and is another drive. */
    fs::copy_file(image, image + ".copy");
    stick_plug(image, real + "/a");
    EXPECT_EQ(wait_at(real + "/a").uid, source.uid);
    stick_plug(image + ".copy", real + "/b");
    ASSERT_TRUE(host_wait_sources(2));
    EXPECT_EQ(host_now().connected.rbegin()->second.uid, source.uid + "-2");
    stick_unplug(real + "/a");
    stick_unplug(real + "/b");
    EXPECT_TRUE(host_wait_sources(0));
}

/* Pulled out, and nobody unmounts it: the track ends with an error that skips on. */
TEST_F(drives, that_fail_end_the_track) {
    port port;
    open_port(&port);
    stick_plug(make_stick(port, "ext4", "MUSIC"), port.place + "/a");
    open_sessions(&port, wait_at(port.place + "/a").id);
    play(port, "/Long.wav");
    stick_break(port.place + "/a");
    /* What was read ahead may still be played. */
    EXPECT_EQ(port.api->play_api->seek(port.play, 50000), 0);
    EXPECT_TRUE(host_wait(
        [](const host_record& now) { return now.events.back().kind != host_event::position; }));
    EXPECT_EQ(host_events(host_event::error, LYR_PLAY_ERROR_FATAL), 0);
    EXPECT_EQ(attach(port, "/Album/Short.wav"), -1);
    close_sessions(&port);
    stick_pull(port.place + "/a");
    EXPECT_TRUE(host_wait_sources(0));
}

/* The device has gone and the mount stays; then it is there again. */
TEST_F(drives, are_gone_with_their_device) {
    port port;
    const std::string point = port.place + "/a";
    stick_show_devices(true);
    stick_plug(make_stick(port, "ext4", "MUSIC"), point);
    open_port(&port);
    const host_source source = wait_at(point);
    stick_show_devices(false);
    EXPECT_TRUE(host_wait_sources(0));
    stick_show_devices(true);
    EXPECT_EQ(wait_at(point).id, source.id);
    stick_pull(point);
    EXPECT_TRUE(host_wait_sources(0));
    stick_pull(STICK_DEVICES);
}

/* A folder in which something is mounted later is another one from then on. */
TEST_F(drives, that_are_shares_come_late) {
    port port;
    const std::string share = port.folder.path + "/share";
    fs::create_directories(share);
    open_port(&port, {{"folders", share + "/Music:" + share}});
    EXPECT_EQ(wait_at(share).type, LYR_MS_TYPE_HDD);
    ASSERT_EQ(mount("none", share.c_str(), "tmpfs", 0, nullptr), 0);
    EXPECT_TRUE(host_wait([](const host_record& now) {
        return now.connected.size() == 1 && now.sources.size() == 2;
    }));
    fs::create_directories(share + "/Music");
    EXPECT_TRUE(host_wait_sources(2));
    stick_pull(share);
    wait_at(share);
}

/* A file system of FUSE that nobody answers for, as a share whose server is down; it comes to an
 * end with the descriptor. */
static int mount_dead_share(const std::string& point) {
    vel_fd device(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    const std::string options =
        "fd=" + std::to_string(device.value) + ",rootmode=40000,user_id=0,group_id=0";
    fs::create_directories(point);
    const bool mounted = mount("dead", point.c_str(), "fuse", 0, options.c_str()) == 0;
    return mounted ? device.release() : -1;
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
    const std::string share = port.folder.path + "/share";
    vel_fd device(mount_dead_share(share));
    if (device.value < 0) {
        GTEST_SKIP() << "no FUSE";
    }
    const std::string image = make_stick(port, "ext4", "MUSIC");
    open_port(&port, {{"folders", share + "/Music"}});
    stick_plug(image, port.place + "/a");
    EXPECT_EQ(wait_at(port.place + "/a").name, "MUSIC");
    close_library(&port);
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
    const std::string point = port.place + "/0";
    for (int round = 0; round < 5; ++round) {
        open_port(&port);
        stick_plug(image, point);
        stick_pull(point);
        stick_plug(image, point);
        if (round % 2 == 1) {
            wait_at(point);
        }
        stick_pull(point);
        close_library(&port);
    }
}
