/* Watching: present content first, then every change, without a word twice. */
#include <atomic>
#include <set>
#include <thread>

#include <sys/eventfd.h>
#include <unistd.h>

#include "pps_root.h"

namespace fs = std::filesystem;

namespace {
/* A directory with one object, and a way to change and to read it. */
struct pps_watch : ::testing::Test {
    std::string directory;
    object_owner state{nullptr, &pps_close};

    void SetUp() override {
        directory = make_directory(::testing::UnitTest::GetInstance()->current_test_info()->name());
        state = writer("state");
        ASSERT_EQ(update(state, "a::1\nb::2\n"), 0);
    }
    object_owner writer(const std::string& name) const {
        return open_object(directory + "/" + name, NEW_OBJECT);
    }
    object_owner reader(const std::string& name) const {
        return open_object(directory + "/" + name, O_RDONLY);
    }
};
} // namespace

/* One read; "(0)" for nothing new, "(error N)" for a failure. */
static std::string read_text(const object_owner& object, size_t size = 4096, int32_t stop_fd = -1) {
    std::string buffer(size, '\0');
    const ssize_t length = pps_read(object.get(), buffer.data(), size, stop_fd);
    if (length <= 0) {
        return length == 0 ? "(0)" : "(error " + std::to_string(errno) + ")";
    }
    return buffer.substr(0, static_cast<size_t>(length));
}

TEST_F(pps_watch, tells_what_changed) {
    const object_owner reader_one = reader("state?wait,delta");
    ASSERT_NE(reader_one, nullptr);
    EXPECT_EQ(read_text(reader_one), "@state\na::1\nb::2\n");
    static const struct {
        const char* update;
        const char* told;
    } cases[] = {
        {"a::2\n", "@state\na::2\n"},
        {"c:n:3\n-b\n", "@state\n-b\nc:n:3\n"},
        {"-a\n", "@state\n-a\n"},
        {"c:n:3\n", "@state\nc:n:3\n"}, /* published again as it was */
        {"", "@state\nc:n:3\n"},
        {"-c\n", "@state\n-c\n"},
        {"", "@state\n"},
    };
    for (const auto& item : cases) {
        update(state, item.update);
        EXPECT_EQ(read_text(reader_one), item.told);
    }
    update(state, "a::1\n");
    update(state, "a::2\nb::1\n");
    EXPECT_EQ(read_text(reader_one), "@state\na::2\nb::1\n"); /* a slow reader gets the sum */
    ASSERT_EQ(pps_unlink((directory + "/state").c_str()), 0);
    EXPECT_EQ(read_text(reader_one), "-@state\n");
    update(state, "a::3\n");
    EXPECT_EQ(read_text(reader_one, 7), "@state\n"); /* a small buffer gets it in pieces */
    update(state, "a::4\n");
    EXPECT_EQ(read_text(reader_one, 100), "a::3\nb::1\n"); /* never two texts in one read */
    EXPECT_EQ(read_text(reader_one, 100), "@state\na::4\n");
}

TEST_F(pps_watch, without_wait_returns_at_once) {
    static const struct {
        const char* path;
        const char* changed;
    } cases[] = {
        {"state?delta", "@state\na::2\n"},
        {"state", "@state\na::2\nb::2\n"},
        {".all", "@state\na::2\nb::2\n"},
        {".all?delta", "@state\na::2\n"},
    };
    for (const auto& item : cases) {
        update(state, "a::1\n");
        const object_owner object = reader(item.path);
        EXPECT_EQ(read_text(object), "@state\na::1\nb::2\n") << item.path;
        EXPECT_EQ(read_text(object), "(0)") << item.path;
        EXPECT_EQ(read_text(object), "(0)") << item.path;
        update(state, "a::2\n");
        EXPECT_EQ(read_text(object), item.changed) << item.path;
        EXPECT_EQ(read_text(object), "(0)") << item.path;
    }
}

TEST_F(pps_watch, waits_until_something_happens_or_it_is_stopped) {
    const object_owner object = reader("state?wait,delta");
    const int32_t stop = eventfd(0, EFD_CLOEXEC);
    read_text(object);
    std::atomic<int> told{0};
    std::string first;
    std::string last;
    std::thread waiting([&] {
        first = read_text(object, 4096, stop);
        told.store(1);
        told.notify_all();
        last = read_text(object, 4096, stop);
    });
    update(state, "a::woken\n");
    told.wait(0);
    EXPECT_EQ(first, "@state\na::woken\n");
    const uint64_t one = 1;
    ASSERT_EQ(write(stop, &one, sizeof(one)), static_cast<ssize_t>(sizeof(one)));
    waiting.join();
    EXPECT_EQ(last, "(error " + std::to_string(ECANCELED) + ")");
    close(stop);
}

