/* The index of a source: searching, keeping up with changes, and all that may happen to it. */
#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include <gtest/gtest.h>
#include <sys/mount.h>

#include "library.h"

namespace fs = std::filesystem;

/* Waits until a search finds this: after each look at the source it may. */
static bool comes_to_find(const library& lib, const char* key, const lines& expected) {
    for (int32_t looks = host_log_count("is indexed");; ++looks) {
        if (search(lib, nullptr, key) == expected) {
            return true;
        }
        if (!host_log_wait("is indexed", looks + 1)) {
            return false;
        }
    }
}

TEST(files_index, finds_by_words) {
    library lib;
    add(lib, "/a/1 First.mp3", tagged_file("Fl\xC3\xB6tenkonzert", "AC/DC", "Blue", "Jazz"));
    add(lib, "/a/2.mp3", tagged_file("Red \"Hot\" Blue", "Nobody", "Other", "Acid-Jazz"));
    add(lib, "/a/3.mp3", tagged_file("\xD0\x9F\xD0\xB5\xD1\x81\xD0\xBD\xD1\x8F"));
    add(lib, "/b/first last.mp3", tagged_file("Second", "Nobody", "Blue"));
    add(lib, "/bad\xFF\xFE name.mp3", "");
    add(lib, "/cover.jpg", "");
    add(lib, "/.hidden.mp3", tagged_file("Red"));
    add(lib, "/list.m3u", "first\n");
    open_library(&lib);
    const std::string too_long(1025, 'x');
    std::string many;
    for (int i = 0; i < 400; ++i) {
        many += "b ";
    }
    struct {
        const char *filter, *key;
        lines found;
    } const cases[] = {
        {nullptr, "flote", {"/a/1 First.mp3"}},
        {"", "FL\xC3\x96T", {"/a/1 First.mp3"}},
        {nullptr, "fl\xC3\xB6tenkonzert ac/dc", {"/a/1 First.mp3"}},
        {nullptr, "otenkonzert", {}},
        {nullptr, "\xD0\xBF\xD0\x95\xD0\xA1", {"/a/3.mp3"}},
        {"title", "blue", {"/a/2.mp3"}},
        {"album", "blue", {"/a/1 First.mp3", "/b/first last.mp3"}},
        {"genre", "acid-j", {"/a/2.mp3"}},
        {"name", "FIRST", {"/a/1 First.mp3", "/b/first last.mp3"}},
        {"name", "first last.mp3", {"/b/first last.mp3"}},
        {nullptr, "nobody blue", {"/a/2.mp3", "/b/first last.mp3"}},
        {nullptr, "ac/x", {}},
        {nullptr, " \t first \n", {"/a/1 First.mp3", "/b/first last.mp3"}},
        {nullptr, "bad", {"/bad\xFF\xFE name.mp3"}},
        {"album", many.c_str(), {"/a/1 First.mp3", "/b/first last.mp3"}},
        /* Nothing that a user writes is a command. */
        {nullptr, "", {}},
        {nullptr, "\"hot\"", {"/a/2.mp3"}},
        {nullptr, "hot\" OR \"second", {}},
        {nullptr, "* ( ) - + ^", {}},
        {nullptr, "title:red", {}},
        {nullptr, "red \xE2\x80\x93 hot", {"/a/2.mp3"}},
        {nullptr, "\xFF", {}},
        {"year", "blue", FAILED},
        {nullptr, too_long.c_str(), FAILED},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(search(lib, test.filter, test.key), test.found) << test.key;
    }
    EXPECT_EQ(host_log_count("is made anew"), 0);
}

TEST(files_index, pages_a_large_folder) {
    library lib;
    lines all;
    for (int i = 0; i < 2300; ++i) {
        all.push_back("/x" + std::to_string(i) + ".mp3");
        add(lib, all.back(), "");
    }
    open_library(&lib);
    for (const int32_t size : {-1, 999}) {
        EXPECT_EQ(walk(lib, "/", size), all);
        const lines found =
            walk([&](int32_t offset) { return search(lib, "name", "x", offset, size); });
        EXPECT_EQ(found.size(), all.size());
        EXPECT_EQ(std::set<std::string>(found.begin(), found.end()),
                  std::set<std::string>(all.begin(), all.end()));
    }
    EXPECT_EQ(search(lib, nullptr, "x", INT32_MAX), lines{});
    /* A new walk sees a change, one under way does not. */
    EXPECT_EQ(browse(lib, "/", 0, 1), lines{all[0]});
    fs::remove(lib.folder.path + all[0]);
    EXPECT_EQ(browse(lib, "/", 1, 1), lines{all[1]});
    EXPECT_EQ(browse(lib, "/", 0, 1), lines{all[1]});

    const std::function<lines()> calls[] = {[&lib] { return search(lib, nullptr, "x"); },
                                            [&lib] { return browse(lib, "/"); }};
    for (const auto& call : calls) {
        std::atomic<bool> cancelled{false};
        std::thread caller([&] {
            while (call() != FAILED) {
            }
            cancelled = true;
        });
        while (!cancelled) {
            lib.api->browse_api->cancel_browse(lib.session);
            std::this_thread::yield();
        }
        caller.join();
        EXPECT_EQ(call().size(), 1000U) << "a cancel from before counts for nothing";
    }
}

