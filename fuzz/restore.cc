/* A database that others have edited: rows of any shape, from which the service brings its players
 * back, with the scripted plug-in behind them. What comes back must be published in form, and at
 * the end nothing may be left.
 *
 * An input: a byte of settings, one of the plug-in's misbehaviour, one of the tables (0xF0 and
 * more: one has another shape), then players: a byte with the number of tracks (bits 0 to 2), one
 * that says which column has a cell of the input's own, and that cell. */
#include <fstream>
#include <iterator>
#include <memory>

#include <sqlite3.h>

#include <lyrane/client.h>
#include <veloran/paths.h>

#include "control.h"
#include "lastmode.h"
#include "lastmode_threads.h"
#include "media.h"
#include "player.h"
#include "published.h"
#include "script.h"
#include "service_rig.h"
#include "sqldb_place.h"

namespace {

constexpr int PLAYERS = 6;
constexpr const char* TABLES[] = {"players", "trksessions", "trksession_medianodes"};
constexpr int COLUMNS[] = {6, 8, 8};
constexpr int OWN_CELLS = 22; /* of the three tables together */

sqlite3* database;

void run(const std::string& sql) {
    require(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK,
            "the target's own SQL");
}

void make_tables(void) {
    std::ifstream file(SCHEMA);
    for (const char* table : TABLES) {
        for (const char* kind : {"TABLE ", "VIEW "}) { /* one of the two is an error */
            const std::string sql = std::string("DROP ") + kind + table;
            (void)sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr);
        }
    }
    run(std::string((std::istreambuf_iterator<char>(file)), {}));
}

/* --- Rows --------------------------------------------------------------------------------------
 */

using statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

statement prepare(int table) {
    std::string sql = std::string("INSERT INTO ") + TABLES[table] + " VALUES(?";
    for (int i = 1; i < COLUMNS[table]; ++i) {
        sql += ",?";
    }
    sqlite3_stmt* made = nullptr;
    /* A table of another shape does not take the row. */
    (void)sqlite3_prepare_v2(database, (sql + ")").c_str(), -1, &made, nullptr);
    return {made, sqlite3_finalize};
}

void bind_text(sqlite3_stmt* row, int column, const std::string& text) {
    sqlite3_bind_text(row, column + 1, text.data(), static_cast<int>(text.size()),
                      SQLITE_TRANSIENT);
}

/* What the service itself would have saved. */
void bind_usual(sqlite3_stmt* row, int table, int column, int player, int tracks, int track) {
    static constexpr const char* NAMES[] = {"a", "radio", "b \xFF", "c", "x", "y"};
    static constexpr const char* NODES[] = {"/a/1.mp3", "/many/t5", "/z", "/gone", "/a/film"};
    static constexpr int NUMBERS[][8] = {
        {0, 0, LYR_STATUS_PLAYING, LYR_SHUFFLE_ON, LYR_REPEAT_ALL, 1, 0, 0},
        {0, 0, LYR_MS_TYPE_HDD, 0, 0, 0, 1, 5000},
        {0, 0, 0, 0, 0, LYR_NODE_AUDIO, 0, LYR_MS_TYPE_HDD}};
    const bool is_device = player == 2;
    const auto* plugin = static_cast<const ::plugin*>(mmcontrol.plugins.items[is_device ? 1 : 0]);
    if (table == 2 && column == 0) {
        sqlite3_bind_null(row, 1);
    } else if (column == 1) {
        sqlite3_bind_int(row, 2, player);
    } else if (table == 0 && column == 0) {
        bind_text(row, column, NAMES[player]);
    } else if (table == 1 && column == 0) {
        bind_text(row, column, plugin->name);
    } else if ((table == 1 && column == 3) || (table == 2 && column == 6)) {
        bind_text(row, column, is_device ? "u2" : "u0");
    } else if (table == 1 && column == 5) {
        sqlite3_bind_int(row, column + 1, tracks);
    } else if ((table == 1 && column == 4) || (table == 2 && column >= 2 && column <= 4)) {
        bind_text(row, column, NODES[static_cast<size_t>(track) % std::size(NODES)]);
    } else {
        sqlite3_bind_int(row, column + 1, NUMBERS[table][column]);
    }
}

