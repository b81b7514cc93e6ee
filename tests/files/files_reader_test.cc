/* Files that kill, stall or take over the process that reads them: they are skipped and named, and
 * the others are read. */
#include <cerrno>
#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "library.h"

namespace fs = std::filesystem;

/* A copy of the plug-in with a reader beside it, and a folder with one good file. */
struct beside_reader {
    temporary_folder plugin;
    library lib;
};

static void make_library(beside_reader* made, const char* reader) {
    fs::copy_file(FILES_PLUGIN, made->plugin.path + "/files.so");
    if (reader != nullptr) {
        fs::create_symlink(reader, made->plugin.path + "/files-reader");
    }
    host_use((made->plugin.path + "/files.so").c_str());
    add(made->lib, "/good.mp3", tagged_file("Good", "Artist"));
}

/* Nothing that was started is left, but for what is just being killed. */
static void stop_library(library* lib) {
    close_library(lib);
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    EXPECT_EQ(errno, ECHILD);
}

static void end_library(library* lib) {
    stop_library(lib);
    host_use(nullptr);
}

static void add_bad(const library& lib, const std::string& id) {
    add(lib, id, tagged_file("Bad"));
}

static std::string title_of(const library& lib, const std::string& id) {
    metadata* data = nullptr;
    EXPECT_EQ(lib.api->browse_api->get_metadata(lib.session, id.c_str(), &data), 0) << id;
    const std::string title = data != nullptr && data->title != nullptr ? data->title : "";
    free_metadata(&data);
    return title;
}

static int32_t found(const library& lib, const char* key) {
    medianode* nodes = nullptr;
    int32_t count = -1;
    EXPECT_EQ(lib.api->browse_api->search(lib.session, nullptr, key, 0, &count, &nodes), 0);
    free_medianodes(&nodes, count);
    return count;
}

/* Once by a listener, and not again before it changes. */
TEST(files_reader_test, a_file_that_kills_is_skipped) {
    beside_reader made;
    library& lib = made.lib;
    make_library(&made, FAKE_READER);
    for (const char* name : {"/die.mp3", "/die\nname.mp3"}) {
        add_bad(lib, name);
    }
    start_library(&lib, {{"index", "0"}});
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(title_of(lib, "/die.mp3"), "die");
        EXPECT_EQ(title_of(lib, "/die\nname.mp3"), "die\nname");
        EXPECT_EQ(title_of(lib, "/good.mp3"), "Good");
    }
    EXPECT_EQ(host_log_count("/die.mp3 "), 1);
    EXPECT_EQ(host_log_count("/die?name.mp3 "), 1);
    add(lib, "/die.mp3", tagged_file("Changed"));
    EXPECT_EQ(title_of(lib, "/die.mp3"), "die");
    EXPECT_EQ(host_log_count("/die.mp3 "), 2);
    end_library(&lib);
}

/* Also over a restart, whoever found out; the scan reads on with what it had sent ahead. */
TEST(files_reader_test, the_index_remembers_what_kills) {
    beside_reader made;
    library& lib = made.lib;
    make_library(&made, FAKE_READER);
    for (const char* name : {"/die 1.mp3", "/die 2.mp3", "/sub/die.mp3", "/picture.mp3"}) {
        add_bad(lib, name);
    }
    for (int i = 0; i < 50; ++i) {
        add(lib, "/song " + std::to_string(i) + ".mp3", tagged_file("Song"));
    }
    open_library(&lib);
    EXPECT_EQ(host_log_count("it is not read until it changes"), 3);
    EXPECT_EQ(found(lib, "Song"), 50);
    EXPECT_EQ(found(lib, "die"), 3);
    EXPECT_EQ(found(lib, "bad"), 1) << "only the picture is";
    EXPECT_EQ(title_of(lib, "/picture.mp3"), "picture");
    ASSERT_TRUE(host_log_wait("is indexed", 2));
    stop_library(&lib);

    open_library(&lib);
    EXPECT_EQ(title_of(lib, "/sub/die.mp3"), "die");
    EXPECT_EQ(title_of(lib, "/picture.mp3"), "picture");
    EXPECT_EQ(title_of(lib, "/good.mp3"), "Good");
    EXPECT_EQ(host_log_count("it is not read until it changes"), 0);
    end_library(&lib);
}

/* A listener has an answer while the scan still waits for its file. */
TEST(files_reader_test, a_file_that_stalls_is_skipped) {
    beside_reader made;
    library& lib = made.lib;
    make_library(&made, FAKE_READER);
    add_bad(lib, "/hang.mp3");
    add_bad(lib, "/hang too.mp3");
    start_library(&lib);
    EXPECT_EQ(title_of(lib, "/good.mp3"), "Good");
    EXPECT_EQ(host_log_count("is indexed"), 0);
    ASSERT_TRUE(host_log_wait("is indexed", 1));
    EXPECT_EQ(host_log_count("/hang.mp3 takes too long"), 1);
    EXPECT_EQ(found(lib, "Good"), 1);
    EXPECT_EQ(title_of(lib, "/hang.mp3"), "hang");
    EXPECT_EQ(host_log_count("/hang.mp3 takes too long"), 1);
    end_library(&lib);
}

TEST(files_reader_test, a_reader_that_lies_is_ended) {
    constexpr int32_t LIES = 12;
    beside_reader made;
    library& lib = made.lib;
    make_library(&made, FAKE_READER);
    for (int32_t i = 0; i < LIES; ++i) {
        add_bad(lib, "/lie-" + std::to_string(i) + ".mp3");
    }
    start_library(&lib, {{"index", "0"}});
    for (int32_t i = 0; i < LIES; ++i) {
        const std::string name = "lie-" + std::to_string(i);
        EXPECT_EQ(title_of(lib, '/' + name + ".mp3"), name);
        EXPECT_EQ(host_log_count("nonsense"), i + 1) << name;
        EXPECT_EQ(title_of(lib, "/good.mp3"), "Good");
    }
    end_library(&lib);
}

TEST(files_reader_test, the_reader_can_do_nothing_else) {
    beside_reader made;
    library& lib = made.lib;
    make_library(&made, FAKE_READER);
    add_bad(lib, "/try.mp3");
    const int inherited = open("/dev/null", O_RDONLY); /* as a service may be started with */
    start_library(&lib, {{"index", "0"}});
    EXPECT_EQ(title_of(lib, "/try.mp3"), "can: ");
    close(inherited);
    EXPECT_EQ(title_of(lib, "/good.mp3"), "Good");
    EXPECT_EQ(host_log_count("filter"), 0);
    end_library(&lib);
}

TEST(files_reader_test, without_a_reader_there_are_no_tags) {
    for (const char* reader : {static_cast<const char*>(nullptr), "/bin/true"}) {
        beside_reader made;
        library& lib = made.lib;
        make_library(&made, reader);
        open_library(&lib);
        EXPECT_EQ(title_of(lib, "/good.mp3"), "good");
        EXPECT_EQ(title_of(lib, "/good.mp3"), "good");
        EXPECT_LE(host_log_count("no tags are read"), 2) << "once for each reader";
        EXPECT_EQ(found(lib, "artist"), 0);
        stop_library(&lib);

        fs::remove(made.plugin.path + "/files-reader");
        fs::create_symlink(FAKE_READER, made.plugin.path + "/files-reader");
        open_library(&lib);
        EXPECT_EQ(title_of(lib, "/good.mp3"), "Good");
        EXPECT_EQ(found(lib, "artist"), 1) << "the index looks again at what it could not read";
        end_library(&lib);
    }
}
