/* The service side: what configuration objects ask for. */
#include <functional>
#include <iostream>

#include <sys/stat.h>
#include <sys/wait.h>

#include "sqldb_root.h"

namespace fs = std::filesystem;

TEST_F(sqldb_test, serves_several_databases_and_releases_them) {
    configure("one", config_text("one")); /* before the start and after it */
    start();
    configure_valid("two", config_text("two", "Compression::diocopy") + '\0');
    ASSERT_TRUE(await_status("one", "Status::Valid"));
    EXPECT_EQ(file_text(state_path("/db/music.sql")),
              file_text(the_root->path + "/defaults/music.sql"));
    sqldb_connection* one = connect("one");
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(add_song(one, "a"), 0);
    EXPECT_EQ(songs_of("two"), "");
    ASSERT_EQ(pps_unlink("/pps/veloran/sqldb/config/one"), 0);
    ASSERT_TRUE(await_status("one", ""));
    EXPECT_EQ(connect("one"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(sqldb_disconnect(one), 0); /* what is open stays usable */
    EXPECT_EQ(songs_of("two"), "");
    configure_valid("one", config_text("one"));
    EXPECT_EQ(songs_of("one"), "a");
    stop();
    EXPECT_EQ(connect("two"), nullptr);
    EXPECT_EQ(status_of("two"), "");
}

TEST_F(sqldb_test, waits_for_the_rest_of_a_configuration) {
    start();
    configure("split", "Filename::/db/split.db\n");
    configure_valid("whole", config_text("whole"));
    EXPECT_EQ(status_of("split"), "");
    EXPECT_FALSE(fs::exists(state_path("/db/split.db")));
    configure_valid("split", "SchemaFile::/db/music.sql\n", 0);
    /* Directories for backups may follow, and connections made after that use them. */
    configure("split", "BackupDir::/var/db/late\n", 0);
    configure_valid("last", config_text("last"));
    sqldb_connection* split = connect("split");
    ASSERT_NE(split, nullptr);
    EXPECT_EQ(sqldb_backup(split, SQLDB_SCOPE_ALL), 0);
    EXPECT_EQ(sqldb_disconnect(split), 0);
    EXPECT_TRUE(fs::exists(state_path("/var/db/late/split.db")));
}

TEST_F(sqldb_test, there_is_one_in_a_root_and_no_word_of_an_earlier_one) {
    plant_file(the_root->path + "/run/pps/veloran/sqldb/status/old", "@old\nStatus::Valid\n");
    plant_file(the_root->path + "/run/dev/sqldb/old", "Filename::/tmp/old.db\n");
    start();
    EXPECT_EQ(status_of("old"), "");
    EXPECT_EQ(connect("old"), nullptr);
    const std::string configs = the_root->path + "/run/pps/veloran/sqldb/config";
    EXPECT_EQ(sqldb_service_start(nullptr), nullptr);
    EXPECT_EQ(errno, EEXIST);
    fs::rename(configs, configs + ".moved"); /* the watch goes on where it was */
    configure_valid("music", config_text("music"));
    stop();
    start();
    EXPECT_TRUE(await_status("music", "Status::Valid"));
}

TEST_F(sqldb_test, says_why_a_database_cannot_be_had) {
    plant_file(the_root->path + "/defaults/bad.sql", "CREATE TABEL songs;");
    plant_file(the_root->path + "/defaults/attach.sql",
               "ATTACH '" + state_path("/db/a.db") + "' AS a; CREATE TABLE a.t(x);");
    plant_file(the_root->path + "/defaults/endless.sql",
               "CREATE TABLE t AS WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x FROM c) "
               "SELECT x FROM c;");
    plant_file(the_root->path + "/defaults/pragma.sql", "PRAGMA writable_schema=1;");
    const std::string schema = "SchemaFile::/db/music.sql\n";
    const struct {
        std::string config;
        const char* reason;
    } cases[] = {
        {"Filename::/proc/nowhere/music.db\n" + schema, "No such file"},
        {"Filename::/dev/null/music.db\n" + schema, "Not a directory"},
        {"Filename::/db/" + std::string(4000, 'x') + "\n" + schema, "too long"},
        {"Filename::/db/a.db\nSchemaFile::/db/missing.sql\n", "missing.sql: No such file"},
        {"Filename::/db/a.db\nSchemaFile::/db/bad.sql\n", "TABEL"},
        {"Filename::/db/b.db\nSchemaFile::/db/attach.sql\n", "not authorized"},
        {"Filename::/db/b.db\nSchemaFile::/db/endless.sql\n", "not authorized"},
        {"Filename::/db/b.db\nSchemaFile::/db/pragma.sql\n", "not authorized"},
    };
    start();
    for (const auto& item : cases) {
        SCOPED_TRACE(item.reason);
        configure("music", item.config);
        ASSERT_TRUE(await_status("music", "Status::Error"));
        EXPECT_TRUE(await_status("music", item.reason)); /* it is looked at again at each change */
        EXPECT_EQ(connect("music"), nullptr);
        ASSERT_EQ(pps_unlink("/pps/veloran/sqldb/config/music"), 0);
        ASSERT_TRUE(await_status("music", ""));
    }
    EXPECT_FALSE(fs::exists(state_path("/db/a.db")));
    configure_valid("music", config_text("music"));
}

/* Words that somebody else may have written make no file, and move none. */
TEST_F(sqldb_test, believes_only_its_own_user_and_root) {
    const std::string object = the_root->path + "/run/pps/veloran/sqldb/config/music";
    const std::string words = config_text("music");
    const auto refuse = [&](const char* what, const std::function<int()>& plant) {
        SCOPED_TRACE(what);
        fs::remove(object);
        plant_file(object, words);
        fs::permissions(object, fs::perms(0644));
        ASSERT_EQ(plant(), 0);
        start();
        ASSERT_TRUE(await_status("music", "not believed"));
        stop();
        EXPECT_FALSE(fs::exists(state_path("/db/music.db")));
    };
    refuse("of its group", [&] { return chmod(object.c_str(), 0664); });
    refuse("of others", [&] { return chmod(object.c_str(), 0646); });
    if (geteuid() == 0) {
        refuse("of another user", [&] { return chown(object.c_str(), 12345, 0); });
    } else {
        std::cerr << "not root: no object of another user was tried\n";
    }
    /* What the process wants for itself it knows without the object. */
    own_name = "music";
    own_text = config_text("own");
    start();
    ASSERT_TRUE(await_status("music", "Status::Valid"));
    EXPECT_TRUE(fs::exists(state_path("/db/own.db")));
    configure_valid("other", config_text("other"));
    EXPECT_FALSE(fs::exists(state_path("/db/music.db")));
}

/* A database that is looked at again is open meanwhile, and its locks are the whole process's. */
TEST_F(sqldb_test, looking_again_keeps_the_locks_of_who_has_it_open) {
    fs::copy_file(the_root->path + "/defaults/music.sql", the_root->path + "/defaults/again.sql",
                  fs::copy_options::overwrite_existing);
    start();
    configure_valid("music", config_text("music"));
    sqldb_connection* music = connect("music");
    ASSERT_EQ(add_song(music, "first"), 0);
    configure("music", "Filename::/db/music.db\nSchemaFile::/db/again.sql\n");
    configure_valid("last", config_text("last"));
    ASSERT_TRUE(await_status("music", "Status::Valid"));
    const std::string file = state_path("/db/music.db");
    const pid_t child = fork();
    if (child == 0) {
        constexpr off_t SHARED = 0x40000002; /* where SQLite's readers hold their lock */
        struct flock lock = {F_WRLCK, SEEK_SET, SHARED, 510, 0};
        const int fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
        _exit(fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(sqldb_disconnect(music), 0);
}

TEST_F(sqldb_test, schemas_make_tables_and_rows_and_nothing_else) {
    plant_file(the_root->path + "/defaults/rows.sql",
               "INSERT INTO songs(name) VALUES('first'); CREATE INDEX i ON songs(number);");
    plant_file(the_root->path + "/defaults/client.sql",
               "ATTACH '" + state_path("/db/a.db") + "' AS a; CREATE TABLE a.t(x);");
    start();
    configure_valid("music", config_text("music", "DataSchemaFile::/db/rows.sql\n"));
    EXPECT_EQ(songs_of("music"), "first");
    configure_valid("last", config_text("last", "ClientSchemaFile::/db/client.sql\n"));
    EXPECT_EQ(connect("last"), nullptr);
    EXPECT_EQ(errno, EACCES);
    EXPECT_FALSE(fs::exists(state_path("/db/a.db")));
}

/* The client half against what others write into its files. */
TEST_F(sqldb_test, connects_to_nothing_that_is_no_database) {
    start();
    const std::string names = the_root->path + "/run/dev/sqldb/";
    plant_file(names + "empty", "");
    plant_file(names + "gone", "Filename::" + state_path("/db/gone.db") + "\n");
    plant_file(names + "folder", "Filename::/tmp\n");
    plant_file(names + "text", "Filename::" + names + "text\n");
    static const struct {
        const char* name;
        int error;
    } cases[] = {
        {"/dev/sqldb/none", ENOENT},   {"/dev/sqldb/..", EINVAL},
        {"/dev/sqldb/a/b", EINVAL},    {"none", EINVAL},
        {"/dev/sqldb/empty", ENODATA}, {"/dev/sqldb/gone", ENOENT},
        {"/dev/sqldb/folder", EISDIR}, {"/dev/sqldb/text", EBADMSG},
    };
    for (const auto& item : cases) {
        errno = 0;
        EXPECT_EQ(sqldb_connect(item.name, 0), nullptr) << item.name;
        EXPECT_EQ(errno, item.error) << item.name;
    }
    EXPECT_EQ(sqldb_connect("/dev/sqldb/none", 1), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(sqldb_disconnect(nullptr), 0);
}