void bind_own(sqlite3_stmt* row, int column, fuzz_input* input) {
    const unsigned kind = input_u8(input);
    switch (kind % 8) {
    case 0:
        sqlite3_bind_null(row, column + 1);
        break;
    case 1:
        sqlite3_bind_int64(row, column + 1, static_cast<int8_t>(input_u8(input)));
        break;
    case 2:
        sqlite3_bind_int64(
            row, column + 1,
            static_cast<int64_t>(uint64_t{input_u32(input)} << 32 | input_u32(input)));
        break;
    case 3:
        sqlite3_bind_double(row, column + 1, static_cast<double>(input_u32(input)) * 1e30 - 1e39);
        break;
    case 4: {
        const std::string blob = input_bytes(input, input_u8(input));
        sqlite3_bind_blob(row, column + 1, blob.data(), static_cast<int>(blob.size()),
                          SQLITE_TRANSIENT);
        break;
    }
    case 5:
        bind_text(row, column, script_name(input));
        break;
    default:
        bind_text(row, column, input_bytes(input, input_u8(input)));
    }
}

/* One player with its session and tracks; cell number `own` of its rows is the input's. */
void add_player(fuzz_input* input, int player) {
    const unsigned shape = input_u8(input);
    const int tracks = static_cast<int>(shape & 7);
    int own = input_u8(input) % (OWN_CELLS * 2);
    for (int table = 0; table < 3; ++table) {
        const statement row = prepare(table);
        for (int i = 0; row != nullptr && i < (table == 2 ? tracks : 1); ++i) {
            for (int column = 0; column < COLUMNS[table]; ++column) {
                if (own-- == 0) {
                    bind_own(row.get(), column, input);
                } else {
                    bind_usual(row.get(), table, column, player, tracks, i);
                }
            }
            (void)sqlite3_step(row.get()); /* a key may be taken */
            sqlite3_reset(row.get());
        }
    }
}

/* A table with other columns, or none of that name. */
void misshape(unsigned choice) {
    static constexpr const char* SHAPES[] = {
        "", "CREATE TABLE #(x)", "CREATE TABLE #(a, ts_id, b, c)",
        "CREATE VIEW # AS SELECT 1 AS ts_id, 'a', 2, 3, 4, 5, 6, 7"};
    const std::string table = TABLES[choice % 3];
    std::string sql = SHAPES[choice / 3 % std::size(SHAPES)];
    run("DROP TABLE " + table);
    if (!sql.empty()) {
        run(sql.replace(sql.find('#'), 1, table));
    }
}

void start(void) {
    const std::string file = fuzz_root() + "/lyrane.db";
    require(sqlite3_open(file.c_str(), &database) == SQLITE_OK, "a database");
    run("PRAGMA synchronous=OFF");
    make_tables();
    sqldb_place place = {};
    place.name = "lyrane";
    place.file = file;
    require(paths_make_parents(sqldb_place_of_name(place.name, false).c_str()) == 0 &&
                sqldb_place_publish(place) == 0,
            "the name of the database");
}

} // namespace

/* What the linker puts in the place of the wait for the database, of the restore threads, which
 * here do their work one after the other, and of the pause between two looks for a source. */
extern "C" {

int __real_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  clockid_t clock, const timespec* deadline);

int32_t __wrap_database_initialize(control_block*) noexcept {
    return 0;
}

int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  clockid_t clock, const timespec* deadline) {
    constexpr int64_t SHORTEST = 50;
    constexpr int64_t LONGEST = 200; /* ms; others are waits for something */
    timespec now = {};
    clock_gettime(clock, &now);
    const int64_t left =
        (deadline->tv_sec - now.tv_sec) * 1000 + (deadline->tv_nsec - now.tv_nsec) / 1000000;
    return left > SHORTEST && left < LONGEST
               ? ETIMEDOUT
               : __real_pthread_cond_clockwait(condition, mutex, clock, deadline);
}

int LLVMFuzzerInitialize(int*, char***) {
    rig_start();
    start();
    mmcontrol.lastmode_devices = UINT32_MAX;
    return 0;
}
}

void __wrap__Z22lastmode_threads_startP12player_state(player_state* state) noexcept
    asm("__wrap__Z22lastmode_threads_startP12player_state");
void __wrap__Z22lastmode_threads_startP12player_state(player_state* state) noexcept {
    (void)lastmode_thread(state);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input = {data, size};
    rig_begin(input_u8(&input));
    const unsigned trouble = input_u8(&input);
    if (trouble >= 128) {
        rig_command(static_cast<int>(trouble & 1), script_happening(&input));
    }
    const unsigned shape = input_u8(&input);
    if (shape >= 0xF0) {
        misshape(shape & 15);
    }
    for (int i = 0; i < PLAYERS && input.left > 0; ++i) {
        add_player(&input, i);
    }
    (void)lastmode_restore(&mmcontrol);
    for (int32_t i = 0; i < mmcontrol.players.count; ++i) {
        require_objects(static_cast<const player*>(mmcontrol.players.items[i])->name);
    }
    rig_end();
    if (shape >= 0xF0) {
        make_tables();
    } else {
        run("DELETE FROM players; DELETE FROM trksessions; DELETE FROM trksession_medianodes");
    }
    return 0;
}
