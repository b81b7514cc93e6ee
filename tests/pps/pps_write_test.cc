/* Updates: what they merge into, that they come whole, and that nothing planted misleads them. */
#include <veloran/pps.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "pps_root.h"

namespace fs = std::filesystem;
using object_owner = std::unique_ptr<pps_object, decltype(&pps_close)>;

static constexpr int32_t NEW_OBJECT = O_WRONLY | O_CREAT | O_TRUNC;

static object_owner open_object(const std::string& path, int32_t flags) {
    return {pps_open(path.c_str(), flags, 0666), &pps_close};
}

static int32_t update(const object_owner& object, const std::string& text) {
    return pps_write(object.get(), text.data(), text.size());
}

/* A directory of the test's own below /pps/services. */
static std::string make_directory(const char* name) {
    const std::string path = std::string("/pps/services/") + name;
    EXPECT_EQ(pps_mkdir(path.c_str(), 0777), 0) << errno;
    return path;
}

static size_t staged_files() {
    const fs::path stage = real_path("/pps/.stage");
    return static_cast<size_t>(
        std::distance(fs::directory_iterator(stage), fs::directory_iterator()));
}

TEST(pps_write, merges_updates_into_the_content) {
    const std::string path = make_directory("merge") + "/state";
    const object_owner object = open_object(path + "?nopersist", NEW_OBJECT);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object_text(path), "@state\n");
    const std::string large(100000, 'x');
    const struct {
        std::string text;
        int32_t error; /* 0: the update is taken */
        std::string content;
    } cases[] = {
        {"rate:n:1.0\nstatus::idle\n", 0, "rate:n:1.0\nstatus::idle\n"},
        {"status::playing\n", 0, "rate:n:1.0\nstatus::playing\n"},
        {"-rate\n-never\nx:json:{\"a\":\":\"}\n", 0, "status::playing\nx:json:{\"a\":\":\"}\n"},
        {"rate::new", 0, "status::playing\nx:json:{\"a\":\":\"}\nrate::new\n"},
        {"-x\nx::again\n-status\n", 0, "rate::new\nx::again\n"},
        {"good::1\nno attribute\n", EINVAL, "rate::new\nx::again\n"},
        {"good::1\nonly:one\n", EINVAL, "rate::new\nx::again\n"},
        {":n:1\n", EINVAL, "rate::new\nx::again\n"},
        {"-\n", EINVAL, "rate::new\nx::again\n"},
        {std::string("nul::\0\n", 7), EINVAL, "rate::new\nx::again\n"},
        {"huge::" + std::string(PPS_OBJECT_MAX, 'x'), EFBIG, "rate::new\nx::again\n"},
        {"@state\nrate::" + large + "\n-x\n", 0, "rate::" + large + "\n"},
        {"", 0, "rate::" + large + "\n"},
    };
    for (const auto& item : cases) {
        errno = 0;
        EXPECT_EQ(update(object, item.text), item.error == 0 ? 0 : -1);
        if (item.error != 0) {
            EXPECT_EQ(errno, item.error);
        }
        EXPECT_EQ(object_text(path), "@state\n" + item.content);
    }
    EXPECT_EQ(staged_files(), 0U);
}

