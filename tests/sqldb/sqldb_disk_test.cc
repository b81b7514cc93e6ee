/* Disks that are full or may not be written, as file systems of the test's own; for root only. */
#include <sched.h>
#include <sys/mount.h>

#include "sqldb_root.h"

namespace fs = std::filesystem;

namespace {

struct sqldb_disk_test : sqldb_test {
    const std::string state = the_root->path + "/state";
    const std::string filler = state + "/filler";
    const std::string file = state_path("/db/music.db");
    const std::string backup = state_path("/var/db/a/music.db");
    bool is_mounted = false;

    /* The mounts are this thread's, and of those that it starts: they end with the program. */
    void SetUp() override {
        sqldb_test::SetUp();
        fs::create_directory(state);
        is_mounted = unshare(CLONE_NEWNS) == 0 &&
                     mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                     mount("none", state.c_str(), "tmpfs", 0, "size=1m") == 0;
        if (!is_mounted) {
            GTEST_SKIP() << "no file system may be mounted: " << strerror(errno);
        }
        begin("Status::Valid");
        sqldb_connection* music = connect("music");
        ASSERT_EQ(add_song(music, "first"), 0);
        ASSERT_EQ(sqldb_backup(music, SQLDB_SCOPE_ALL), 0);
        ASSERT_EQ(sqldb_disconnect(music), 0);
    }
    void TearDown() override {
        sqldb_test::TearDown();
        if (is_mounted) {
            EXPECT_EQ(umount(state.c_str()), 0) << strerror(errno);
        }
    }
    /* Starts anew and waits for this status. */
    void begin(const char* status) {
        stop();
        configure("music", config_text("music", "BackupDir::/var/db/a\n"));
        start();
        ASSERT_TRUE(await_status("music", "Status::"));
        const std::string found = status_of("music");
        EXPECT_NE(found.find(status), std::string::npos) << found;
    }
    void fill() const {
        std::ofstream stream(filler, std::ios::binary);
        const std::string block(4096, 'x');
        while (stream.write(block.data(), 4096).flush()) {
        }
    }
    void set_writable(bool is_writable) const {
        ASSERT_EQ(mount("none", state.c_str(), nullptr, MS_REMOUNT | (is_writable ? 0 : MS_RDONLY),
                        "size=1m"),
                  0)
            << strerror(errno);
    }
};

} // namespace

TEST_F(sqldb_disk_test, a_full_disk_takes_all_of_a_save_or_nothing) {
    const std::string older = file_text(backup);
    fill();
    sqldb_connection* music = connect("music");
    if (music != nullptr) { /* else not even what connections share has found room */
        const int32_t added = add_song(music, std::string(100000, 'x'));
        const int32_t done = sqldb_backup(music, SQLDB_SCOPE_ALL);
        EXPECT_TRUE(added != 0 || done != 0);
        EXPECT_EQ(errno, ENOSPC);
        sqldb_disconnect(music);
    }
    EXPECT_EQ(file_text(backup), older);
    fs::remove(file + "-shm"); /* as after a reboot */
    stop();
    fill();
    begin("Status::Valid");
    EXPECT_EQ(songs_of("music"), "first");
    EXPECT_NE(said.find("nothing can be saved"), std::string::npos) << said;
    fs::remove(filler);
    EXPECT_EQ(songs_of("music"), "first");
    EXPECT_EQ(said.find("damaged"), std::string::npos) << said;
    begin("Status::Valid");
    EXPECT_EQ(songs_of("music"), "first");
}

/* Where there is no room for a replacement, nothing is moved. */
TEST_F(sqldb_disk_test, a_full_disk_delays_the_restoration) {
    stop();
    plant_file(file, "damage");
    fill();
    begin("Reason::");
    EXPECT_EQ(file_text(file), "damage");
    EXPECT_FALSE(fs::exists(file + ".new"));
    stop();
    fs::remove(file);
    begin("No space left");
    EXPECT_FALSE(fs::exists(file));
    fs::remove(filler);
    begin("Status::Valid");
    EXPECT_EQ(songs_of("music"), "first");
}

TEST_F(sqldb_disk_test, a_disk_that_may_not_be_written_is_left_alone) {
    std::string wanted = "first";
    for (const char* next : {" second", " third"}) {
        set_writable(false);
        begin("Status::Valid");
        EXPECT_EQ(songs_of("music"), wanted);
        sqldb_connection* music = connect("music");
        EXPECT_EQ(add_song(music, "lost"), -1);
        EXPECT_EQ(errno, EROFS);
        EXPECT_EQ(sqldb_disconnect(music), 0);
        EXPECT_NE(said.find("nothing can be saved"), std::string::npos) << said;
        set_writable(true);
        begin("Status::Valid");
        /* Next time with a journal, as after a crash. */
        music = connect("music");
        ASSERT_EQ(add_song(music, next + 1), 0);
        wanted += next;
        ASSERT_EQ(sqldb_commit(music), 0);
        fs::copy(file, file + ".crash");
        fs::copy(file + "-wal", file + ".crash-wal");
        ASSERT_EQ(sqldb_disconnect(music), 0);
        stop();
        fs::rename(file + ".crash", file);
        fs::rename(file + ".crash-wal", file + "-wal");
        said.clear();
    }
    fs::remove(file + "-wal");
    fs::remove(file);
    set_writable(false);
    begin("Read-only");
    set_writable(true);
    begin("Status::Valid");
    EXPECT_EQ(songs_of("music"), "first");
}
