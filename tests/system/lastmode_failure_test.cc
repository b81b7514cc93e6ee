/* Databases that are not as they should be, and places where none can be had: the line about it,
 * and a service that plays. */
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <unistd.h>

#include <veloran/lock.h>
#include <veloran/pps.h>
#include <veloran/sqldb.h>

#include "lastmode_rows.h"
#include "rig.h"
#include "saved.h"

namespace fs = std::filesystem;

namespace {

constexpr int32_t ABSENT = -2; /* the player was not opened */
constexpr int32_t NONE = -1;   /* it is open without a session */
constexpr char HAS_ORDERS[] =
    "(SELECT count(*) FROM pragma_table_info('lyrane_orders') WHERE name='first')";
constexpr char DRAWN[] = "(SELECT o.length||' '||first FROM lyrane_orders o WHERE "
                         "o.ts_id=trksessions.ts_id)";

struct lastmode_failure_test : ::testing::Test {
    struct rig rig;
    std::string saved; /* the database with one player and its session of three tracks */

    std::string file() const { return rig.daemon.root + "/state/db/lyrane.db"; }
    std::string configuration() const {
        return daemon_path(rig.daemon, "/pps/veloran/sqldb/config/lyrane");
    }
    void SetUp() override {
        daemon_prepare(rig.daemon);
        rig.daemon.options = {"-l", "-vvvvvvv"};
        rig.daemon.plugins = {{"disk", "source disk", {}}};
        ASSERT_TRUE(start());
        play();
        stop();
        std::ifstream in(file(), std::ios::binary);
        saved.assign(std::istreambuf_iterator<char>(in), {});
    }
    void TearDown() override { daemon_remove(rig.daemon); }

    bool start() { return rig_run(rig, "/a|tracks:3"); }
    void play() {
        rig_session(rig, "p", "/a", 3, 1);
        EXPECT_EQ(request_simple(rig.client, LYR_MSG_PLAY), 0);
    }
    void stop() { EXPECT_EQ(rig_stop(rig), 0); }
    /* The database as it was, and what somebody does to it. */
    void put_back(const std::string& sql = "") const {
        std::ofstream(file(), std::ios::binary | std::ios::trunc) << saved;
        sqlite3* database = nullptr;
        ASSERT_EQ(sqlite3_open(file().c_str(), &database), SQLITE_OK);
        char* reason = nullptr;
        EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, &reason), SQLITE_OK)
            << sql << ": " << reason;
        sqlite3_close(database);
    }
    std::string count(const std::string& table) const {
        return lastmode_rows(rig.daemon, "SELECT count(*) FROM " + table).at(0);
    }
    bool said(const std::string& text, size_t from = 0) const {
        return daemon_log(rig.daemon).find(text, from) != std::string::npos;
    }
    /* Tracks of the player "p", ABSENT or NONE; once its restore is over. */
    int32_t restored() {
        if (!rig_has_player(rig.daemon, "p")) {
            return ABSENT;
        }
        uint64_t ts_id = 0;
        int32_t length = 0;
        EXPECT_EQ(request_open(rig.client, "p"), 0);
        return request_session(rig.client, &ts_id, &length) == 0 ? length : NONE;
    }
};

