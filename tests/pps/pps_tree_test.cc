/* Directories: made, removed with whatever strangers put into them, never through a link. */
#include <veloran/pps.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>

#include "pps_root.h"

namespace fs = std::filesystem;

/* Fills a real directory with all that a stranger may leave there. */
static void litter(const std::string& real, const std::string& outside) {
    plant_file(real + "/file", "x");
    plant_file(real + "/.hidden", "x");
    fs::create_symlink(outside, real + "/link");
    fs::create_directories(real + "/one/two/three");
    plant_file(real + "/one/two/file", "x");
    fs::create_symlink(outside, real + "/one/link");
    EXPECT_EQ(mkfifo((real + "/pipe").c_str(), 0600), 0);
}

static std::string make_outside() {
    const std::string outside = real_path("/outside");
    fs::create_directories(outside);
    plant_file(outside + "/precious", "kept");
    return outside;
}

TEST(pps_tree, makes_directories_with_their_mode) {
    const mode_t mask = umask(0);
    EXPECT_EQ(pps_mkdir("/pps/services/made?nopersist", 0777), 0);
    umask(mask);
    struct stat status;
    ASSERT_EQ(lstat(real_path("/pps/services/made").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0777));
    EXPECT_EQ(pps_mkdir("/pps/services/made", 0777), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(pps_mkdir("/pps/services/missing/below", 0777), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(pps_tree, removes_a_directory_with_all_in_it) {
    const std::string outside = make_outside();
    ASSERT_EQ(pps_mkdir("/pps/services/removed", 0777), 0);
    const std::string real = real_path("/pps/services/removed");
    litter(real, outside);
    EXPECT_EQ(pps_rmdir("/pps/services/removed"), 0);
    EXPECT_FALSE(fs::exists(real));
    EXPECT_EQ(file_text(outside + "/precious"), "kept");
    EXPECT_TRUE(fs::is_empty(real_path("/pps/.stage")));
    EXPECT_EQ(pps_rmdir("/pps/services/removed"), 0); /* gone already */
    fs::create_symlink(outside, real);
    EXPECT_EQ(pps_rmdir("/pps/services/removed"), 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(real)));
    EXPECT_EQ(file_text(outside + "/precious"), "kept");
}

TEST(pps_tree, clears_a_tree_and_keeps_its_top) {
    const std::string outside = make_outside();
    EXPECT_EQ(pps_clear_tree("/pps/services/never_made"), 0);
    ASSERT_EQ(pps_mkdir("/pps/services/cleared", 0777), 0);
    const std::string real = real_path("/pps/services/cleared");
    for (int32_t i = 0; i < 300; ++i) {
        fs::create_directory(real + "/player" + std::to_string(i));
        plant_file(real + "/player" + std::to_string(i) + "/state", "@state\n");
    }
    litter(real + "/player7", outside);
    EXPECT_EQ(pps_clear_tree("/pps/services/cleared"), 0);
    EXPECT_TRUE(fs::is_empty(real));
    EXPECT_EQ(file_text(outside + "/precious"), "kept");
}

/* Somebody nests directories far beyond what we follow: an error, nothing worse. */
TEST(pps_tree, does_not_follow_endless_nesting) {
    ASSERT_EQ(pps_mkdir("/pps/services/nested", 0777), 0);
    std::string below = real_path("/pps/services/nested");
    for (int32_t i = 0; i < 200; ++i) {
        below += "/d";
    }
    fs::create_directories(below);
    EXPECT_EQ(pps_clear_tree("/pps/services/nested"), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(pps_rmdir("/pps/services/nested"), 0); /* the name is free at least */
    EXPECT_FALSE(fs::exists(real_path("/pps/services/nested")));
    fs::remove_all(real_path("/pps/.stage")); /* where it was set aside */
}