TEST(files_index, follows_changes) {
    library lib;
    add(lib, "/a/1.mp3", tagged_file("Apple"));
    add(lib, "/a/b/2.mp3", tagged_file("Banana"));
    add(lib, "/a/bb/2.mp3", tagged_file("Blueberry"));
    open_library(&lib);
    add(lib, "/a/new/3.mp3", tagged_file("Cherry"));
    EXPECT_TRUE(comes_to_find(lib, "cherry", {"/a/new/3.mp3"}));
    add(lib, "/a/1.mp3", tagged_file("Grape"));
    EXPECT_TRUE(comes_to_find(lib, "grape", {"/a/1.mp3"}));
    EXPECT_EQ(search(lib, nullptr, "apple"), lines{});
    fs::rename(lib.folder.path + "/a/b", lib.folder.path + "/c");
    EXPECT_TRUE(comes_to_find(lib, "banana", {"/c/2.mp3"}));
    EXPECT_EQ(search(lib, nullptr, "blueberry"), lines{"/a/bb/2.mp3"});
    fs::remove_all(lib.folder.path + "/a/new");
    EXPECT_TRUE(comes_to_find(lib, "cherry", {}));
    fs::rename(lib.folder.path + "/c", lib.folder.path + "/.c");
    EXPECT_TRUE(comes_to_find(lib, "banana", {}));
}

TEST(files_index, remembers_what_was_read) {
    library lib;
    for (const char* name : {"a", "b", "c", "d"}) {
        add(lib, std::string("/x/") + name + ".mp3", tagged_file(std::string("Title ") + name));
    }
    open_library(&lib);
    EXPECT_EQ(host_log_count("4 tracks, 4 read, 0 gone"), 1);
    close_library(&lib);
    open_library(&lib);
    EXPECT_EQ(host_log_count("4 tracks, 0 read, 0 gone"), 1);
    close_library(&lib);

    /* While nobody looks: an older file in the place of one, of the same size; one more; one less;
     * one that moves. */
    add(lib, "/x/a.mp3", tagged_file("Older a"));
    fs::last_write_time(lib.folder.path + "/x/a.mp3",
                        fs::file_time_type::clock::now() - std::chrono::hours(1000));
    add(lib, "/x/e.mp3", tagged_file("Title e"));
    fs::remove(lib.folder.path + "/x/b.mp3");
    fs::create_directories(lib.folder.path + "/y");
    fs::rename(lib.folder.path + "/x/c.mp3", lib.folder.path + "/y/moved c.mp3");
    start_library(&lib);
    /* A saved track is found where it is now; one that is gone stays what it was. The first look is
     * waited for, but not for ever: it may take longer on a busy machine. */
    medianode nodes[2] = {};
    nodes[0].id = strdup("/x/c.mp3");
    nodes[0].name = strdup("c.mp3");
    nodes[1].id = strdup("/x/b.mp3");
    nodes[1].url = strdup("file:///as/it/was");
    nodes[1].ms_uid = strdup("old");
    nodes[1].ms_id = 17;
    EXPECT_EQ(lib.api->browse_api->update_medianodes(lib.session, 2, nodes), 0);
    ASSERT_TRUE(host_log_wait("4 tracks, 3 read, 2 gone", 1));
    EXPECT_EQ(lib.api->browse_api->update_medianodes(lib.session, 2, nodes), 0);
    EXPECT_STREQ(nodes[0].id, "/y/moved c.mp3");
    EXPECT_STREQ(nodes[0].name, "moved c.mp3");
    EXPECT_EQ(nodes[0].url, "file://" + lib.folder.path + "/y/moved%20c.mp3");
    EXPECT_STREQ(nodes[1].id, "/x/b.mp3");
    EXPECT_STREQ(nodes[1].url, "file:///as/it/was");
    for (medianode& node : nodes) {
        EXPECT_EQ(node.ms_id, 0);
        EXPECT_EQ(node.ms_uid, host_now().sources[0].uid);
        free_medianode_contents(&node);
    }
    EXPECT_EQ(search(lib, nullptr, "older"), lines{"/x/a.mp3"});
    EXPECT_EQ(search(lib, nullptr, "title"), (lines{"/x/d.mp3", "/x/e.mp3", "/y/moved c.mp3"}));
}

