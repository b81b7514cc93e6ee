/* Files that kill, stall or take over the process that reads them: they are skipped and named, and
 * the others are read. */
#include <array>
#include <cerrno>
#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "library.h"

namespace fs = std::filesystem;

/* A copy of the plug-in with a reader beside it, and a folder with one good file. */
struct beside_reader : library {
    temporary_folder program;
    explicit beside_reader(const char* reader = FAKE_READER) {
        plugin = program.path + "/files.so";
        fs::copy_file(FILES_PLUGIN, plugin);
        set_reader(reader);
        add(*this, "/good.mp3", tagged_file("Good", "Artist"));
    }
    ~beside_reader() { stop(); }
    void set_reader(const char* reader) const {
        fs::remove(program.path + "/files-reader");
        if (reader != nullptr) {
            fs::create_symlink(reader, program.path + "/files-reader");
        }
    }
    /* Nothing that was started is left, but for what is just being killed. */
    void stop() {
        close_library(this);
        while (waitpid(-1, nullptr, 0) > 0) {
        }
        EXPECT_EQ(errno, ECHILD);
    }
};

static void add_bad(const library& lib, const std::string& id) {
    add(lib, id, tagged_file("Bad"));
}

static std::string title_of(const library& lib, const std::string& id) {
    return about(lib, id, &metadata::title);
}

/* Once by a listener, and not again before it changes: those that kill, and those that make the
 * reader lie. */
TEST(files_reader_test, a_bad_file_is_skipped) {
    beside_reader lib;
    std::vector<std::string> names = {"die", "die\nname"};
    for (int32_t i = 0; i < 12; ++i) {
        names.push_back("lie-" + std::to_string(i));
    }
    for (const std::string& name : names) {
        add_bad(lib, '/' + name + ".mp3");
    }
    start_library(&lib, {{"index", "0"}});
    int32_t blamed = 0;
    for (int round = 0; round < 2; ++round) {
        for (const std::string& name : names) {
            EXPECT_EQ(title_of(lib, '/' + name + ".mp3"), name);
            blamed += round == 0 ? 1 : 0;
            EXPECT_EQ(host_log_count("it is not read until it changes"), blamed) << name;
            EXPECT_EQ(title_of(lib, "/good.mp3"), "Good");
        }
    }
    EXPECT_EQ(host_log_count("nonsense"), 12);
    EXPECT_EQ(host_log_count("/die.mp3 "), 1);
    EXPECT_EQ(host_log_count("/die?name.mp3 "), 1);
    add(lib, "/die.mp3", tagged_file("Changed"));
    EXPECT_EQ(title_of(lib, "/die.mp3"), "die");
    EXPECT_EQ(host_log_count("/die.mp3 "), 2);
}

/* Also over a restart, whoever found out; the scan reads on with what it had sent ahead. */
TEST(files_reader_test, the_index_remembers_what_kills) {
    beside_reader lib;
    for (const char* name : {"/die 1.mp3", "/die 2.mp3", "/sub/die.mp3", "/picture.mp3"}) {
        add_bad(lib, name);
    }
    for (int i = 0; i < 50; ++i) {
        add(lib, "/song " + std::to_string(i) + ".mp3", tagged_file("Song"));
    }
    open_library(&lib);
    EXPECT_EQ(host_log_count("it is not read until it changes"), 3);
    EXPECT_EQ(search(lib, nullptr, "Song").size(), 50U);
    EXPECT_EQ(search(lib, nullptr, "die").size(), 3U);
    EXPECT_EQ(search(lib, nullptr, "bad"), lines{"/picture.mp3"}) << "only the picture is";
    EXPECT_EQ(title_of(lib, "/picture.mp3"), "picture");
    ASSERT_TRUE(host_log_wait("is indexed", 2));
    lib.stop();

    open_library(&lib);
    EXPECT_EQ(title_of(lib, "/sub/die.mp3"), "die");
    EXPECT_EQ(title_of(lib, "/picture.mp3"), "picture");
    EXPECT_EQ(title_of(lib, "/good.mp3"), "Good");
    EXPECT_EQ(host_log_count("it is not read until it changes"), 0);
}

/* A listener has an answer while the scan still waits for its file. */
TEST(files_reader_test, a_file_that_stalls_is_skipped) {
    beside_reader lib;
    add_bad(lib, "/hang.mp3");
    add_bad(lib, "/hang too.mp3");
    start_library(&lib);
    EXPECT_EQ(title_of(lib, "/good.mp3"), "Good");
    EXPECT_EQ(host_log_count("is indexed"), 0);
    ASSERT_TRUE(host_log_wait("is indexed", 1));
    EXPECT_EQ(host_log_count("/hang.mp3 takes too long"), 1);
    EXPECT_EQ(search(lib, nullptr, "Good"), lines{"/good.mp3"});
    EXPECT_EQ(title_of(lib, "/hang.mp3"), "hang");
    EXPECT_EQ(host_log_count("/hang.mp3 takes too long"), 1);
}

TEST(files_reader_test, the_reader_can_do_nothing_else) {
    beside_reader lib;
    add_bad(lib, "/try.mp3");
    const int inherited = open("/dev/null", O_RDONLY); /* as a service may be started with */
    std::array<int, 2> ends = {-1, -1};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    const std::array<int, 2> outputs = {dup(STDOUT_FILENO), dup(STDERR_FILENO)};
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    start_library(&lib, {{"index", "0"}});
    const std::string abilities = title_of(lib, "/try.mp3");
    dup2(outputs[0], STDOUT_FILENO);
    dup2(outputs[1], STDERR_FILENO);
    EXPECT_EQ(abilities, "can: ");
    for (const int fd : {inherited, ends[0], ends[1], outputs[0], outputs[1]}) {
        close(fd);
    }
    EXPECT_EQ(title_of(lib, "/good.mp3"), "Good");
    EXPECT_EQ(host_log_count("filter"), 0);
}

TEST(files_reader_test, without_a_reader_there_are_no_tags) {
    for (const char* reader : {static_cast<const char*>(nullptr), "/bin/true"}) {
        beside_reader lib(reader);
        open_library(&lib);
        EXPECT_EQ(title_of(lib, "/good.mp3"), "good");
        EXPECT_EQ(title_of(lib, "/good.mp3"), "good");
        EXPECT_LE(host_log_count("no tags are read"), 2) << "once for each reader";
        EXPECT_EQ(search(lib, nullptr, "artist"), lines{});
        lib.stop();

        lib.set_reader(FAKE_READER);
        open_library(&lib);
        EXPECT_EQ(title_of(lib, "/good.mp3"), "Good");
        EXPECT_EQ(search(lib, nullptr, "artist"), lines{"/good.mp3"})
            << "the index looks again at what it could not read";
    }
}
