/* The browse half of the plug-in, through its table. */
#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "library.h"

namespace fs = std::filesystem;

/* One page as "type id" lines; -1 in *result and nothing when it failed. */
static std::vector<std::string> page(const library& lib, const char* id, int32_t offset,
                                     int32_t count, int32_t* result) {
    medianode* nodes = nullptr;
    int32_t delivered = count;
    *result = lib.api->browse_api->browse(lib.session, id, offset, &delivered, &nodes);
    std::vector<std::string> lines;
    if (*result != 0) {
        EXPECT_EQ(nodes, nullptr);
        return lines;
    }
    EXPECT_TRUE(count < 0 || delivered <= count);
    for (int32_t i = 0; i < delivered; ++i) {
        EXPECT_EQ(nodes[i].ms_id, 0);
        EXPECT_EQ(nodes[i].ms_type, LYR_MS_TYPE_HDD);
        EXPECT_EQ(nodes[i].ms_uid, host_sources()[0].uid);
        EXPECT_EQ(std::string(nodes[i].name), fs::path(nodes[i].id).filename().string());
        lines.push_back(std::to_string(nodes[i].type) + ' ' + nodes[i].id);
    }
    free_medianodes(&nodes, delivered);
    return lines;
}

/* All pages of a size, the way the service asks: until one comes back empty. */
static std::vector<std::string> walk(const library& lib, const char* id, int32_t size) {
    std::vector<std::string> all;
    for (;;) {
        int32_t result = 0;
        const auto lines = page(lib, id, static_cast<int32_t>(all.size()), size, &result);
        EXPECT_EQ(result, 0);
        if (lines.empty()) {
            return all;
        }
        all.insert(all.end(), lines.begin(), lines.end());
    }
}

TEST(files_browse, lists_folders_then_files_in_natural_order) {
    library lib;
    const char* folders[] = {"Disc 10", "disc 2", "Disc 1", "empty", ".hidden"};
    const char* files[] = {"10 z.mp3", "9 a.FLAC",   "B.ogg",           "a.mp4",
                           "a.mp3",    "01.mp3",     "1.mp3",           "001.mp3",
                           "x12y3.wv", "x012y20.wv", "cover.jpg",       ".a.mp3",
                           "noending", "mp3",        "bad\xFF\xFE.mp3", "99999999999999999999.mp3"};
    for (const char* name : folders) {
        fs::create_directories(lib.folder.path + '/' + name);
    }
    for (const char* name : files) {
        write_file(lib.folder.path + '/' + name, "");
    }
    write_file(lib.folder.path + "/Disc 10/one.mp3", "");
    start_library(&lib);
    const std::vector<std::string> expected = {"1 /Disc 1",   "1 /disc 2",
                                               "1 /Disc 10",  "1 /empty",
                                               "2 /001.mp3",  "2 /01.mp3",
                                               "2 /1.mp3",    "2 /9 a.FLAC",
                                               "2 /10 z.mp3", "2 /99999999999999999999.mp3",
                                               "2 /a.mp3",    "3 /a.mp4",
                                               "2 /B.ogg",    "2 /bad\xFF\xFE.mp3",
                                               "2 /x12y3.wv", "2 /x012y20.wv"};
    EXPECT_EQ(walk(lib, "/", -1), expected);
    for (const int32_t size : {1, 2, 3, 7, 100}) {
        EXPECT_EQ(walk(lib, "/", size), expected) << size;
    }
    EXPECT_EQ(walk(lib, "/Disc 10", -1), std::vector<std::string>{"2 /Disc 10/one.mp3"});
    EXPECT_TRUE(walk(lib, "/empty", -1).empty());

    medianode* nodes = nullptr;
    int32_t count = 3;
    ASSERT_EQ(lib.api->browse_api->browse(lib.session, "/", 2, &count, &nodes), 0);
    ASSERT_EQ(count, 3);
    EXPECT_EQ(nodes[0].count, 1) << "children of Disc 10";
    EXPECT_EQ(nodes[1].count, 0);
    EXPECT_EQ(std::string(nodes[0].url), "file://" + lib.folder.path + "/Disc%2010");
    free_medianodes(&nodes, count);
    close_library(&lib);
}

