/* Updates: what they merge into, that they come whole, and that nothing planted misleads them. */
#include <vector>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "pps_root.h"

namespace fs = std::filesystem;

static auto entries_of(const std::string& directory) {
    return std::distance(fs::directory_iterator(directory), fs::directory_iterator());
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
        {":n:1\n", EINVAL, "rate::new\nx::again\n"},
        {std::string("nul::\0\n", 7), EINVAL, "rate::new\nx::again\n"},
        {"huge::" + std::string(PPS_OBJECT_MAX, 'x'), EFBIG, "rate::new\nx::again\n"},
        {"@state\nrate::" + large + "\n-x\n", 0, "rate::" + large + "\n"},
        {"", 0, "rate::" + large + "\n"},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(update(object, item.text), item.error) << item.text.substr(0, 99);
        EXPECT_EQ(object_text(path), "@state\n" + item.content);
    }
    EXPECT_TRUE(fs::is_empty(real_path("/pps/.stage")));
}

TEST(pps_write, bounds_the_number_of_attributes) {
    const std::string path = make_directory("bounds") + "/many";
    const object_owner object = open_object(path, NEW_OBJECT);
    std::string text;
    for (int32_t i = 0; i < PPS_ATTRIBUTES_MAX; ++i) {
        text += "a" + std::to_string(i) + ":n:1\n";
    }
    EXPECT_EQ(update(object, text), 0);
    EXPECT_EQ(update(object, "more::1\n"), EFBIG);
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
    const struct {
        std::string path;
        int32_t error;
    } cases[] = {
        {"/pps", EINVAL},
        {"/tmp/object", EINVAL},
        {"/pps/services/../x", EINVAL},
        {"/pps/services//x", EINVAL},
        {"/pps/.stage/x", EINVAL},
        {"/pps/services/.all", EINVAL},
        {"/pps/services/x?unknown", EINVAL},
        {"/pps/services/" + std::string(256, 'n'), ENAMETOOLONG},
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
    EXPECT_TRUE(fs::is_empty(real_path("/pps/.stage")));
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
    /* With the second one, the place where new content is written. */
    for (const std::string& taken : {directory, std::string("/pps")}) {
        fs::remove_all(real_path(taken));
        EXPECT_EQ(update(one, "a::" + taken + "\n"), 0);
        EXPECT_EQ(update(two, "b::" + taken + "\n"), 0);
        EXPECT_EQ(object_text(directory + "/one"), "@one\na::" + taken + "\n");
        EXPECT_EQ(object_text(directory + "/two"), "@two\nb::" + taken + "\n");
    }
}

/* Reads an object over and over until it holds its last update. Returns an exit status: 0 when
 * each text that was seen was one whole update. */
static int read_until_last(const std::string& real, const std::string& filler,
                           const std::string& last) {
    for (std::string number; number != last;) {
        const std::string text = file_text(real);
        const size_t at = text.find("first:n:") + 8;
        number = at > text.size() ? "" : text.substr(at, text.find('\n', at) - at);
        if (text != "@object\nfirst:n:" + number + "\n" + filler + "second:n:" + number + "\n") {
            return 1;
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
        _exit(read_until_last(real, filler, "3000"));
    }
    for (int32_t i = 1; i <= 3000; ++i) {
        const std::string number = std::to_string(i);
        ASSERT_EQ(update(object, "first:n:" + number + "\nsecond:n:" + number + "\n"), 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(pps_write, holds_one_descriptor_a_directory) {
    const std::string directory = make_directory("descriptors");
    const auto before = entries_of("/proc/self/fd");
    {
        std::vector<object_owner> objects;
        for (int32_t i = 0; i < 20; ++i) {
            objects.push_back(open_object(directory + "/o" + std::to_string(i), NEW_OBJECT));
            EXPECT_EQ(update(objects.back(), "a::b\n"), 0);
        }
        EXPECT_EQ(entries_of("/proc/self/fd"), before + 1);
    }
    EXPECT_EQ(entries_of("/proc/self/fd"), before);
}
