/* Configured folders that are there, come late and go away, and the browse half of the plug-in,
 * through its tables. */
#include <filesystem>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "library.h"

namespace fs = std::filesystem;

TEST(files_browse, lists_folders_then_files_in_natural_order) {
    library lib;
    for (const char* name : {"Disc 10", "disc 2", "Disc 1", "empty", ".hidden"}) {
        fs::create_directories(lib.folder.path + '/' + name);
    }
    for (const char* name :
         {"10 z.mp3", "9 a.FLAC", "B.ogg", "a.mp4", "a.mp3", "01.mp3", "1.mp3", "001.mp3",
          "x12y3.wv", "x012y20.wv", "cover.jpg", ".a.mp3", "noending", "mp3", "bad\xFF\xFE.mp3",
          "99999999999999999999.mp3", "Disc 10/one.mp3"}) {
        add(lib, std::string("/") + name, "");
    }
    start_library(&lib);
    const lines expected = {"/Disc 1|Disc 1|0",
                            "/disc 2|disc 2|0",
                            "/Disc 10|Disc 10|1",
                            "/empty|empty|0",
                            "/001.mp3",
                            "/01.mp3",
                            "/1.mp3",
                            "/9 a.FLAC",
                            "/10 z.mp3",
                            "/99999999999999999999.mp3",
                            "/a.mp3",
                            "/a.mp4 (video)",
                            "/B.ogg",
                            "/bad\xFF\xFE.mp3",
                            "/x12y3.wv",
                            "/x012y20.wv"};
    for (const int32_t size : {-1, 1, 3, INT32_MAX}) {
        EXPECT_EQ(walk(lib, "/", size), expected) << size;
    }
    EXPECT_EQ(walk(lib, "/Disc 10"), lines{"/Disc 10/one.mp3"});
    EXPECT_EQ(walk(lib, "/empty"), lines{});
}

TEST(files_browse, never_leaves_the_source) {
    library lib;
    const temporary_folder outside;
    write_file(outside.path + "/secret.mp3", "x");
    add(lib, "/in/song.mp3", "x");
    fs::create_symlink(outside.path, lib.folder.path + "/out");
    fs::create_symlink(outside.path + "/secret.mp3", lib.folder.path + "/out.mp3");
    fs::create_symlink("in/song.mp3", lib.folder.path + "/inside.mp3");
    fs::create_symlink("../..", lib.folder.path + "/in/up");
    fs::create_symlink(".", lib.folder.path + "/loop");
    fs::create_symlink("gone.mp3", lib.folder.path + "/gone-link.mp3");
    ASSERT_EQ(mkfifo((lib.folder.path + "/pipe.mp3").c_str(), 0600), 0);
    start_library(&lib);
    EXPECT_EQ(walk(lib, "/"), (lines{"/in|in|1", "/inside.mp3"}));
    EXPECT_EQ(walk(lib, "/in"), lines{"/in/song.mp3"});

    EXPECT_EQ(browse(lib, nullptr), FAILED);
    const std::string up = "/../" + fs::path(outside.path).filename().string();
    const lines strange = {"",
                           "in",
                           "//",
                           "/in/",
                           "/.",
                           "/in/../in",
                           "/in/..",
                           up,
                           up + "/secret.mp3",
                           "/out",
                           "/out/secret.mp3",
                           "/out.mp3",
                           "/in/up",
                           "/in/up/etc",
                           "/gone",
                           "/gone-link.mp3",
                           "/in//song.mp3",
                           "/in/song.mp3/x",
                           '/' + std::string(5000, 'x'),
                           '/' + std::string(300, 'x') + "/y",
                           "/pipe.mp3",
                           "/etc"};
    for (const std::string& id : strange) {
        SCOPED_TRACE(id.substr(0, 40));
        EXPECT_EQ(browse(lib, id.c_str()), FAILED);
        metadata* data = nullptr;
        EXPECT_EQ(lib.api->browse_api->get_metadata(lib.session, id.c_str(), &data), -1);
        EXPECT_EQ(data, nullptr);
        EXPECT_EQ(attach(lib, id), -1);
    }
}

/* --- sources -------------------------------------------------------------------------------- */