TEST(files_browse, pages_a_large_folder) {
    library lib;
    constexpr int FILES = 2500;
    for (int i = 0; i < FILES; ++i) {
        write_file(lib.folder.path + '/' + std::to_string(i) + ".mp3", "");
    }
    start_library(&lib);
    std::vector<std::string> expected;
    for (int i = 0; i < FILES; ++i) {
        expected.push_back("2 /" + std::to_string(i) + ".mp3");
    }
    EXPECT_EQ(walk(lib, "/", -1), expected);
    EXPECT_EQ(walk(lib, "/", 999), expected);
    /* A new walk sees a change, one under way does not. */
    int32_t result = 0;
    EXPECT_EQ(page(lib, "/", 0, 1, &result), std::vector<std::string>{expected[0]});
    fs::remove(lib.folder.path + "/0.mp3");
    EXPECT_EQ(page(lib, "/", 1, 1, &result), std::vector<std::string>{expected[1]});
    EXPECT_EQ(page(lib, "/", 0, 1, &result), std::vector<std::string>{expected[1]});
    close_library(&lib);
}

TEST(files_browse, never_leaves_the_source) {
    library lib;
    const temporary_folder outside;
    write_file(outside.path + "/secret.mp3", "x");
    write_file(lib.folder.path + "/in/song.mp3", "x");
    fs::create_symlink(outside.path, lib.folder.path + "/out");
    fs::create_symlink(outside.path + "/secret.mp3", lib.folder.path + "/out.mp3");
    fs::create_symlink("in/song.mp3", lib.folder.path + "/inside.mp3");
    fs::create_symlink("../..", lib.folder.path + "/in/up");
    fs::create_symlink(".", lib.folder.path + "/loop");
    fs::create_symlink("gone.mp3", lib.folder.path + "/gone-link.mp3");
    ASSERT_EQ(mkfifo((lib.folder.path + "/pipe.mp3").c_str(), 0600), 0);
    start_library(&lib);
    EXPECT_EQ(walk(lib, "/", -1), (std::vector<std::string>{"1 /in", "2 /inside.mp3"}));
    EXPECT_EQ(walk(lib, "/in", -1), std::vector<std::string>{"2 /in/song.mp3"});

    const std::string up = "/../" + fs::path(outside.path).filename().string();
    const std::string up_file = up + "/secret.mp3";
    const std::string deep = '/' + std::string(5000, 'x');
    const std::string long_name = '/' + std::string(300, 'x') + "/y";
    void* play = lib.api->play_api->create(0, nullptr);
    ASSERT_NE(play, nullptr);
    for (const char* id : {static_cast<const char*>(nullptr),
                           "",
                           "in",
                           "//",
                           "/in/",
                           "/.",
                           "/..",
                           "/in/../in",
                           "/in/..",
                           "/../",
                           up.c_str(),
                           up_file.c_str(),
                           "/out",
                           "/out/secret.mp3",
                           "/out.mp3",
                           "/in/up",
                           "/in/up/etc",
                           "/gone",
                           "/gone-link.mp3",
                           "/in//song.mp3",
                           "/in/song.mp3/x",
                           deep.c_str(),
                           long_name.c_str(),
                           "/pipe.mp3",
                           "/etc"}) {
        SCOPED_TRACE(id != nullptr ? std::string(id).substr(0, 40) : "null");
        int32_t result = 0;
        page(lib, id, 0, -1, &result);
        EXPECT_EQ(result, -1);
        metadata* data = nullptr;
        EXPECT_EQ(lib.api->browse_api->get_metadata(lib.session, id, &data), -1);
        EXPECT_EQ(data, nullptr);
        medianode node = {};
        node.id = const_cast<char*>(id); // NOLINT: borrowed by the call
        node.type = LYR_NODE_AUDIO;
        EXPECT_EQ(lib.api->play_api->attach_medianode(play, &node), -1);
    }
    EXPECT_EQ(lib.api->play_api->destroy(play), 0);
    close_library(&lib);
}

TEST(files_browse, refuses_senseless_numbers) {
    library lib;
    write_file(lib.folder.path + "/a.mp3", "");
    start_library(&lib);
    struct {
        int32_t offset, count, result;
        size_t delivered;
    } const cases[] = {{-1, 1, -1, 0}, {0, -2, -1, 0},       {0, 0, 0, 0},         {0, 1, 0, 1},
                       {1, 1, 0, 0},   {INT32_MAX, 5, 0, 0}, {0, INT32_MAX, 0, 1}, {0, -1, 0, 1}};
    for (const auto& test : cases) {
        int32_t result = 0;
        EXPECT_EQ(page(lib, "/", test.offset, test.count, &result).size(), test.delivered);
        EXPECT_EQ(result, test.result) << test.offset << ' ' << test.count;
    }
    close_library(&lib);
}