TEST_F(pps_watch, all_objects_of_a_directory) {
    const object_owner track = writer("track");
    const object_owner all = reader(".all?delta,wait");
    const std::string first = read_text(all); /* in any order */
    EXPECT_EQ((std::set<std::string>{first, read_text(all)}),
              (std::set<std::string>{"@state\na::1\nb::2\n", "@track\n"}));
    update(track, "index:n:1\n");
    update(state, "a::5\n");
    EXPECT_EQ(read_text(all), "@track\nindex:n:1\n");
    EXPECT_EQ(read_text(all), "@state\na::5\n");
    ASSERT_EQ(pps_unlink((directory + "/track").c_str()), 0);
    EXPECT_EQ(read_text(all), "-@track\n");
    const object_owner fresh = writer("fresh");
    EXPECT_EQ(read_text(all), "@fresh\n");
    /* What a stranger writes in place is told when it is whole; what is no object, never. */
    const std::string real = real_path(directory);
    fs::create_symlink(real + "/state", real + "/link");
    fs::create_directory(real + "/below");
    plant_file(real + "/.hidden", "@x\nx::1\n");
    plant_file(real + "/state", "@state\na::foreign\n");
    EXPECT_EQ(read_text(all), "@state\n-b\na::foreign\n");
    ASSERT_EQ(pps_rmdir(directory.c_str()), 0);
    EXPECT_EQ(read_text(all).substr(0, 2), "-@");
    EXPECT_EQ(read_text(all).substr(0, 2), "-@");
    EXPECT_EQ(read_text(all), "(error " + std::to_string(ENOENT) + ")");
}

TEST_F(pps_watch, directories_that_come_and_go) {
    const object_owner all = reader(".all?wait,delta,deep");
    EXPECT_EQ(read_text(all), "@state\na::1\nb::2\n");
    const std::string player = directory + "/radio";
    for (int32_t round = 0; round < 3; ++round) {
        ASSERT_EQ(pps_mkdir(player.c_str(), 0777), 0);
        {
            const object_owner object = writer("radio/state");
            update(object, "status::idle\n");
            EXPECT_EQ(read_text(all), "@radio/state\nstatus::idle\n");
            update(object, "status::playing\n");
            EXPECT_EQ(read_text(all), "@radio/state\nstatus::playing\n");
        }
        plant_file(real_path(player) + "/.in_the_way", "x");
        ASSERT_EQ(pps_rmdir(player.c_str()), 0);
        EXPECT_EQ(read_text(all), "-@radio/state\n");
    }
    update(state, "a::still\n");
    EXPECT_EQ(read_text(all), "@state\na::still\n");
}

/* More events than the kernel keeps: the watch looks at everything anew. */
TEST_F(pps_watch, survives_an_overflow) {
    const object_owner gone = writer("gone");
    const object_owner all = reader(".all?wait,delta,deep");
    read_text(all);
    read_text(all);
    const int32_t most = std::stoi(file_text("/proc/sys/fs/inotify/max_queued_events"));
    const std::string real = real_path(directory);
    for (int32_t i = 0; i <= most / 2; ++i) { /* two files in turn: equal events are one */
        close(open((real + "/state").c_str(), O_WRONLY | O_CLOEXEC));
        close(open((real + "/gone").c_str(), O_WRONLY | O_CLOEXEC));
    }
    ASSERT_EQ(pps_unlink((directory + "/gone").c_str()), 0);
    ASSERT_EQ(pps_mkdir((directory + "/new").c_str(), 0777), 0);
    const object_owner fresh = writer("new/fresh");
    update(state, "a::end\n");
    std::set<std::string> told;
    while (told.size() < 3) {
        told.insert(read_text(all));
    }
    EXPECT_EQ(told, (std::set<std::string>{"-@gone\n", "@new/fresh\n", "@state\na::end\n"}));
}

TEST_F(pps_watch, refuses_what_is_not_there) {
    fs::create_directory(real_path(directory) + "/below");
    fs::create_symlink("state", real_path(directory) + "/link");
    static const struct {
        const char* path;
        int32_t error;
    } cases[] = {
        {"missing?wait,delta", ENOENT},
        {"below", EISDIR},
        {"state/.all", ENOTDIR},
        {"link", EINVAL},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(reader(item.path), nullptr) << item.path;
        EXPECT_EQ(errno, item.error) << item.path;
    }
    EXPECT_EQ(pps_read(state.get(), nullptr, 0, -1), -1);
    EXPECT_EQ(errno, EBADF);
}