TEST(files_folders, are_reported_when_they_exist) {
    library lib;
    const std::string& base = lib.folder.path;
    for (const char* name : {"/Music", "/music", "/a:b\\c"}) {
        fs::create_directories(base + name);
    }
    add(lib, "/file", "");
    lib.api = host_start(
        {{"folders", base + "//Music/:" + base + "/Music:relative::" + base +
                         "/a\\:b\\\\c:" + base + "/music:" + base + "/gone:" + base + "/file"},
         {"update_interval", "garbage"}});
    /* A client may ask for the source before the plug-in has been told its id. */
    host_on_source([&lib](int32_t id) {
        EXPECT_EQ(lib.api->play_api->create(id + 100, nullptr), nullptr) << "another plug-in's";
        open_sessions(&lib, id);
        EXPECT_NE(browse(lib, "/"), FAILED);
        EXPECT_EQ(lib.api->browse_api->create(id + 1, nullptr), nullptr);
        close_sessions(&lib);
    });
    EXPECT_EQ(lib.api->set_mediasource_detection(1), 0);
    EXPECT_EQ(lib.api->set_mediasource_detection(1), 0) << "twice is once";
    const auto first = host_now().sources;
    ASSERT_EQ(first.size(), 3U);
    const std::string names[] = {"Music", "a:b\\c", "music"};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(first[i].name, names[i]);
        EXPECT_EQ(first[i].view_name, base + '/' + names[i]);
        EXPECT_EQ(first[i].type, LYR_MS_TYPE_HDD);
    }
    EXPECT_NE(first[0].uid, first[2].uid);
    host_on_source(nullptr);
    close_library(&lib);

    /* The library stays in memory; nothing of the last run is left in it. */
    start_plugin(&lib, {});
    EXPECT_TRUE(host_now().sources.empty());
    EXPECT_EQ(lib.api->browse_api->create(0, nullptr), nullptr);
}

TEST(files_folders, may_come_late_and_go_away) {
    library lib;
    const std::string& base = lib.folder.path;
    const std::string root = base + "/a/b/Music";
    fs::create_directories(base + "/elsewhere/Music");
    start_plugin(&lib, {{"folders", root + ':' + base + "/elsewhere"}});
    ASSERT_TRUE(host_wait_sources(1));
    /* Each step makes the folder be there, and the next takes it away again. */
    const std::function<void()> steps[] = {
        [&] { fs::create_directories(root); },
        [&] { fs::remove(root); },
        [&] { fs::create_directory(root); },
        [&] { fs::rename(base + "/a", base + "/x"); },
        [&] { fs::rename(base + "/x", base + "/a"); },
        [&] { fs::remove_all(base + "/a"); },
        [&] {
            fs::create_directory_symlink("elsewhere", base + "/link");
            fs::create_directories(base + "/a");
            fs::create_directory_symlink("../link/../link", base + "/a/b");
        },
        [&] { fs::remove(base + "/link"); },
        [&] { fs::create_directory_symlink(base + "/elsewhere/.", base + "/link"); },
        [&] { fs::rename(base + "/elsewhere/Music", base + "/elsewhere/x"); },
        [&] { fs::rename(base + "/elsewhere/x", base + "/elsewhere/Music"); },
    };
    std::string uid;
    for (size_t i = 0; i < std::size(steps); ++i) {
        SCOPED_TRACE(i);
        steps[i]();
        ASSERT_TRUE(host_wait_sources(i % 2 == 0 ? 2 : 1));
        if (i % 2 == 0) {
            const host_source source = host_now().connected.rbegin()->second;
            uid = uid.empty() ? source.uid : uid;
            EXPECT_EQ(source.uid, uid);
            EXPECT_EQ(source.name, "Music");
            EXPECT_EQ(source.view_name, root);
        }
    }
    /* Nothing is reported once detection is off; what has happened then, when it is on again. */
    ASSERT_EQ(lib.api->set_mediasource_detection(0), 0);
    fs::remove(base + "/link");
    EXPECT_EQ(host_now().connected.size(), 2U);
    ASSERT_EQ(lib.api->set_mediasource_detection(1), 0);
    EXPECT_TRUE(host_wait_sources(1));
}