/* The file of the only index. */
static std::string database(const library& lib) {
    for (const auto& entry : fs::directory_iterator(lib.cache.path + "/index")) {
        if (entry.path().extension() == ".db") {
            return entry.path();
        }
    }
    ADD_FAILURE() << "there is no index";
    return "";
}

TEST(files_index, is_made_anew) {
    library lib;
    for (int i = 0; i < 300; ++i) {
        add(lib, "/x" + std::to_string(i) + ".mp3", tagged_file("Title " + std::to_string(i)));
    }
    open_library(&lib);
    close_library(&lib);
    const std::string path = database(lib);
    const auto size = fs::file_size(path);
    const auto patch = [&path](std::streamoff at, const std::string& bytes) {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(at);
        file << bytes;
    };
    struct {
        const char* what;
        std::function<void()> damage;
        const char* said;
    } const cases[] = {
        {"text", [&] { write_file(path, std::string(5000, 'x')); }, "is damaged"},
        {"pages", [&] { patch(4096, std::string(size - 4096, '\x55')); }, "is damaged"},
        {"tables", [&] { patch(120, std::string(3000, '\0')); }, "is damaged"},
        {"half", [&] { fs::resize_file(path, size / 2); }, "is damaged"},
        {"version", [&] { patch(60, std::string("\0\0\0\7", 4)); }, "is of another version"},
        {"no file", [&] { fs::remove(path); }, nullptr},
        {"empty", [&] { fs::resize_file(path, 0); }, nullptr},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        test.damage();
        open_library(&lib);
        EXPECT_EQ(host_log_count("is made anew"), test.said != nullptr ? 1 : 0);
        EXPECT_EQ(host_log_count(test.said != nullptr ? test.said : "300 tracks"), 1);
        EXPECT_EQ(search(lib, nullptr, "title 29").size(), 11U);
        close_library(&lib);
    }

    /* A search finds out that it is damaged: another look at the source makes it anew. */
    open_library(&lib);
    patch(4096, std::string(size - 4096, '\x55'));
    EXPECT_TRUE(search(lib, nullptr, "title").empty());
    ASSERT_TRUE(host_log_wait("300 tracks, 300 read", 1));
    EXPECT_EQ(host_log_count("is damaged; it is made anew"), 1);
    EXPECT_EQ(search(lib, nullptr, "title 29").size(), 11U);
}

TEST(files_index, does_with_a_full_cache) {
    library lib;
    for (int i = 0; i < 1000; ++i) {
        add(lib, "/x" + std::to_string(i) + ".mp3", tagged_file(std::string(500, 'x')));
    }
    if (mount("none", lib.cache.path.c_str(), "tmpfs", 0, "size=256k") != 0) {
        GTEST_SKIP() << "this needs to be run by root";
    }
    start_library(&lib);
    EXPECT_TRUE(host_log_wait("cannot be kept in", 1));
    search(lib, nullptr, "x");
    close_library(&lib);
    EXPECT_EQ(host_log_count("cannot be kept in"), 1);
    EXPECT_EQ(host_log_count("is indexed"), 0);
    /* With room it goes on. */
    EXPECT_EQ(mount("none", lib.cache.path.c_str(), "tmpfs", MS_REMOUNT, "size=64m"), 0);
    open_library(&lib);
    EXPECT_EQ(search(lib, nullptr, "x").size(), 1000U);
    close_library(&lib);
    EXPECT_EQ(umount(lib.cache.path.c_str()), 0);
}

TEST(files_index, ends_in_the_midst) {
    library lib;
    for (int i = 0; i < 3000; ++i) {
        add(lib, '/' + std::to_string(i % 50) + "/x" + std::to_string(i) + ".mp3", "");
    }
    for (int round = 0; round < 5; ++round) {
        start_library(&lib);
        EXPECT_EQ(lib.api->set_mediasource_detection(0), 0);
        search(lib, nullptr, "x");
        EXPECT_EQ(lib.api->set_mediasource_detection(1), 0);
        close_library(&lib);
    }
    start_library(&lib);
    fs::rename(lib.folder.path, lib.folder.path + "-away");
    EXPECT_TRUE(host_wait_sources(0));
    fs::rename(lib.folder.path + "-away", lib.folder.path);
    EXPECT_TRUE(host_wait_sources(1));
    EXPECT_TRUE(host_log_wait("3000 tracks", 1));
    close_sessions(&lib);
    open_sessions(&lib, 0);
    EXPECT_EQ(search(lib, nullptr, "x29").size(), 111U);
}
