/* Databases that others have damaged, and the backups that they are restored from. */
#include <functional>

#include <sys/stat.h>

#include "sqldb_root.h"

namespace fs = std::filesystem;

namespace {

struct sqldb_damage_test : sqldb_test {
    const std::string config = config_text("music", "BackupDir::/var/db/a/,/var/db/b\n");
    const std::string file = state_path("/db/music.db");
    const std::string backup_a = state_path("/var/db/a/music.db");
    const std::string backup_b = state_path("/var/db/b/music.db");

    /* Starts and waits until the database can be had. */
    void serve() {
        configure("music", config);
        start();
        ASSERT_TRUE(await_status("music", "Status::Valid"));
    }
    /* Adds songs, with a backup or without. */
    static void save(const std::string& name, bool is_backup) {
        sqldb_connection* music = connect("music");
        EXPECT_EQ(add_song(music, name), 0);
        EXPECT_EQ(is_backup ? sqldb_backup(music, SQLDB_SCOPE_ALL) : 0, 0) << strerror(errno);
        EXPECT_EQ(sqldb_disconnect(music), 0);
    }
};

} // namespace

TEST_F(sqldb_damage_test, restores_the_newest_good_backup_and_keeps_the_damaged_file) {
    plant_file(the_root->path + "/defaults/other.sql", "CREATE TABLE songs (name, id);");
    serve();
    configure_valid("other", "Filename::/db/other.db\nSchemaFile::/db/other.sql\n");
    ASSERT_EQ(pps_unlink("/pps/veloran/sqldb/config/other"), 0);
    save("first", true);
    const std::string first = file_text(backup_a);
    save("second", true);
    const std::string second = file_text(backup_b);
    save("third", false);
    stop();
    const std::string good = file_text(file);
    ASSERT_FALSE(fs::exists(file + "-wal"));
    serve();
    sqldb_connection* music = connect("music");
    EXPECT_EQ(sqldb_statement(music, "ALTER TABLE songs ADD COLUMN newer TEXT"), 0);
    EXPECT_EQ(sqldb_statement(music, "CREATE TABLE newest (x)"), 0);
    EXPECT_EQ(sqldb_disconnect(music), 0);
    stop();
    const std::string newer = file_text(file);
    const std::string foreign = file_text(state_path("/db/other.db"));
    const struct {
        const char* what;
        std::function<void()> damage;
        const char* songs = "first second";
        bool is_kept = true;
    } cases[] = {
        {"untouched", [] {}, "first second third", false},
        {"of a newer build", [&] { plant_file(file, newer); }, "first second third", false},
        {"cut", [&] { fs::resize_file(file, good.size() / 2); }},
        {"cut by a byte", [&] { fs::resize_file(file, good.size() - 1); }},
        {"empty", [&] { fs::resize_file(file, 0); }},
        {"scribbled",
         [&] { plant_file(file, std::string(good).replace(4096, 4096, 4096, '\x55')); }},
        {"of others", [&] { plant_file(file, foreign); }},
        {"missing, with another's journal",
         [&] {
             fs::remove(file);
             plant_file(file + "-wal", foreign);
         },
         "first second", false},
        {"with the newer backup damaged",
         [&] {
             plant_file(file, "");
             plant_file(backup_b, "");
         },
         "first"},
        {"with both backups damaged",
         [&] {
             plant_file(file, "");
             plant_file(backup_a, second.substr(0, 5000));
             fs::remove(backup_b);
             fs::create_directory(backup_b);
         },
         ""},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        for (const auto& entry : fs::directory_iterator(state_path("/db"))) {
            fs::remove_all(entry.path());
        }
        fs::remove_all(backup_b);
        plant_file(file, good);
        plant_file(backup_a, first);
        plant_file(backup_b, second);
        fs::last_write_time(backup_a, fs::last_write_time(backup_b) - std::chrono::hours(1));
        item.damage();
        said.clear();
        serve();
        EXPECT_EQ(songs_of("music"), item.songs);
        stop();
        EXPECT_EQ(fs::exists(file + ".damaged"), item.is_kept);
        EXPECT_EQ(said.find("is damaged") != std::string::npos, item.is_kept) << said;
        EXPECT_FALSE(fs::exists(file + ".new"));
        fs::remove_all(file + ".damaged");
    }
}

/* Whatever the configuration names: only what SQLite has made is ours to move. */
TEST_F(sqldb_damage_test, touches_nothing_that_is_no_database) {
    const struct {
        const char* what;
        std::function<void()> plant;
    } cases[] = {
        {"a text", [&] { plant_file(file, "an ordinary text\n"); }},
        {"a short text", [&] { plant_file(file, "SQLite format"); }},
        {"a folder", [&] { plant_file(file + "/inside", "x"); }},
        {"a link",
         [&] {
             plant_file(state_path("/elsewhere"), std::string("SQLite format 3", 16));
             fs::create_symlink(state_path("/elsewhere"), file);
         }},
        {"a pipe", [&] { ASSERT_EQ(mkfifo(file.c_str(), 0600), 0); }},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        fs::create_directories(state_path("/db"));
        fs::remove_all(file);
        item.plant();
        configure("music", config);
        start();
        ASSERT_TRUE(await_status("music", "no database"));
        stop();
        EXPECT_NE(said.find("cannot be used"), std::string::npos) << said;
        EXPECT_TRUE(fs::exists(file));
        EXPECT_FALSE(fs::exists(file + ".damaged"));
    }
}

TEST_F(sqldb_damage_test, keeps_each_damaged_file_up_to_a_bound) {
    const auto damage = [](int i) {
        return std::string("SQLite format 3", 16) + std::to_string(i);
    };
    serve();
    stop();
    for (int i = 0; i < 12; ++i) {
        plant_file(file, damage(i));
        serve();
        stop();
    }
    EXPECT_EQ(file_text(file + ".damaged"), damage(0));
    EXPECT_EQ(file_text(file + ".damaged.8"), damage(8));
    EXPECT_EQ(file_text(file + ".damaged.9"), damage(11));
}

/* A directory that takes no backup does not keep the other from getting one, and keeps its own. */
TEST_F(sqldb_damage_test, an_older_backup_stays_until_the_newer_is_whole) {
    serve();
    save("first", true);
    const std::string older = file_text(backup_a);
    plant_file(backup_a + ".new/inside", "in the way");
    sqldb_connection* music = connect("music");
    ASSERT_NE(music, nullptr);
    ASSERT_EQ(add_song(music, "second"), 0);
    EXPECT_EQ(sqldb_backup(music, SQLDB_SCOPE_ALL), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(add_song(music, "third"), 0); /* the commit itself went well */
    EXPECT_EQ(sqldb_disconnect(music), 0);
    EXPECT_EQ(file_text(backup_a), older);
    EXPECT_FALSE(fs::exists(backup_b + ".new"));
    stop();
    plant_file(file, "");
    serve();
    EXPECT_EQ(songs_of("music"), "first second");
}
