/* Directories of the tree: paths, use counts, removal, many threads at once. */
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "status_tree.h"

namespace fs = std::filesystem;

namespace {
struct ppsdir : status_tree {};
using ppsdir_death = ppsdir;
} // namespace

static std::string path_of(const lyr_ppsnode* node) {
    char text[256];
    const int32_t length = lyr_ppsdir_getpath(node, text, sizeof(text));
    EXPECT_EQ(length, static_cast<int32_t>(std::string(text).size()));
    return text;
}

TEST_F(ppsdir, a_root_that_exists_stays) {
    EXPECT_NE(new_log_text().find("Created directory " + path + "?nopersist\n"), std::string::npos);
    lyr_ppsdir* again = lyr_ppsdir_makeroot(path.c_str(), &error);
    ASSERT_NE(again, nullptr);
    EXPECT_NE(new_log_text().find("Using existing directory " + path + "?nopersist\n"),
              std::string::npos);
    EXPECT_EQ(lyr_ppsdir_remove(again), 0);
    EXPECT_TRUE(exists(""));
}

TEST_F(ppsdir, builds_paths) {
    lyr_ppsdir* dir = lyr_ppsdir_create(root, "radio", 0777, &error);
    lyr_ppswriter* plain = lyr_ppswriter_create(dir, "state", -1, &error);
    lyr_ppswriter* first = lyr_ppswriter_create(dir, "state", 0, &error);
    lyr_ppswriter* many = lyr_ppswriter_create(dir, "state", 2147483647, &error);
    EXPECT_EQ(path_of(root), path);
    EXPECT_EQ(path_of(dir), path + "/radio");
    EXPECT_EQ(path_of(plain), path + "/radio/state");
    EXPECT_EQ(path_of(first), path + "/radio/state0");
    EXPECT_EQ(path_of(many), path + "/radio/state2147483647");
    EXPECT_TRUE(exists("/radio/state2147483647"));
    /* One byte too few for the NUL: the empty text and the whole length. */
    const std::string expected = path + "/radio";
    std::string small(expected.size() + 1, '#');
    EXPECT_EQ(lyr_ppsdir_getpath(dir, small.data(), expected.size()),
              static_cast<int32_t>(expected.size()));
    EXPECT_STREQ(small.c_str(), "");
    EXPECT_EQ(lyr_ppsdir_getpath(dir, small.data(), expected.size() + 1),
              static_cast<int32_t>(expected.size()));
    EXPECT_STREQ(small.c_str(), expected.c_str());
    EXPECT_EQ(lyr_ppsdir_getpath(dir, nullptr, 0), static_cast<int32_t>(expected.size()));
    EXPECT_EQ(lyr_ppsdir_getpath(nullptr, small.data(), small.size()), 0);
    EXPECT_STREQ(small.c_str(), "");
    EXPECT_EQ(lyr_ppsdir_getpath(nullptr, nullptr, 0), 0);
    for (lyr_ppswriter* object : {plain, first, many}) {
        lyr_ppswriter_close(object);
    }
}

TEST_F(ppsdir, removal_takes_strangers_files_and_leaves_what_was_there) {
    fs::create_directory(real_path(path) + "/old");
    plant_file(real_path(path) + "/old/kept", "x");
    lyr_ppsdir* old = lyr_ppsdir_create(root, "old", 0777, &error);
    lyr_ppsdir* fresh = lyr_ppsdir_create(root, "fresh", 0777, &error);
    lyr_ppsdir* below = lyr_ppsdir_create(fresh, "below", 0777, &error);
    lyr_ppswriter* object = lyr_ppswriter_create(below, "o", -1, &error);
    lyr_ppswriter* left = lyr_ppswriter_create(old, "left", -1, &error);
    lyr_ppswriter_close(object);
    lyr_ppswriter_close(left);
    plant_file(real_path(path) + "/fresh/dropped", "x");
    EXPECT_EQ(lyr_ppsdir_remove(fresh), 0);
    EXPECT_FALSE(exists("/fresh"));
    EXPECT_EQ(lyr_ppsdir_remove(old), 0);
    EXPECT_TRUE(exists("/old/kept"));
    EXPECT_FALSE(exists("/old/left")); /* our own object goes in any case */
}

TEST_F(ppsdir, removal_is_for_directories) {
    lyr_ppswriter* object = lyr_ppswriter_create(root, "object", -1, &error);
    for (int32_t refs = 1; refs >= 0; --refs) { /* also once it is closed */
        EXPECT_EQ(lyr_ppsdir_remove(object), EINVAL);
        EXPECT_TRUE(exists("/object"));
        lyr_ppswriter_close(object);
    }
    EXPECT_EQ(lyr_ppsdir_remove(nullptr), 0);
}

/* A tree with an existing directory inside one of ours ends its removal. */
TEST_F(ppsdir, removal_ends_with_existing_directories_below) {
    lyr_ppsdir* mine = lyr_ppsdir_create(root, "mine", 0777, &error);
    fs::create_directory(real_path(path) + "/mine/theirs");
    lyr_ppsdir* theirs = lyr_ppsdir_create(mine, "theirs", 0777, &error);
    lyr_ppswriter_close(lyr_ppswriter_create(theirs, "o", -1, &error));
    EXPECT_EQ(lyr_ppsdir_remove(mine), 0);
    EXPECT_FALSE(exists("/mine"));
}

TEST_F(ppsdir_death, a_directory_in_use_ends_the_process) {
    lyr_ppsdir* dir = lyr_ppsdir_create(root, "used", 0777, &error);
    lyr_ppswriter* object = lyr_ppswriter_create(dir, "state", -1, &error);
    const auto remove_with_echo = [](lyr_ppsdir* what) {
        background = 0;
        lyr_ppsdir_remove(what);
    };
    EXPECT_EXIT(remove_with_echo(dir), ::testing::ExitedWithCode(1),
                "Couldn't remove " + path + "/used -- still in use");
    EXPECT_EXIT(remove_with_echo(root), ::testing::ExitedWithCode(1),
                "Couldn't remove " + path + " -- still in use");
    lyr_ppswriter_close(object);
    lyr_ppswriter_close(object); /* a second close counts for nothing */
}

TEST_F(ppsdir_death, a_directory_that_cannot_be_made_ends_the_process) {
    const auto create_with_echo = [this](const char* name) {
        background = 0;
        lyr_ppsdir_create(root, name, 0777, &error);
    };
    EXPECT_EXIT(create_with_echo("a/b"), ::testing::ExitedWithCode(1),
                "Couldn't mkdir " + path + "/a/b\\?nopersist: No such file or directory");
    EXPECT_EXIT(create_with_echo(".."), ::testing::ExitedWithCode(1),
                "Couldn't mkdir " + path + "/..\\?nopersist: Invalid argument");
}
