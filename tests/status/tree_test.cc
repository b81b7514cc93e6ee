/* The published tree. Directories: paths, use counts, removal. Objects: what a flush writes, and
 * what it withdraws. */
#include <cerrno>
#include <string>
#include <vector>

#include <fcntl.h>
#include <veloran/pps.h>

#include "status_tree.h"

namespace fs = std::filesystem;

namespace {

struct ppsdir : status_tree {};
using ppsdir_death = ppsdir;

std::string path_of(const lyr_ppsnode* node) {
    char text[256];
    const int32_t length = lyr_ppsdir_getpath(node, text, sizeof(text));
    EXPECT_EQ(length, static_cast<int32_t>(std::string(text).size()));
    return text;
}

TEST_F(ppsdir, a_root_that_exists_stays) {
    lyr_ppsdir* again = lyr_ppsdir_makeroot(path.c_str(), &error);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(lyr_ppsdir_remove(again), 0);
    EXPECT_TRUE(exists(""));
}

TEST_F(ppsdir, builds_paths) {
    lyr_ppsdir* dir = lyr_ppsdir_create(root, "radio", 0777, &error);
    lyr_ppswriter* plain = lyr_ppswriter_create(dir, "state", -1, &error);
    lyr_ppswriter* many = lyr_ppswriter_create(dir, "state", 2147483647, &error);
    EXPECT_EQ(path_of(plain), path + "/radio/state");
    EXPECT_EQ(path_of(many), path + "/radio/state2147483647");
    EXPECT_TRUE(exists("/radio/state2147483647"));
    /* One byte too few for the NUL: the empty text and the whole length. */
    const std::string expected = path + "/radio";
    const auto length = static_cast<int32_t>(expected.size());
    std::string small(expected.size() + 1, '#');
    EXPECT_EQ(lyr_ppsdir_getpath(dir, small.data(), expected.size()), length);
    EXPECT_STREQ(small.c_str(), "");
    EXPECT_EQ(lyr_ppsdir_getpath(dir, small.data(), expected.size() + 1), length);
    EXPECT_STREQ(small.c_str(), expected.c_str());
    EXPECT_EQ(lyr_ppsdir_getpath(nullptr, nullptr, 0), 0);
    lyr_ppswriter_close(plain);
    lyr_ppswriter_close(many);
}

TEST_F(ppsdir, removal_takes_strangers_files_and_leaves_what_was_there) {
    fs::create_directory(real_path(path) + "/old");
    plant_file(real_path(path) + "/old/kept", "x");
    lyr_ppsdir* old = lyr_ppsdir_create(root, "old", 0777, &error);
    lyr_ppsdir* fresh = lyr_ppsdir_create(root, "fresh", 0777, &error);
    lyr_ppsdir* below = lyr_ppsdir_create(fresh, "below", 0777, &error);
    fs::create_directory(real_path(path) + "/fresh/theirs");
    lyr_ppsdir* theirs = lyr_ppsdir_create(fresh, "theirs", 0777, &error);
    for (lyr_ppsdir* dir : {old, below, theirs}) {
        lyr_ppswriter_close(lyr_ppswriter_create(dir, "o", -1, &error));
    }
    plant_file(real_path(path) + "/fresh/dropped", "x");
    EXPECT_EQ(lyr_ppsdir_remove(fresh), 0);
    EXPECT_FALSE(exists("/fresh"));
    EXPECT_EQ(lyr_ppsdir_remove(old), 0);
    EXPECT_TRUE(exists("/old/kept"));
    EXPECT_FALSE(exists("/old/o")); /* our own object goes in any case */
}

TEST_F(ppsdir, removal_is_for_directories) {
    lyr_ppswriter* object = lyr_ppswriter_create(root, "object", -1, &error);
    for (int32_t refs = 1; refs >= 0; --refs) { /* also once it is closed */
        EXPECT_EQ(lyr_ppsdir_remove(object), EINVAL);
        EXPECT_TRUE(exists("/object"));
        lyr_ppswriter_close(object);
    }
}

TEST_F(ppsdir_death, what_cannot_be_made_or_is_in_use_ends_the_process) {
    lyr_ppsdir* dir = lyr_ppsdir_create(root, "used", 0777, &error);
    lyr_ppswriter* object = lyr_ppswriter_create(dir, "state", -1, &error);
    for (lyr_ppsdir* used : {dir, root}) {
        EXPECT_EXIT((background = 0, lyr_ppsdir_remove(used)), ::testing::ExitedWithCode(1),
                    "Couldn't remove " + path_of(used) + " -- still in use");
    }
    lyr_ppswriter_close(object);
    lyr_ppswriter_close(object); /* a second close counts for nothing */
    EXPECT_EXIT((background = 0, lyr_ppsdir_create(root, "a/b", 0777, &error)),
                ::testing::ExitedWithCode(1),
                "Couldn't mkdir " + path + "/a/b\\?nopersist: No such file or directory");
}

struct ppswriter : status_tree {
    lyr_ppswriter* object = nullptr;
    void SetUp() override {
        status_tree::SetUp();
        object = lyr_ppswriter_create(root, "state", -1, &error);
        ASSERT_NE(object, nullptr);
    }
    void TearDown() override {
        lyr_ppswriter_close(object);
        status_tree::TearDown();
    }
    /* Sets attributes, or with null deletes them; flushes. */
    void write(const std::vector<std::pair<std::string, const char*>>& changes) {
        for (const auto& [name, value] : changes) {
            lyr_ppswriter_write_attr(object, name.c_str(), value);
        }
        EXPECT_EQ(lyr_ppswriter_flush(object), 0);
    }
};
using ppswriter_death = ppswriter;

TEST_F(ppswriter, publishes_sets_and_withdraws) {
    write({{"rate", ":n:1.0"}, {"status", "::idle"}});
    EXPECT_EQ(text_of("/state"), "@state\nrate:n:1.0\nstatus::idle\n");
    write({{"status", "::playing"}});
    EXPECT_EQ(text_of("/state"), "@state\nrate:n:1.0\nstatus::playing\n");
    write({{"rate", nullptr}, {"more", "::x"}});
    EXPECT_EQ(text_of("/state"), "@state\nstatus::playing\nmore::x\n");
    write({{"new", "::y"}, {"new", nullptr}, {"never", nullptr}});
    write({{"", "::x"}, {"a:b", "::x"}, {"-a", "::x"}, {"a\nb", "::x"}, {"@v", "::x"}});
    write({{"v", "x"}, {"v", ":x"}, {"v", "::x\nforged::y"}, {"good", "::z"}});
    EXPECT_EQ(text_of("/state"), "@state\nstatus::playing\nmore::x\ngood::z\n");
    write({{"status", nullptr}, {"more", nullptr}, {"good", nullptr}});
    EXPECT_EQ(text_of("/state"), "@state\n");
}

/* A watcher must see withdrawn attributes before the new set, and no attribute vanish that only
 * changes its value. */
TEST_F(ppswriter, watchers_see_one_update) {
    write({{"a", "::1"}, {"b", "::1"}});
    pps_object* watch = pps_open((path + "/state?delta").c_str(), O_RDONLY, 0);
    ASSERT_NE(watch, nullptr);
    const auto told = [watch] {
        char text[256];
        const ssize_t length = pps_read(watch, text, sizeof(text), -1);
        return std::string(text, static_cast<size_t>(length > 0 ? length : 0));
    };
    EXPECT_EQ(told(), "@state\na::1\nb::1\n");
    EXPECT_EQ(told(), "");
    write({{"a", nullptr}, {"b", "::2"}});
    EXPECT_EQ(told(), "@state\n-a\nb::2\n");
    write({{"b", "::2"}}); /* as it was: published all the same */
    EXPECT_EQ(told(), "@state\nb::2\n");
    write({}); /* nothing set: nothing written */
    EXPECT_EQ(told(), "");
    pps_close(watch);
}

TEST_F(ppswriter, takes_a_whole_dictionary) {
    write({{"a", "::1"}});
    strm_dict* content = strm_dict_new();
    std::string expected = "@state\n";
    for (int32_t i = 0; i < 400; ++i) { /* more pieces than one system call takes */
        const std::string name = "n" + std::to_string(i);
        strm_dict_set(content, name.c_str(), ":n:1");
        expected += name + ":n:1\n";
    }
    strm_dict_set(content, "broken", "no value");
    EXPECT_EQ(lyr_ppswriter_write_dict(object, content), 0);
    EXPECT_EQ(text_of("/state"), expected);
    EXPECT_EQ(strm_dict_count(lyr_ppswriter_getall(object)), 400);
}

/* The text of a hostile file's tag neither ends the service nor leaves an older one in place. */
TEST_F(ppswriter, withdraws_what_is_far_too_long) {
    const std::string megabytes = "::" + std::string(3 << 20, 'x');
    write({{"long", megabytes.c_str()}, {"other", "::1"}});
    EXPECT_EQ(text_of("/state"), "@state\nlong" + megabytes + "\nother::1\n");
    write({{"long", ("::" + std::string(PPS_OBJECT_MAX, 'x')).c_str()}});
    EXPECT_EQ(text_of("/state"), "@state\nother::1\n");
}

TEST_F(ppswriter, starts_without_what_an_earlier_run_left) {
    plant_file(real_path(path) + "/track", "@track\nstale::yes\n");
    lyr_ppswriter* track = lyr_ppswriter_create(root, "track", -1, &error);
    ASSERT_NE(track, nullptr);
    EXPECT_EQ(text_of("/track"), "@track\n");
    fs::remove(real_path(path) + "/track");
    EXPECT_EQ(lyr_ppswriter_remove(track), ENOENT) << "somebody unlinked it";
}

TEST_F(ppswriter, refuses_a_second_object_of_the_name) {
    EXPECT_EQ(lyr_ppswriter_create(root, "state", -1, &error), nullptr);
    EXPECT_EQ(error, EEXIST);
    lyr_ppswriter* one = lyr_ppswriter_create(root, "state", 1, &error);
    lyr_ppswriter* two = lyr_ppswriter_create(root, "state", 2, &error);
    EXPECT_TRUE(exists("/state1") && exists("/state2"));
    EXPECT_EQ(lyr_ppswriter_remove(two), 0);
    EXPECT_FALSE(exists("/state2"));
    lyr_ppswriter_close(one);
    EXPECT_EQ(lyr_ppswriter_remove(one), EBUSY); /* no reference is left to give up */
    EXPECT_EQ(lyr_ppswriter_create(root, "state", 1, &error), nullptr); /* still in the tree */
}

TEST_F(ppswriter_death, a_platform_that_fails_ends_the_process) {
    for (int32_t i = 0; i <= PPS_ATTRIBUTES_MAX; ++i) {
        lyr_ppswriter_write_attr(object, std::to_string(i).c_str(), "::x");
    }
    EXPECT_EXIT((background = 0, lyr_ppswriter_flush(object)), ::testing::ExitedWithCode(1),
                "Couldn't update a PPS object \\(File too large\\)");
    EXPECT_EXIT((background = 0, lyr_ppswriter_create(root, "a/b", -1, &error)),
                ::testing::ExitedWithCode(1),
                "Couldn't create PPS object 'a/b' \\(No such file or directory\\)");
}

} // namespace