TEST(files_browse, reads_tags) {
    library lib;
    const std::vector<std::string> tags = {"title=Fl\xC3\xB6te",
                                           "artist=Some One",
                                           "album=\xE9\x9F\xB3",
                                           "genre=Jazz",
                                           "date=1999",
                                           "track=7",
                                           "disc=2"};
    const char* names[] = {"/a.flac", "/a.ogg", "/a.mp3", "/a.m4a", "/bad\xFF.flac"};
    for (const char* name : names) {
        make_track(lib.folder.path + name, 440, 1500, tags);
    }
    make_track(lib.folder.path + "/plain.name.flac", 440, 500);
    write_file(lib.folder.path + "/broken.mp3", std::string(20000, '\x5A'));
    write_file(lib.folder.path + "/broken.flac", "fLaC\xFF\xFF\xFF\xFF\xFF");
    write_file(lib.folder.path + "/empty.ogg", "");
    write_file(lib.folder.path + "/film.mkv", "");
    start_library(&lib);
    for (const char* name : names) {
        SCOPED_TRACE(name);
        metadata* data = nullptr;
        ASSERT_EQ(lib.api->browse_api->get_metadata(lib.session, name, &data), 0);
        ASSERT_NE(data, nullptr);
        EXPECT_STREQ(data->title, "Fl\xC3\xB6te");
        EXPECT_STREQ(data->artist, "Some One");
        EXPECT_STREQ(data->album, "\xE9\x9F\xB3");
        EXPECT_STREQ(data->genre, "Jazz");
        EXPECT_STREQ(data->year, "1999");
        EXPECT_EQ(data->track, 7);
        EXPECT_EQ(data->disc, 2);
        EXPECT_NEAR(data->duration, 1500, 100);
        EXPECT_EQ(data->artwork, nullptr);
        free_metadata(&data);
    }
    struct {
        const char *id, *title;
    } const untagged[] = {{"/plain.name.flac", "plain.name"},
                          {"/broken.mp3", "broken"},
                          {"/broken.flac", "broken"},
                          {"/empty.ogg", "empty"},
                          {"/film.mkv", "film"}};
    for (const auto& test : untagged) {
        metadata* data = nullptr;
        ASSERT_EQ(lib.api->browse_api->get_metadata(lib.session, test.id, &data), 0);
        ASSERT_NE(data, nullptr);
        EXPECT_STREQ(data->title, test.title);
        EXPECT_EQ(data->artist, nullptr);
        EXPECT_EQ(data->year, nullptr);
        free_metadata(&data);
    }
    metadata* data = nullptr;
    EXPECT_EQ(lib.api->browse_api->get_metadata(lib.session, "/", &data), 0);
    EXPECT_EQ(data, nullptr) << "a folder has none";
    close_library(&lib);
}

TEST(files_browse, brings_saved_nodes_up_to_date) {
    library lib;
    write_file(lib.folder.path + "/here 1.mp3", "");
    start_library(&lib);
    medianode nodes[3] = {};
    nodes[0].id = strdup("/here 1.mp3");
    nodes[0].url = strdup("file:///old/place");
    nodes[0].type = LYR_NODE_AUDIO;
    nodes[1].id = strdup("/gone.mp3");
    nodes[1].url = strdup("file:///gone.mp3");
    nodes[1].ms_uid = strdup("old");
    nodes[1].type = LYR_NODE_AUDIO;
    for (medianode& node : nodes) {
        node.ms_id = 17;
    }
    EXPECT_EQ(lib.api->browse_api->update_medianodes(lib.session, 3, nodes), 0);
    EXPECT_EQ(std::string(nodes[0].url), "file://" + lib.folder.path + "/here%201.mp3");
    EXPECT_STREQ(nodes[1].url, "file:///gone.mp3") << "as it was";
    EXPECT_STREQ(nodes[1].id, "/gone.mp3");
    for (medianode& node : nodes) {
        EXPECT_EQ(node.ms_id, 0);
        EXPECT_EQ(std::string(node.ms_uid), host_sources()[0].uid);
        free_medianode_contents(&node);
    }
    close_library(&lib);
}

TEST(files_browse, cancel_ends_the_calls_in_progress_only) {
    library lib;
    for (int i = 0; i < 1000; ++i) {
        write_file(lib.folder.path + '/' + std::to_string(i) + ".mp3", "");
    }
    start_library(&lib);
    EXPECT_EQ(lib.api->browse_api->cancel_browse(lib.session), 0);
    EXPECT_EQ(walk(lib, "/", -1).size(), 1000U) << "a cancel from before counts for nothing";
    std::atomic<bool> cancelled{false};
    std::thread browser([&] {
        int32_t result = 0;
        while (result == 0) {
            page(lib, "/", 0, -1, &result);
        }
        cancelled = true;
    });
    while (!cancelled) {
        lib.api->browse_api->cancel_browse(lib.session);
        std::this_thread::yield();
    }
    browser.join();
    EXPECT_EQ(walk(lib, "/", -1).size(), 1000U);
    close_library(&lib);
}

