/* Configured folders that come late and go away, through the plug-in's table. */
#include <filesystem>

#include <gtest/gtest.h>

#include "host.h"
#include "media_files.h"

namespace fs = std::filesystem;

namespace {

using connected = std::map<int32_t, host_source>;

bool wait_count(size_t count) {
    return host_wait_connected([count](const connected& now) { return now.size() == count; });
}

} // namespace

TEST(files_folders, may_come_late_and_go_away) {
    const temporary_folder base;
    const std::string root = base.path + "/a/b/Music";
    fs::create_directories(base.path + "/elsewhere/Music");
    const lyrp_api* api = host_start({{"folders", root + ':' + base.path + "/elsewhere"}});
    ASSERT_EQ(api->set_mediasource_detection(1), 0);
    ASSERT_TRUE(wait_count(1));
    /* Each step makes the folder be there, and the next takes it away again. */
    const std::function<void()> steps[] = {
        [&] { fs::create_directories(root); },
        [&] { fs::remove(root); },
        [&] { fs::create_directory(root); },
        [&] { fs::rename(base.path + "/a", base.path + "/x"); },
        [&] { fs::rename(base.path + "/x", base.path + "/a"); },
        [&] { fs::remove_all(base.path + "/a"); },
        [&] {
            fs::create_directory_symlink("elsewhere", base.path + "/link"),
                fs::create_directories(base.path + "/a"),
                fs::create_directory_symlink("../link/../link", base.path + "/a/b");
        },
        [&] { fs::remove(base.path + "/link"); },
        [&] { fs::create_directory_symlink(base.path + "/elsewhere/.", base.path + "/link"); },
        [&] { fs::rename(base.path + "/elsewhere/Music", base.path + "/elsewhere/x"); },
        [&] { fs::rename(base.path + "/elsewhere/x", base.path + "/elsewhere/Music"); },
    };
    std::string uid;
    for (size_t i = 0; i < std::size(steps); ++i) {
        SCOPED_TRACE(i);
        steps[i]();
        ASSERT_TRUE(wait_count(i % 2 == 0 ? 2 : 1));
        if (i % 2 == 0) {
            const host_source source = host_connected().rbegin()->second;
            uid = uid.empty() ? source.uid : uid;
            EXPECT_EQ(source.uid, uid);
            EXPECT_EQ(source.name, "Music");
            EXPECT_EQ(source.view_name, root);
        }
    }
    /* Nothing is reported once detection is off; what has happened then, when it is on again. */
    ASSERT_EQ(api->set_mediasource_detection(0), 0);
    fs::remove(base.path + "/link");
    EXPECT_EQ(host_connected().size(), 2U);
    ASSERT_EQ(api->set_mediasource_detection(1), 0);
    EXPECT_TRUE(wait_count(1));
    host_stop();
}
