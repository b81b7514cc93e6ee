/* Power cuts: whatever a disk loses that was not told to keep it, the last acknowledged save is
 * there, or the one that was just being made, whole. LYRANE_ROUNDS asks for more rounds, the seed
 * of a failure is printed, LYRANE_SEED runs it again. */
#include <cstdio>
#include <map>
#include <random>

#include <sqlite3.h>
#include <sys/wait.h>

#include "power_disk.h"
#include "sqldb_root.h"

namespace fs = std::filesystem;

namespace {

constexpr uint32_t CUTS = 100; /* in a round */
constexpr int PLAYERS = 4;
constexpr int TRACKS = 75;    /* of each */
constexpr int SAVES_MOST = 4; /* before a cut */

/* Changes until a database is made or restored, and in all, roughly; and of names. */
constexpr uint32_t START[] = {80, 10};
constexpr uint32_t SAVES[] = {900, 60};

constexpr const char* CONFIG = "Filename::/db/lyrane.db\nSchemaFile::/db/lyrane.sql\n"
                               "DataSchemaFile::/db/lyrane_data.sql\n"
                               "ClientSchemaFile::/db/lyrane_client.sql\n"
                               "BackupDir::/var/db/backup/,/var/db/backup2";

/* A number of the environment. */
uint32_t given(const char* name, uint32_t otherwise) {
    const char* text = std::getenv(name);
    return text != nullptr ? static_cast<uint32_t>(std::strtoul(text, nullptr, 10)) : otherwise;
}

/* What the service writes; each row tells the version of its save. */
bool write_version(sqldb_connection* connection, int64_t version) {
    const auto id = static_cast<unsigned long long>(version);
    bool is_good = true;
    const auto execute = [&](const char* format, auto... values) {
        is_good = is_good && sqldb_statement(connection, format, values...) == 0;
    };
    execute("DELETE FROM trksession_medianodes;");
    execute("DELETE FROM sqlite_sequence WHERE name='trksession_medianodes'");
    execute("DELETE FROM trksessions;");
    execute("DELETE FROM players;");
    for (int player = 0; player < PLAYERS; ++player) {
        const std::string name = "player " + std::to_string(player);
        execute("INSERT INTO players(name, ts_id, status, shuffle_mode,repeat_mode,playback_rate) "
                "VALUES('%q',%llu,%d,%d,%d,%f);",
                name.c_str(), id, 1, 0, 1, 1.0);
        execute("INSERT INTO trksessions(ts_id, ms_plugin_name, ms_type, ms_uid, mn_id, length, "
                "trk_id, trk_pos) VALUES(%llu, '%q', %d, '%q', '%q', %d, %d, %d);",
                id, "files", 1, "uid", "/", TRACKS, 3, 4);
        for (int track = 0; track < TRACKS; ++track) {
            const std::string text = std::to_string(version) + "/" + std::string(100, 'x');
            execute("INSERT INTO trksession_medianodes(ts_id, mn_id, name, url, mn_type, ms_uid, "
                    "ms_type) VALUES(%llu, '%q', '%q', '%q', %d, '%q', %d);",
                    id, "id", text.c_str(), "url", 2, "uid", 1);
        }
    }
    return is_good;
}

bool is_backup(uint32_t way) {
    return way % 4 < 2;
}

/* Saves a version in one of the ways there are, on one connection. */
bool save(int64_t version, uint32_t way) {
    sqldb_connection* connection = sqldb_connect("/dev/sqldb/lyrane", 0);
    bool is_good = connection != nullptr && write_version(connection, version);
    if (is_backup(way)) {
        is_good = is_good && sqldb_backup(connection, SQLDB_SCOPE_ALL) == 0;
    } else if (way % 4 == 2) {
        is_good = is_good && sqldb_commit(connection) == 0;
    }
    return sqldb_disconnect(connection) == 0 && is_good;
}

/* The version of the players, and what is to be the same in all tables: how many rows, the least
 * and the greatest version, and the keys; 0 where there is none. */
constexpr const char* SUMMARY =
    "SELECT p.b, printf('%s %d %d %d %d %d %d %d %d %d %d %d', "
    "(SELECT group_concat(integrity_check) FROM pragma_integrity_check), "
    "p.n, p.a, p.b, s.n, s.a, s.b, t.n, t.a, t.b, t.c, t.d) FROM "
    "(SELECT count(*) n, min(ts_id) a, max(ts_id) b FROM players) p, "
    "(SELECT count(*) n, min(ts_id) a, max(ts_id) b FROM trksessions) s, "
    "(SELECT count(*) n, min(ts_id) a, max(ts_id) b, min(id) c, max(id) d "
    "FROM trksession_medianodes) t";

/* The version in a database file: 0 an empty one, -1 a mixture or no good database. */
int64_t version_in(const std::string& file) {
    sqlite3* opened = nullptr;
    sqlite3_stmt* statement = nullptr;
    int64_t version = -1;
    if (sqlite3_open_v2(file.c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(opened, SUMMARY, -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
        const int64_t found = sqlite3_column_int64(statement, 0);
        const std::string text = reinterpret_cast<const char*>(sqlite3_column_text(statement, 1));
        const std::string versions =
            " " + std::to_string(found) + " " + std::to_string(found) + " ";
        const std::string players = std::to_string(PLAYERS) + versions;
        const std::string tracks = std::to_string(PLAYERS * TRACKS);
        const bool is_whole = text == "ok " + players + players + tracks + versions + "1 " + tracks;
        version = is_whole ? found : text == "ok 0 0 0 0 0 0 0 0 0 0 0" ? 0 : -1;
    }
    sqlite3_finalize(statement);
    sqlite3_close(opened);
    return version;
}

struct sqldb_power_test : sqldb_test {
    const std::string state = the_root->path + "/state";
    const std::string image = the_root->path + "/image";
    const std::string file = state + "/db/lyrane.db";
    const std::string backups[2] = {state + "/var/db/backup/lyrane.db",
                                    state + "/var/db/backup2/lyrane.db"};
    std::mt19937 random;
    int64_t version = 0;            /* the acknowledged one */
    int64_t backed_up[2] = {0, 0};  /* the versions of the backups; 0: none */
    std::map<std::string, int> met; /* how often what happened */

    uint32_t chance(uint32_t below) { return static_cast<uint32_t>(random() % below); }

    void SetUp() override {
        sqldb_test::SetUp();
        for (const char* name : {"lyrane.sql", "lyrane_data.sql", "lyrane_client.sql"}) {
            fs::copy_file(std::string(SCHEMA_FILES "/") + name,
                          the_root->path + "/defaults/" + name,
                          fs::copy_options::overwrite_existing);
        }
    }

    /* Nothing of the runtime root outlives a cut. */
    void boot() {
        fs::remove_all(the_root->path + "/run");
        said.clear();
        configure("lyrane", CONFIG);
        start();
        ASSERT_TRUE(await_status("lyrane", "Status::"));
        const std::string status = status_of("lyrane");
        ASSERT_NE(status.find("Status::Valid"), std::string::npos) << status;
    }

    /* A run after which the database is damaged or gone, and the backups have all there is.
     * Sometimes with a journal beside the database, which must not get into another one. */
    void damage() {
        boot();
        ASSERT_TRUE(save(++version, 0)) << strerror(errno);
        backed_up[0] = backed_up[1] = version;
        if (chance(3) > 0) {
            sqldb_connection* connection = sqldb_connect("/dev/sqldb/lyrane", 0);
            ASSERT_EQ(sqldb_statement(connection, "DELETE FROM players"), 0);
            ASSERT_EQ(sqldb_commit(connection), 0);
            fs::remove_all(image);
            fs::copy(state, image, fs::copy_options::recursive);
            ASSERT_EQ(sqldb_disconnect(connection), 0);
            fs::remove_all(state);
            fs::rename(image, state);
        }
        stop();
        if (chance(2) == 0) {
            fs::remove(file);
        } else {
            fs::resize_file(file, chance(static_cast<uint32_t>(fs::file_size(file)) - 1));
        }
    }

    void forget_all() {
        fs::remove_all(state);
        version = backed_up[0] = backed_up[1] = 0;
    }

    /* The life of a machine until its power is cut; tells each acknowledged version, as a negative
     * number when it is in the backups as well. */
    [[noreturn]] void live(int acknowledged, uint32_t cut_at, bool names_only, uint32_t number) {
        disk_install();
        disk_begin(state, image, number, cut_at, names_only);
        boot();
        /* While another connection is open, none of those that end copies the journal. */
        const bool with_other = number % 2 != 0;
        const sqldb_connection* other =
            with_other ? sqldb_connect("/dev/sqldb/lyrane", 0) : nullptr;
        bool is_good = !HasFatalFailure() && with_other == (other != nullptr);
        for (uint32_t saves = number % (SAVES_MOST + 1); is_good && saves > 0; --saves) {
            const uint32_t way = number >> (2 * saves);
            is_good = save(++version, way);
            const int64_t told = is_backup(way) ? -version : version;
            is_good = is_good && write(acknowledged, &told, sizeof told) == sizeof told;
        }
        if (!is_good) {
            fprintf(stderr, "a run failed: %s\n%s", strerror(errno), said.c_str());
            _exit(1);
        }
        if (number % 3 != 0) {
            stop();
        }
        disk_cut();
    }

    void live_and_cut(bool is_early) {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        const uint32_t kind = chance(3) > 0 ? 1 : 0; /* 1: between two changes of names */
        const uint32_t cut_at = 1 + chance(is_early ? START[kind] : SAVES[kind]);
        const auto number = static_cast<uint32_t>(random());
        fs::remove_all(image);
        const pid_t child = fork();
        if (child == 0) {
            close(ends[0]);
            live(ends[1], cut_at, kind == 1, number);
        }
        close(ends[1]);
        int64_t acknowledged = 0;
        while (read(ends[0], &acknowledged, sizeof acknowledged) == sizeof acknowledged) {
            version = std::abs(acknowledged);
            if (acknowledged < 0) {
                backed_up[0] = backed_up[1] = version;
            }
        }
        close(ends[0]);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == DISK_CUT) << status;
        fs::remove_all(state);
        fs::rename(image, state);
    }

    /* Starts on what is left. */
    void come_back(bool was_damaged) {
        for (int i = 0; i < 2; ++i) {
            const int64_t found = fs::exists(backups[i]) ? version_in(backups[i]) : 0;
            EXPECT_GE(found, backed_up[i]) << backups[i];
            EXPECT_LE(found, version + 1) << backups[i];
            backed_up[i] = found;
        }
        boot();
        stop();
        const int64_t found = version_in(file);
        EXPECT_TRUE(found == version || found == version + 1)
            << found << " instead of " << version << "\n"
            << said;
        met[found == version ? "acknowledged" : "in flight"] += 1;
        met["restored"] += said.find("restored from") != std::string::npos ? 1 : 0;
        met["made"] += said.find("made empty") != std::string::npos ? 1 : 0;
        if (!was_damaged) {
            EXPECT_EQ(said.find("damaged"), std::string::npos) << said;
        }
        version = found;
    }
};

} // namespace

TEST_F(sqldb_power_test, loses_nothing_that_was_acknowledged) {
    const uint32_t first = given("LYRANE_SEED", std::random_device()());
    const uint32_t all = CUTS * given("LYRANE_ROUNDS", 1);
    random.seed(first);
    for (uint32_t cut = 0; cut < all && !HasFailure(); ++cut) {
        SCOPED_TRACE("LYRANE_SEED=" + std::to_string(first) + " cut " + std::to_string(cut));
        const uint32_t kind = chance(9);
        const bool is_damaged = kind < 3;
        if (is_damaged) {
            damage();
        } else if (kind == 3) {
            forget_all();
        }
        ASSERT_NO_FATAL_FAILURE(live_and_cut(kind < 4 && chance(4) > 0));
        ASSERT_NO_FATAL_FAILURE(come_back(is_damaged));
    }
    for (const char* what : {"acknowledged", "in flight", "restored", "made"}) {
        EXPECT_GT(met[what], 0) << what;
        printf("%s: %d\n", what, met[what]);
    }
}