TEST(files_browse, two_threads_use_one_session) {
    library lib;
    for (int folder = 0; folder < 8; ++folder) {
        for (int file = 0; file < 40; ++file) {
            write_file(lib.folder.path + '/' + std::to_string(folder) + '/' + std::to_string(file) +
                           ".mp3",
                       "");
        }
    }
    start_library(&lib);
    const auto work = [&lib](int first) {
        for (int round = 0; round < 6; ++round) {
            for (int i = 0; i < 8; ++i) {
                const std::string id = '/' + std::to_string((first + i) % 8);
                EXPECT_EQ(walk(lib, id.c_str(), 7).size(), 40U);
            }
            metadata* data = nullptr;
            EXPECT_EQ(lib.api->browse_api->get_metadata(lib.session, "/0/1.mp3", &data), 0);
            free_metadata(&data);
        }
    };
    std::thread other(work, 0);
    work(3);
    other.join();
    close_library(&lib);
}

/* --- sources -------------------------------------------------------------------------------- */

TEST(files_sources, reports_the_folders_that_exist) {
    const temporary_folder base;
    const std::string odd = base.path + "/a:b\\c";
    fs::create_directories(odd);
    fs::create_directories(base.path + "/Music");
    fs::create_directories(base.path + "/music");
    write_file(base.path + "/file", "");
    const std::string folders = base.path + "//Music/:" + base.path +
                                "/Music:relative::" + base.path + "/a\\:b\\\\c:" + base.path +
                                "/music:" + base.path + "/gone:" + base.path + "/file";
    const lyrp_api* api = host_start({{"folders", folders}, {"update_interval", "garbage"}});
    /* A client may ask for the source before the plug-in has been told its id. */
    host_on_connected([api](int32_t id) {
        EXPECT_EQ(api->play_api->create(id + 100, nullptr), nullptr) << "another plug-in's";
        void* browse = api->browse_api->create(id, nullptr);
        void* play = api->play_api->create(id, nullptr);
        ASSERT_NE(browse, nullptr);
        ASSERT_NE(play, nullptr);
        medianode* nodes = nullptr;
        int32_t count = 1;
        EXPECT_EQ(api->browse_api->browse(browse, "/", 0, &count, &nodes), 0);
        EXPECT_EQ(api->browse_api->create(id + 1, nullptr), nullptr);
        EXPECT_EQ(api->play_api->destroy(play), 0);
        EXPECT_EQ(api->browse_api->destroy(browse), 0);
    });
    EXPECT_EQ(api->set_mediasource_detection(1), 0);
    EXPECT_EQ(api->set_mediasource_detection(1), 0) << "twice is once";
    auto sources = host_sources();
    ASSERT_EQ(sources.size(), 3U);
    const std::string names[] = {"Music", "a:b\\c", "music"};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(sources[i].name, names[i]);
        EXPECT_EQ(sources[i].view_name, base.path + '/' + names[i]);
        EXPECT_EQ(sources[i].type, LYR_MS_TYPE_HDD);
        EXPECT_EQ(sources[i].capabilities, UINT64_C(0xF0413));
    }
    EXPECT_NE(sources[0].uid, sources[2].uid);
    EXPECT_EQ(api->browse_api->create(3, nullptr), nullptr);
    EXPECT_EQ(api->play_api->create(-1, nullptr), nullptr);

    /* Off and on again: reported anew, with the same uids, and usable. */
    host_on_connected(nullptr);
    EXPECT_EQ(api->set_mediasource_detection(0), 0);
    EXPECT_EQ(api->set_mediasource_detection(1), 0);
    sources = host_sources();
    ASSERT_EQ(sources.size(), 6U);
    EXPECT_EQ(sources[5].uid, sources[2].uid);
    void* session = api->browse_api->create(sources[5].id, nullptr);
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(api->browse_api->destroy(session), 0);
    host_stop();

    /* The library stays in memory; nothing of the last run is left in it. */
    api = host_start({});
    EXPECT_EQ(api->set_mediasource_detection(1), 0);
    EXPECT_TRUE(host_sources().empty());
    EXPECT_EQ(api->browse_api->create(0, nullptr), nullptr);
    host_stop();
}