/* Plays the database service of a root: the service finds the place taken. */
struct served_by_us {
    explicit served_by_us(const test_daemon& daemon)
        : place(daemon_path(daemon, "/dev/sqldb/")),
          lock(open((place + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        EXPECT_EQ(flock(lock.value, LOCK_EX | LOCK_NB), 0);
    }
    ~served_by_us() {
        pps_unlink("/pps/veloran/sqldb/status/lyrane");
        pps_unlink("/pps/veloran/sqldb/status/lyrane2");
        fs::remove(place + "lyrane");
    }
    void name(const std::string& database) const {
        std::ofstream(place + "lyrane") << "Filename::" << database << '\n';
    }
    static void status(const std::string& object, const std::string& text) {
        pps_object* file = pps_open(("/pps/veloran/sqldb/status/" + object).c_str(),
                                    O_WRONLY | O_CREAT | O_TRUNC, 0666);
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(pps_write(file, text.data(), text.size()), 0);
        pps_close(file);
    }
    std::string place;
    vel_fd lock;
};

} // namespace

TEST_F(lastmode_failure_test, a_disk_that_may_not_be_written_gives_what_it_holds) {
    const std::string state = rig.daemon.root + "/state";
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(state.c_str(), state.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
        mount("none", state.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
        GTEST_SKIP() << "nothing may be mounted: " << strerror(errno);
    }
    const size_t from = daemon_log_mark(rig.daemon);
    ASSERT_TRUE(start());
    EXPECT_TRUE(daemon_await_log(rig.daemon, "Last mode trksession is created", from));
    EXPECT_EQ(restored(), 3);
    EXPECT_TRUE(said("nothing can be saved", from));
    stop();
    EXPECT_EQ(umount(state.c_str()), 0);
}

TEST_F(lastmode_failure_test, rows_edited_by_hand) {
    const struct {
        const char* sql;
        const char* line; /* "": any */
        int32_t length;
    } rows[] = {
        {"INSERT INTO trksessions SELECT * FROM trksessions",
         "The trksession saved for p is not unique", NONE},
        {"UPDATE trksessions SET length='x'", "The trksession saved for p has zero tracks", NONE},
        {"UPDATE trksessions SET length=2", "The number of tracks was not properly saved for p",
         NONE},
        {"UPDATE trksessions SET length=4294967299",
         "The number of tracks was not properly saved for p", NONE},
        {"UPDATE players SET name=NULL", "A player was saved without its name", ABSENT},
        {"UPDATE players SET name='a/b'", "Player refused: its name", ABSENT},
        {"INSERT INTO players SELECT 'p2', ts_id, status, shuffle_mode, repeat_mode, "
         "playback_rate FROM players",
         "Last mode trksession is created", 3},
        {"UPDATE players SET ts_id=NULL", "", NONE},
        {"UPDATE players SET ts_id=9223372036854775807;"
         "UPDATE trksessions SET ts_id=9223372036854775807;"
         "UPDATE trksession_medianodes SET ts_id=9223372036854775807",
         "Last mode trksession is created", 3},
        {"UPDATE trksessions SET trk_id=-5", "", NONE},
        {"UPDATE trksessions SET trk_id=3", "", NONE},
        {"UPDATE trksessions SET trk_id=4294967296", "Last mode trksession is created", 3},
        {"UPDATE trksessions SET trk_pos='x', ms_type=NULL, mn_id=NULL",
         "Last mode trksession is created", 3},
        {"UPDATE trksessions SET ms_uid=NULL", "", NONE},
        {"UPDATE players SET status='x', shuffle_mode=7, repeat_mode=99, playback_rate='fast'",
         "Last mode trksession is created", 3},
        {"UPDATE trksession_medianodes SET name=NULL, url=NULL, ms_uid=NULL, ms_type=NULL, "
         "mn_type='x'",
         "Last mode trksession is created", 3},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.sql);
        put_back(row.sql);
        const size_t mark = daemon_log_mark(rig.daemon);
        ASSERT_TRUE(start());
        ASSERT_EQ(daemon_settle(rig.daemon, saved_restoring, 0), 0);
        EXPECT_TRUE(said(row.line, mark));
        EXPECT_EQ(restored(), row.length) << daemon_log(rig.daemon).substr(mark);
        EXPECT_EQ(fake_do(rig.disk, "violations"), "");
        stop();
    }
}

/* A player that cannot be opened: with "keep_missing" the one behind it comes back, all is saved,
 * and its own rows come through every save. */
TEST_F(lastmode_failure_test, a_player_that_cannot_be_opened_keeps_its_rows) {
    rig.daemon.lastmode = R"({"keep_missing": "1", "checkpoint": "1"})";
    put_back("UPDATE players SET name='a/b'; INSERT INTO players(name, ts_id, playback_rate) "
             "VALUES('behind', -1, 1)");
    for (int run = 0; run < 2; ++run) {
        ASSERT_TRUE(start());
        EXPECT_EQ(rig_has_player(rig.daemon, "behind"), run == 0); /* it has no session */
        play();
        EXPECT_TRUE(saved_await("p", "trk_id", "1"));
        EXPECT_EQ(saved_tracks("a/b"), 3);
        stop();
        for (const char* name : {"a/b", "p"}) {
            EXPECT_EQ(lastmode_rows(rig.daemon,
                                    "SELECT count(*) FROM players NATURAL JOIN trksessions JOIN "
                                    "trksession_medianodes USING(ts_id) WHERE players.name='" +
                                        std::string(name) + "'"),
                      std::vector<std::string>{"3"});
        }
    }
}

/* Tables that are missing show only when somebody else serves the database. */
TEST_F(lastmode_failure_test, what_the_database_service_does_wrong) {
    const struct {
        const char* sql;
        const char* line;
        int32_t length;
    } rows[] = {
        {"DROP TABLE players", "Failed to access TABLE players: ", ABSENT},
        {"DROP TABLE trksessions", "The TABLE trksession was not properly saved for p", NONE},
        {"DROP TABLE trksession_medianodes",
         "The TABLE trksession_medianodes was not properly saved for p", NONE},
        {"", "Failed to connect to database", ABSENT}, /* its name is not there */
    };
    const served_by_us service(rig.daemon);
    service.status("lyrane", "Status::Validating\n"); /* begins as it must */
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        put_back(row.sql);
        if (row.sql[0] != '\0') {
            service.name(file());
        } else {
            fs::remove(daemon_path(rig.daemon, "/dev/sqldb/lyrane"));
        }
        const size_t mark = daemon_log_mark(rig.daemon);
        ASSERT_TRUE(start());
        EXPECT_TRUE(said(row.line, mark));
        EXPECT_EQ(restored(), row.length);
        stop();
    }
    /* Nothing has been read, and so nothing is replaced. */
    rig.daemon.lastmode = R"({"keep_missing": "1", "checkpoint": "1"})";
    ASSERT_TRUE(start());
    play();
    service.name(file());
    stop();
    EXPECT_TRUE(said("What is saved of the players could not be read and is left as it is"));
    EXPECT_EQ(count("trksession_medianodes"), "3");
}