TEST(pps_write, bounds_the_number_of_attributes) {
    const std::string path = make_directory("bounds") + "/many";
    const object_owner object = open_object(path, NEW_OBJECT);
    std::string text;
    for (int32_t i = 0; i < PPS_ATTRIBUTES_MAX; ++i) {
        text += "a" + std::to_string(i) + ":n:1\n";
    }
    EXPECT_EQ(update(object, text), 0);
    EXPECT_EQ(update(object, "more::1\n"), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(object_text(path), "@many\n" + text);
}

TEST(pps_write, opens_what_is_there_or_starts_anew) {
    const std::string path = make_directory("open") + "/object";
    EXPECT_EQ(open_object(path, O_WRONLY), nullptr);
    EXPECT_EQ(errno, ENOENT);
    /* What a stranger left: lines that are none are dropped with the next update. */
    plant_file(real_path(path), "@other\nold::1\njunk\n\nold::2\nlast:n:3");
    {
        const object_owner object = open_object(path, O_WRONLY);
        ASSERT_NE(object, nullptr);
        EXPECT_EQ(update(object, "new::4\n"), 0);
        EXPECT_EQ(object_text(path), "@object\nold::2\nlast:n:3\nnew::4\n");
        plant_file(real_path(path), "x");
        EXPECT_EQ(update(object, "-last\n"), 0);
        EXPECT_EQ(object_text(path), "@object\nold::2\nnew::4\n");
    }
    const object_owner object = open_object(path, NEW_OBJECT);
    EXPECT_EQ(object_text(path), "@object\n");
}

TEST(pps_write, refuses_paths_that_make_no_sense) {
    const std::string long_name(256, 'n');
    const struct {
        std::string path;
        int32_t error;
    } cases[] = {
        {"/pps", EINVAL},
        {"/tmp/object", EINVAL},
        {"pps/services/x", EINVAL},
        {"/pps/services/../x", EINVAL},
        {"/pps/services/./x", EINVAL},
        {"/pps/services//x", EINVAL},
        {"/pps/services/x/", EINVAL},
        {"/pps/.stage/x", EINVAL},
        {"/pps/services/.all", EINVAL},
        {"/pps/services/x?unknown", EINVAL},
        {"/pps/services/" + long_name, ENAMETOOLONG},
        {"/pps/" + std::string(5000, 'p'), ENAMETOOLONG},
        {"/pps/services/missing/x", ENOENT},
    };
    for (const auto& item : cases) {
        errno = 0;
        EXPECT_EQ(open_object(item.path, NEW_OBJECT), nullptr) << item.path;
        EXPECT_EQ(errno, item.error) << item.path;
    }
    EXPECT_EQ(pps_open(nullptr, O_WRONLY, 0), nullptr);
}

TEST(pps_write, replaces_whatever_was_planted) {
    const std::string directory = make_directory("planted");
    const std::string victim = real_path("/victim");
    plant_file(victim, "precious");
    const auto name = [&](const char* last) { return directory + "/" + last; };
    fs::create_symlink(victim, real_path(name("link")));
    fs::create_directories(real_path(name("directory")) + "/deep/er");
    plant_file(real_path(name("directory")) + "/deep/file", "x");
    ASSERT_EQ(mkfifo(real_path(name("pipe")).c_str(), 0666), 0);
    for (const char* last : {"link", "directory", "pipe"}) {
        const object_owner object = open_object(name(last), NEW_OBJECT);
        ASSERT_NE(object, nullptr) << last;
        EXPECT_EQ(update(object, "a::b\n"), 0);
        struct stat status;
        ASSERT_EQ(lstat(real_path(name(last)).c_str(), &status), 0);
        EXPECT_TRUE(S_ISREG(status.st_mode));
        /* And while the writer has it open. */
        fs::remove(real_path(name(last)));
        fs::create_directories(real_path(name(last)) + "/again");
        EXPECT_EQ(update(object, "a::c\n"), 0);
        EXPECT_EQ(object_text(name(last)), std::string("@") + last + "\na::c\n");
    }
    EXPECT_EQ(file_text(victim), "precious");
    EXPECT_EQ(staged_files(), 0U);
}

TEST(pps_write, does_not_follow_a_link_to_a_directory) {
    const std::string elsewhere = real_path("/elsewhere");
    fs::create_directories(elsewhere);
    make_directory("outer");
    fs::create_symlink(elsewhere, real_path("/pps/services/outer/inner"));
    EXPECT_EQ(open_object("/pps/services/outer/inner/state", NEW_OBJECT), nullptr);
    EXPECT_EQ(pps_clear_tree("/pps/services/outer/inner"), -1);
    EXPECT_TRUE(fs::is_empty(elsewhere));
    EXPECT_EQ(pps_mkdir("/pps/services/outer/inner", 0777), 0); /* takes the link's place */
    EXPECT_NE(open_object("/pps/services/outer/inner/state", NEW_OBJECT), nullptr);
    EXPECT_TRUE(fs::is_empty(elsewhere));
}

TEST(pps_write, makes_a_directory_again_that_was_taken_away) {
    const std::string directory = make_directory("taken");
    const object_owner one = open_object(directory + "/one", NEW_OBJECT);
    const object_owner two = open_object(directory + "/two", NEW_OBJECT);
    fs::remove_all(real_path(directory));
    EXPECT_EQ(update(one, "a::1\n"), 0);
    EXPECT_EQ(update(two, "b::2\n"), 0);
    EXPECT_EQ(object_text(directory + "/one"), "@one\na::1\n");
    EXPECT_EQ(object_text(directory + "/two"), "@two\nb::2\n");
    fs::remove_all(real_path("/pps")); /* with the place where new content is written */
    EXPECT_EQ(update(one, "a::3\n"), 0);
    EXPECT_EQ(update(two, "b::4\n"), 0);
    EXPECT_EQ(object_text(directory + "/one"), "@one\na::3\n");
    EXPECT_EQ(object_text(directory + "/two"), "@two\nb::4\n");
}

/* Reads an object over and over until it holds its last update. Returns an exit status: 0 when
 * each text that was seen was one whole update. */
static int read_until_last(const std::string& real, const std::string& last) {
    std::string text;
    while (text.find("first:n:" + last + "\n") == std::string::npos) {
        text = file_text(real);
        const size_t first = text.find("first:n:");
        const size_t second = text.find("second:n:");
        if (first == std::string::npos || second == std::string::npos || text.back() != '\n') {
            return 1;
        }
        const std::string one = text.substr(first + 8, text.find('\n', first) - first - 8);
        const std::string other = text.substr(second + 9, text.find('\n', second) - second - 9);
        if (one != other) {
            return 2;
        }
    }
    return 0;
}

TEST(pps_write, a_reader_sees_old_or_new_and_nothing_between) {
    const std::string path = make_directory("hammer") + "/object";
    const object_owner object = open_object(path, NEW_OBJECT);
    const std::string filler = "filler::" + std::string(20000, 'f') + "\n";
    ASSERT_EQ(update(object, "first:n:0\n" + filler + "second:n:0\n"), 0);
    const std::string real = real_path(path);
    const pid_t child = fork();
    if (child == 0) {
        _exit(read_until_last(real, "3000"));
    }
    for (int32_t i = 1; i <= 3000; ++i) {
        const std::string number = std::to_string(i);
        ASSERT_EQ(update(object, "first:n:" + number + "\nsecond:n:" + number + "\n"), 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(pps_write, holds_one_descriptor_a_directory) {
    const auto open_descriptors = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const std::string directory = make_directory("descriptors");
    const auto before = open_descriptors();
    {
        std::vector<object_owner> objects;
        for (int32_t i = 0; i < 20; ++i) {
            objects.push_back(open_object(directory + "/o" + std::to_string(i), NEW_OBJECT));
            EXPECT_EQ(update(objects.back(), "a::b\n"), 0);
        }
        EXPECT_EQ(open_descriptors(), before + 1);
    }
    EXPECT_EQ(open_descriptors(), before);
}
