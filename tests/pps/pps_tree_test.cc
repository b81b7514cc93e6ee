/* Directories: made, removed with whatever strangers put into them, never through a link. */
#include <sys/stat.h>

#include "pps_root.h"

namespace fs = std::filesystem;

/* A directory of the test's own, its real path, and one that nothing may happen to. */
struct pps_tree : ::testing::Test {
    std::string directory;
    std::string real;
    const std::string outside = real_path("/outside");

    void SetUp() override {
        directory = make_directory(::testing::UnitTest::GetInstance()->current_test_info()->name());
        real = real_path(directory);
        fs::create_directories(outside);
        plant_file(outside + "/precious", "kept");
    }
    void TearDown() override { EXPECT_EQ(file_text(outside + "/precious"), "kept"); }

    /* Fills a real directory with all that a stranger may leave there. */
    void litter(const std::string& place) const {
        plant_file(place + "/.hidden", "x");
        fs::create_symlink(outside, place + "/link");
        fs::create_directories(place + "/one/two/three");
        plant_file(place + "/one/two/file", "x");
        fs::create_symlink(outside, place + "/one/link");
        EXPECT_EQ(mkfifo((place + "/pipe").c_str(), 0600), 0);
    }
};

TEST_F(pps_tree, makes_directories_with_their_mode_less_the_mask) {
    const mode_t mask = umask(0);
    EXPECT_EQ(pps_mkdir("/pps/services/made?nopersist", 0777), 0);
    umask(mask);
    struct stat status;
    ASSERT_EQ(lstat(real_path("/pps/services/made").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0755));
    EXPECT_EQ(pps_mkdir("/pps/services/made", 0777), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(pps_mkdir("/pps/services/missing/below", 0777), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(pps_tree, removes_a_directory_with_all_in_it) {
    litter(real);
    EXPECT_EQ(pps_rmdir(directory.c_str()), 0);
    EXPECT_FALSE(fs::exists(real));
    EXPECT_TRUE(fs::is_empty(real_path("/pps/.stage")));
    EXPECT_EQ(pps_rmdir(directory.c_str()), 0); /* gone already */
    fs::create_symlink(outside, real);
    EXPECT_EQ(pps_rmdir(directory.c_str()), 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(real)));
}

TEST_F(pps_tree, clears_a_tree_and_keeps_its_top) {
    EXPECT_EQ(pps_clear_tree("/pps/services/never_made"), 0);
    for (int32_t i = 0; i < 300; ++i) {
        const std::string player = real + "/player" + std::to_string(i);
        fs::create_directory(player);
        plant_file(player + "/state", "@state\n");
    }
    litter(real + "/player7");
    EXPECT_EQ(pps_clear_tree(directory.c_str()), 0);
    EXPECT_TRUE(fs::is_empty(real));
}

/* Somebody nests directories far beyond what we follow: an error, nothing worse. */
TEST_F(pps_tree, does_not_follow_endless_nesting) {
    std::string below = real;
    for (int32_t i = 0; i < 200; ++i) {
        below += "/d";
    }
    fs::create_directories(below);
    EXPECT_EQ(pps_clear_tree(directory.c_str()), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(pps_rmdir(directory.c_str()), 0); /* the name is free at least */
    EXPECT_FALSE(fs::exists(real));
    fs::remove_all(real_path("/pps/.stage")); /* where it was set aside */
}