TEST_F(lastmode_failure_test, start_without_a_valid_database) {
    const std::string config = fs::path(configuration()).parent_path();
    const std::string status = daemon_path(rig.daemon, "/pps/veloran/sqldb/status");
    const struct {
        std::string path; /* a file where a directory should be */
        const char* line;
    } rows[] = {{config, "Error: database creation failed "},
                {status, "sqldb not running... exiting"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        fs::remove_all(row.path);
        std::ofstream(row.path) << "x";
        ASSERT_TRUE(start());
        EXPECT_TRUE(said(row.line));
        play();
        stop();
        fs::remove(row.path);
        fs::create_directory(row.path);
    }
    EXPECT_TRUE(said("database_initialize failed"));

    /* The states of others, and other attributes, do not count. */
    const served_by_us service(rig.daemon);
    service.name(file());
    service.status("lyrane2", "Status::Valid\n");
    service.status("lyrane", "OldStatus::Valid\nBackupDir::u@lyrane\n");
    const size_t mark = daemon_log_mark(rig.daemon);
    ASSERT_TRUE(start());
    EXPECT_TRUE(said("database_initialize failed", mark));
    EXPECT_EQ(restored(), ABSENT);
    stop();
    /* One that becomes valid later is waited for. */
    put_back(); /* what was not read is replaced by default */
    ASSERT_TRUE(daemon_spawn(rig.daemon));
    ASSERT_TRUE(daemon_await_log(rig.daemon, "backup database initializes ...",
                                 daemon_log_mark(rig.daemon)));
    service.status("lyrane", "Status::Valid\n");
    EXPECT_TRUE(daemon_await_object(rig.daemon, "p", "trksession", "length", ":n:3"));
    EXPECT_EQ(daemon_stop(rig.daemon), 0);
}

TEST_F(lastmode_failure_test, saves_that_fail) {
    /* A refused row is left out, and its session is not taken for a whole one. */
    const std::pair<std::string, int32_t> tables[] = {
        {"players", ABSENT}, {"trksessions", NONE}, {"trksession_medianodes", NONE}};
    for (const auto& [table, length_next_time] : tables) {
        SCOPED_TRACE(table);
        put_back("CREATE TRIGGER refuse BEFORE INSERT ON " + table + " WHEN " +
                 (table == "trksession_medianodes" ? "NEW.mn_id='/a/t1'" : "1") +
                 " BEGIN SELECT RAISE(ABORT, 'no'); END");
        ASSERT_TRUE(start());
        EXPECT_TRUE(daemon_await_object(rig.daemon, "p", "trksession", "length", ":n:3"));
        stop();
        EXPECT_TRUE(said("sqldb_statement on TABLE " + table + " failed: "));
        EXPECT_FALSE(fs::exists(configuration()));
        ASSERT_TRUE(start());
        EXPECT_EQ(restored(), length_next_time);
        stop();
    }

    /* Tables that cannot be cleared stay as they were, all of them. */
    put_back("CREATE TRIGGER refuse BEFORE DELETE ON players BEGIN SELECT RAISE(ABORT, 'no'); END");
    ASSERT_TRUE(start());
    EXPECT_TRUE(daemon_await_object(rig.daemon, "p", "trksession", "length", ":n:3"));
    stop();
    EXPECT_TRUE(fs::exists(configuration()));
    EXPECT_EQ(count("trksession_medianodes"), "3");

    /* A database that is no longer served. */
    put_back();
    ASSERT_TRUE(start());
    fs::remove(daemon_path(rig.daemon, "/dev/sqldb/lyrane"));
    const size_t mark = daemon_log_mark(rig.daemon);
    stop();
    EXPECT_TRUE(said("Failed to connect to database", mark));
    EXPECT_TRUE(fs::exists(configuration()));
    EXPECT_EQ(count("players"), "1");
}

/* The database of an older build opens; an order of a fair shuffle is in a table of its own, and
 * comes back after any end, also after a run without the source. */
TEST_F(lastmode_failure_test, a_fair_order_comes_back) {
    const auto walk = [this](int32_t first) {
        EXPECT_TRUE(daemon_await_object(rig.daemon, "p", "trksession", "length", ":n:8"));
        EXPECT_EQ(request_open(rig.client, "p"), 0);
        EXPECT_EQ(daemon_settle(rig.daemon, saved_restoring, 0), 0);
        EXPECT_EQ(request_number(rig.client, LYR_MSG_JUMP, first), 0);
        std::string order;
        for (int32_t i = 0; i < 8; ++i) {
            order += std::to_string(request_current(rig.client).index);
            EXPECT_EQ(request_simple(rig.client, LYR_MSG_NEXT), 0);
        }
        return order;
    };
    const auto run = [this](const char* source) {
        rig.daemon.plugins = {{"disk", source, {}}};
        return rig_run(rig, "/a|tracks:8");
    };
    rig.daemon.player["shuffle"] = "fair";
    rig.daemon.lastmode = R"({"checkpoint": "1", "timeout": "60", "keep_missing": "1"})";
    for (const char* own : {"", "CREATE TABLE lyrane_orders (length INTEGER, mood TEXT);"
                                "INSERT INTO lyrane_orders VALUES(8, 'gay')"}) {
        SCOPED_TRACE(own);
        std::ifstream dump(LASTMODE_DUMP);
        const std::string sql((std::istreambuf_iterator<char>(dump)), {});
        saved.clear();
        put_back(sql + "UPDATE trksessions SET ms_plugin_name='" + rig.daemon.root + "/disk.so';" +
                 own);
        ASSERT_TRUE(run("source disk"));
        (void)walk(4);
        EXPECT_TRUE(saved_await("p", HAS_ORDERS, "1"));
        EXPECT_EQ(saved_value("p", DRAWN), "8 4");
        /* A new draw, of a session that is saved already. */
        EXPECT_EQ(request_number(rig.client, LYR_MSG_JUMP, 2), 0);
        EXPECT_EQ(request_number(rig.client, LYR_MSG_SHUFFLE, LYR_SHUFFLE_OFF), 0);
        EXPECT_EQ(request_number(rig.client, LYR_MSG_SHUFFLE, LYR_SHUFFLE_ON), 0);
        const std::string order = walk(2);
        EXPECT_TRUE(saved_await("p", DRAWN, "8 2"));
        EXPECT_EQ(rig_stop(rig, SIGKILL), 128 + SIGKILL);
        ASSERT_TRUE(run("source disk auto=0"));
        stop();
        ASSERT_TRUE(run("source disk"));
        EXPECT_EQ(walk(2), order);
        stop();
        EXPECT_EQ(count("lyrane_orders"), "1");
    }
    EXPECT_EQ(count("pragma_table_info('lyrane_orders') WHERE name='mood'"), "1");
    rig.daemon.player.erase("shuffle"); /* the order of the default is not kept */
    ASSERT_TRUE(run("source disk"));
    EXPECT_TRUE(daemon_await_object(rig.daemon, "p", "trksession", "length", ":n:8"));
    stop();
    EXPECT_EQ(count("lyrane_orders"), "0");
}

/* A track that was being opened in a crash, and no other, is passed over at the next start and by
 * what walks the session, until a client jumps to it or an orderly end. */
TEST_F(lastmode_failure_test, a_track_that_crashes_the_service_is_passed_over) {
    static constexpr char OTHER[] = "other";
    const struct {
        const char* rule;  /* of a plug-in that crashes ... */
        const char* event; /* ... "": while it restores, else behind that, once it plays */
        int signal;
        int32_t index; /* of its track at the next start; it was 1 */
    } rows[] = {
        {"\nrule attach signal=6", "", SIGABRT, 2},
        {"\nrule play signal=6", "", SIGABRT, 2},               /* on the way to its sound */
        {"\nrule play exit=134", "", SIGABRT, 2},               /* in order, it seems */
        {"\nrule attach id=/a/t0 signal=6", OTHER, SIGABRT, 1}, /* in another player's call */
        {"", "position value=5", SIGABRT, 1},                   /* is heard */
        {"", "position value=0", SIGKILL, 1},                   /* nobody's fault */
        {"", "position value=0", SIGABRT, 2},                   /* moves nothing */
    };
    constexpr char PASSED_OVER[] = "Player p: /a/t1 is passed over";
    const std::string notes = file() + ".opening";
    const auto index = [this] {
        EXPECT_EQ(daemon_settle(rig.daemon, saved_restoring, 0), 0);
        EXPECT_EQ(request_open(rig.client, "p"), 0);
        return request_current(rig.client).index;
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.rule + std::string(row.event) + std::to_string(row.signal));
        put_back();
        fs::remove(notes);
        rig.daemon.plugins = {{"disk", std::string("source disk") + row.rule, {}}};
        if (row.event[0] == '\0') {
            ASSERT_TRUE(daemon_spawn(rig.daemon));
            EXPECT_EQ(daemon_wait(rig.daemon), 128 + row.signal);
        } else {
            ASSERT_TRUE(start());
            fake_do(rig.disk, "await play 1 returned=1");
            EXPECT_EQ(index(), 1);
            uint64_t other = 0;
            if (row.event == OTHER) {
                EXPECT_EQ(request_open(rig.client, "q"), 0);
                EXPECT_NE(request_create(rig.client, 0, "/a", -1, 0, &other), 0);
            } else {
                EXPECT_EQ(fake_number(rig.disk, "event %s", row.event), 0);
            }
            EXPECT_EQ(rig_stop(rig, row.signal), 128 + row.signal);
        }
        rig.daemon.plugins = {{"disk", "source disk", {}}};
        const size_t mark = daemon_log_mark(rig.daemon);
        ASSERT_TRUE(start());
        EXPECT_EQ(index(), row.index);
        EXPECT_EQ(said(PASSED_OVER, mark), row.index == 2);
        EXPECT_EQ(request_state(rig.client).status, LYR_STATUS_PLAYING);
        if (row.index == 2) {
            EXPECT_EQ(request_simple(rig.client, LYR_MSG_PREVIOUS), 0);
            EXPECT_EQ(index(), 2);
            EXPECT_EQ(request_number(rig.client, LYR_MSG_JUMP, 0), 0);
            EXPECT_EQ(fake_number(rig.disk, "event finished"), 0);
            EXPECT_EQ(index(), 2);
            EXPECT_EQ(fake_number(rig.disk, "event position value=5"), 0);
        }
        EXPECT_EQ(rig_stop(rig, row.index == 2 ? SIGABRT : SIGTERM),
                  row.index == 2 ? 128 + SIGABRT : 0);
        ASSERT_TRUE(start()); /* a crash does not make it better, an orderly end does */
        EXPECT_EQ(index(), row.index == 2 ? 2 : 1);
        EXPECT_EQ(request_number(rig.client, LYR_MSG_JUMP, 1), 0);
        EXPECT_EQ(index(), 1);
        stop();
    }
    /* After an orderly end nothing is suspected; what others put in the place is not used. */
    EXPECT_EQ(fs::file_size(notes), 0U);
    fs::remove(notes);
    fs::create_symlink(rig.daemon.root + "/planted", notes);
    ASSERT_TRUE(start());
    EXPECT_TRUE(said(".opening: "));
    EXPECT_EQ(rig_stop(rig, SIGABRT), 128 + SIGABRT);
    EXPECT_FALSE(fs::exists(rig.daemon.root + "/planted"));
}

