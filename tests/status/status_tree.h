/* A root of published objects for one test. */
#ifndef TESTS_STATUS_TREE_H
#define TESTS_STATUS_TREE_H

#include <filesystem>
#include <string>

#include "msglog.h"
#include "pps_root.h"
#include "ppsdir.h"

/* Each test has a root of its own name. */
struct status_tree : ::testing::Test {
    std::string path;
    lyr_ppsdir* root = nullptr;
    int32_t error = 0;

    void SetUp() override {
        const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
        path = std::string("/pps/services/") + test->name();
        msglog_set_level(7);
        root = lyr_ppsdir_makeroot(path.c_str(), &error);
        ASSERT_NE(root, nullptr);
    }
    void TearDown() override { EXPECT_EQ(lyr_ppsdir_remove(root), 0); }

    std::string text_of(const std::string& object) const { return object_text(path + object); }
    bool exists(const std::string& name) const {
        return std::filesystem::exists(std::filesystem::symlink_status(real_path(path + name)));
    }
};

#endif