/* Somebody else writes for longer than a statement waits: all of a save is made again, and that it
 * failed is said once. */
TEST_F(lastmode_failure_test, another_writer_is_outlasted) {
    constexpr char FAILED[] = "What the players play cannot be saved for now";
    rig.daemon.lastmode = R"({"checkpoint": "1"})";
    put_back();
    ASSERT_TRUE(start());
    EXPECT_TRUE(daemon_await_object(rig.daemon, "p", "trksession", "length", ":n:3"));
    EXPECT_EQ(fake_number(rig.disk, "event position value=777"), 0);
    EXPECT_TRUE(saved_await("p", "trk_pos", "777"));
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(file().c_str(), &other), SQLITE_OK);
    sqlite3_busy_timeout(other, SQLDB_BUSY_MS);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    size_t mark = daemon_log_mark(rig.daemon);
    EXPECT_EQ(request_open(rig.client, "p"), 0);
    EXPECT_EQ(request_number(rig.client, LYR_MSG_JUMP, 2), 0);
    rig_session(rig, "q", "/a", 3);
    EXPECT_TRUE(daemon_await_log(rig.daemon, "sqldb_statement on TABLE players failed", mark));
    sqlite3_close(other); /* what it began goes with it */
    EXPECT_TRUE(saved_await("p", "trk_id", "2"));
    EXPECT_TRUE(saved_await("q", "length", "3"));
    mark = daemon_log(rig.daemon).find(FAILED, mark);
    EXPECT_NE(mark, std::string::npos);
    EXPECT_FALSE(said(FAILED, mark + 1));
    stop();
}
