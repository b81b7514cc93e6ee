#include "save.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <string>
#include <vector>

#include <veloran/pps.h>

#include "lastmode.h"
#include "lastmode_threads.h"
#include "msglog.h"
#include "plugin_opening.h"

static constexpr char CONNECTION[] = "/dev/sqldb/lyrane";
static constexpr char CONFIGURATION[] = "/pps/veloran/sqldb/config/lyrane";

/* Of our own: databases of older builds have no such table, and those of newer ones may have more
 * columns. */
static constexpr char ORDERS[] = "lyrane_orders";
static constexpr char MAKE_ORDERS[] = "CREATE TABLE IF NOT EXISTS lyrane_orders (ts_id INTEGER, "
                                      "seed INTEGER, length INTEGER, first INTEGER)";
static constexpr char COLUMN_IS_THERE[] =
    "SELECT 1 FROM pragma_table_info('lyrane_orders') WHERE name='%q'";
static constexpr char ADD_COLUMN[] = "ALTER TABLE lyrane_orders ADD COLUMN '%q' INTEGER";
static constexpr char INSERT_ORDER[] =
    "INSERT INTO lyrane_orders(ts_id, seed, length, first) VALUES(%llu, %llu, %d, %d)";

/* The three tables, and where the keys of the tracks are counted. */
static constexpr char TRACKS[] = "trksession_medianodes";
static constexpr char SESSIONS[] = "trksessions";
static constexpr char PLAYERS[] = "players";
static constexpr char FORGET_KEYS[] =
    "DELETE FROM sqlite_sequence WHERE name='trksession_medianodes'";

static constexpr char INSERT_PLAYER[] =
    "INSERT INTO players(name, ts_id, status, shuffle_mode,repeat_mode,playback_rate) "
    "VALUES('%q',%llu,%d,%d,%d,%f);";
static constexpr char INSERT_SESSION[] =
    "INSERT INTO trksessions(ts_id, ms_plugin_name, ms_type, ms_uid, mn_id, length, trk_id, "
    "trk_pos) VALUES(%llu, '%q', %d, '%q', '%q', %d, %d, %d);";
static constexpr char INSERT_TRACK[] =
    "INSERT INTO trksession_medianodes(ts_id, mn_id, name, url, mn_type, ms_uid, ms_type) "
    "VALUES(%llu, '%q', '%q', '%q', %d, '%q', %d);";

static constexpr char UPDATE_PLAYER[] = "UPDATE players SET status=%d, shuffle_mode=%d, "
                                        "repeat_mode=%d, playback_rate=%f WHERE ts_id=%llu";
static constexpr char UPDATE_SESSION[] =
    "UPDATE trksessions SET length=%d, trk_id=%d, trk_pos=%d WHERE ts_id=%llu";

static constexpr char NOT_SAVED[] = "What the players play could not be saved: %s";

/* How long the save at the end waits for another process that writes; a checkpoint that waits for
 * the same one gives up at once. */
static constexpr int32_t END_WAIT_MS = 3000;

/* Tracks whose records are copied at a time; the session grows and plays meanwhile. */
static constexpr int32_t PAGE = 256;

/* Ids of rows that stay begin here; those of this run never come that far. */
static constexpr int64_t STAYING_IDS = int64_t{1} << 62;

static unsigned long long id_of(const saved_player* player) noexcept {
    return player->ts_id;
}

/* After a row was not written. 0 when the row itself is refused, and would be each time: it is left
 * out. -1 with errno for any other reason: then nothing may be committed. A save that is made again
 * and again does not say it again and again. */
static int32_t row_failed(const char* table, const std::atomic<bool>* ending) noexcept {
    const int error = errno;
    msglog(ending == nullptr ? 3 : 7, "sqldb_statement on TABLE %s failed: %s", table,
           msglog_error_text(error));
    errno = error;
    return error == EINVAL || error == EFBIG || error == EEXIST ? 0 : -1;
}

/* How many tracks from `first` on the page holds. Their strings stay while the session is held. */
static int32_t copy_page(trksession* session, int32_t first, int32_t length,
                         medianode* page) noexcept {
    const int32_t count = std::min(PAGE, length - first);
    vel_lock_guard guard(session->lock);
    std::copy_n(session->tracks + first, count, page);
    return count;
}

static int32_t save_track(sqldb_connection* connection, unsigned long long ts_id,
                          const medianode* track, const std::atomic<bool>* ending) noexcept {
    const int32_t result = sqldb_statement(
        connection, INSERT_TRACK, ts_id, track->id, track->name, track->url, track->type,
        track->ms_uid != nullptr ? track->ms_uid : "NULL", track->ms_type);
    return result == 0 ? 0 : row_failed(TRACKS, ending);
}

/* The tracks from `first` on. 0, or -1 as of save_all. */
static int32_t save_tracks(sqldb_connection* connection, const saved_player* player, int32_t first,
                           const std::atomic<bool>* ending) noexcept {
    medianode page[PAGE];
    while (first < player->length) {
        if (ending != nullptr && *ending) {
            errno = ECANCELED;
            return -1;
        }
        const int32_t count = copy_page(player->session, first, player->length, page);
        for (int32_t i = 0; i < count; ++i) {
            if (save_track(connection, id_of(player), &page[i], ending) != 0) {
                return -1;
            }
        }
        first += count;
    }
    return 0;
}

/* A session has one row at the most. */
static int32_t save_order(sqldb_connection* connection, const saved_player* player,
                          const std::atomic<bool>* ending) noexcept {
    const trksession_draw* drawn = &player->drawn;
    if (drawn->length == 0) {
        return 0;
    }
    return sqldb_statement(connection, INSERT_ORDER, id_of(player),
                           static_cast<unsigned long long>(drawn->seed), drawn->length,
                           drawn->first) != 0 &&
                   row_failed(ORDERS, ending) != 0
               ? -1
               : 0;
}

static int32_t insert(sqldb_connection* connection, const saved_player* player,
                      const std::atomic<bool>* ending) noexcept {
    const mediasource* source = player->session->mediasource;
    msglog(7, "save player %s into db", player->name);
    if (sqldb_statement(connection, INSERT_PLAYER, player->name, id_of(player), player->status,
                        player->shuffle_mode, player->repeat_mode,
                        static_cast<double>(player->playback_rate)) != 0 &&
        row_failed(PLAYERS, ending) != 0) {
        return -1;
    }
    if (save_order(connection, player, ending) != 0) {
        return -1;
    }
    msglog(7, "save trksessions into db");
    if (sqldb_statement(connection, INSERT_SESSION, id_of(player), source->plugin_name,
                        source->type, source->uid, player->mn_id, player->length, player->trk_id,
                        player->trk_pos) != 0 &&
        row_failed(SESSIONS, ending) != 0) {
        return -1;
    }
    return save_tracks(connection, player, 0, ending);
}

/* The session is the one that the database holds already, as `saved` says. */
static int32_t update(sqldb_connection* connection, const saved_player* player,
                      const saved_player* saved, const std::atomic<bool>* ending) noexcept {
    if (sqldb_statement(connection, UPDATE_PLAYER, player->status, player->shuffle_mode,
                        player->repeat_mode, static_cast<double>(player->playback_rate),
                        id_of(player)) != 0 &&
        row_failed(PLAYERS, ending) != 0) {
        return -1;
    }
    if (sqldb_statement(connection, UPDATE_SESSION, player->length, player->trk_id, player->trk_pos,
                        id_of(player)) != 0 &&
        row_failed(SESSIONS, ending) != 0) {
        return -1;
    }
    if (!snapshot_same_order(saved, player) &&
        (sqldb_statement(connection, "DELETE FROM lyrane_orders WHERE ts_id=%llu", id_of(player)) !=
             0 ||
         save_order(connection, player, ending) != 0)) {
        return -1;
    }
    return save_tracks(connection, player, saved->length, ending);
}

static int32_t delete_rows(sqldb_connection* connection, uint64_t ts_id) noexcept {
    for (const char* table : {TRACKS, SESSIONS, PLAYERS, ORDERS}) {
        if (sqldb_statement(connection, "DELETE FROM '%q' WHERE ts_id=%llu", table,
                            static_cast<unsigned long long>(ts_id)) != 0) {
            return -1;
        }
    }
    return 0;
}

/* The ids of the rows that stay, each once, in an order in which they can move to the ids that
 * begin at STAYING_IDS without one taking the place of another: those from there on come first. */
static std::vector<int64_t> staying_ids(const snapshot* now) {
    std::vector<int64_t> ids;
    for (int32_t i = 0; i < now->count; ++i) {
        if (now->players[i].rows != nullptr) {
            ids.push_back(static_cast<int64_t>(now->players[i].ts_id));
        }
    }
    const auto place = [](int64_t id) { return static_cast<uint64_t>(id) - STAYING_IDS; };
    std::sort(ids.begin(), ids.end(),
              [place](int64_t a, int64_t b) { return place(a) < place(b); });
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    return ids;
}

/* Empties a table but for the rows that stay. */
static int32_t clear(sqldb_connection* connection, const char* table,
                     const std::vector<int64_t>& staying) {
    if (staying.empty()) {
        return sqldb_statement(connection, "DELETE FROM '%q';", table);
    }
    std::string text =
        std::string("DELETE FROM ") + table + " WHERE ts_id IS NULL OR ts_id NOT IN (";
    for (const int64_t id : staying) {
        text += std::to_string(id) + ',';
    }
    text.back() = ')';
    return sqldb_statement(connection, text.c_str());
}

static int32_t move_rows(sqldb_connection* connection, int64_t from, int64_t to) noexcept {
    for (const char* table : {TRACKS, SESSIONS, PLAYERS, ORDERS}) {
        if (sqldb_statement(connection, "UPDATE '%q' SET ts_id=%llu WHERE ts_id=%llu", table,
                            static_cast<unsigned long long>(to),
                            static_cast<unsigned long long>(from)) != 0) {
            return -1;
        }
    }
    return 0;
}

/* Gives the rows that stay, and their entries, the ids from STAYING_IDS on. */
static int32_t move_staying(sqldb_connection* connection, const std::vector<int64_t>& staying,
                            snapshot* now) noexcept {
    int64_t to = STAYING_IDS;
    for (const int64_t from : staying) {
        if (from != to && move_rows(connection, from, to) != 0) {
            return -1;
        }
        for (int32_t i = 0; i < now->count; ++i) {
            saved_player* player = &now->players[i];
            if (player->rows != nullptr && static_cast<int64_t>(player->ts_id) == from) {
                player->ts_id = static_cast<uint64_t>(to);
            }
        }
        ++to;
    }
    return 0;
}

/* Makes what an older build's database lacks. */
static int32_t make_orders(sqldb_connection* connection) noexcept {
    if (sqldb_statement(connection, MAKE_ORDERS) != 0) {
        return -1;
    }
    for (const char* column : {"ts_id", "seed", "length", "first"}) {
        if (sqldb_statement(connection, COLUMN_IS_THERE, column) != 0) {
            return -1;
        }
        sqldb_result* found = sqldb_getresult(connection);
        const bool is_there = sqldb_rows(found) > 0;
        sqldb_freeresult(found);
        if (!is_there && sqldb_statement(connection, ADD_COLUMN, column) != 0) {
            return -1;
        }
    }
    return 0;
}

/* The order of the first save of all; deleting the keys' count makes them begin at 1 again. */
static int32_t clear_all(sqldb_connection* connection, const std::vector<int64_t>& staying) {
    return clear(connection, TRACKS, staying) != 0 ||
                   sqldb_statement(connection, FORGET_KEYS) != 0 ||
                   clear(connection, SESSIONS, staying) != 0 ||
                   clear(connection, PLAYERS, staying) != 0 ||
                   clear(connection, ORDERS, staying) != 0
               ? -1
               : 0;
}

/* Leaves nothing but the rows that stay. */
static int32_t make_room(sqldb_connection* connection, snapshot* now) noexcept {
    try {
        const std::vector<int64_t> staying = staying_ids(now);
        return clear_all(connection, staying) != 0 || move_staying(connection, staying, now) != 0
                   ? -1
                   : 0;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}

int32_t save_all(sqldb_connection* connection, snapshot* now,
                 const std::atomic<bool>* ending) noexcept {
    if (make_orders(connection) != 0 || make_room(connection, now) != 0) {
        return -1;
    }
    for (int32_t i = 0; i < now->count; ++i) {
        if (now->players[i].session != nullptr &&
            insert(connection, &now->players[i], ending) != 0) {
            return -1;
        }
    }
    return 0;
}

int32_t save_changes(sqldb_connection* connection, const snapshot* before, const snapshot* now,
                     const std::atomic<bool>* ending) noexcept {
    for (int32_t i = 0; i < before->count; ++i) {
        if (snapshot_find(now, before->players[i].ts_id) == nullptr &&
            delete_rows(connection, before->players[i].ts_id) != 0) {
            return -1;
        }
    }
    for (int32_t i = 0; i < now->count; ++i) {
        const saved_player* player = &now->players[i];
        if (player->session == nullptr) {
            continue; /* rows that stay, or a player that could not be looked at */
        }
        const saved_player* saved = snapshot_find(before, player->ts_id);
        if (saved != nullptr && snapshot_same_player(saved, player)) {
            continue;
        }
        if ((saved == nullptr ? insert(connection, player, ending)
                              : update(connection, player, saved, ending)) != 0) {
            return -1;
        }
    }
    return 0;
}

void save_adopt_ids(const snapshot* saved) noexcept {
    for (int32_t i = 0; i < saved->count; ++i) {
        if (saved->players[i].rows != nullptr) {
            lastmode_rows_set_id(saved->players[i].rows,
                                 static_cast<int64_t>(saved->players[i].ts_id));
        }
    }
}

/* Commits all or nothing. */
static int32_t save_at_end(control_block* control, sqldb_connection* connection) noexcept {
    bool is_whole = true;
    snapshot now = snapshot_take(control, nullptr, &is_whole);
    int32_t result = save_all(connection, &now, nullptr);
    if (result == 0) {
        result = sqldb_commit(connection);
    }
    const int error = errno;
    snapshot_free(&now);
    if (result != 0) {
        (void)sqldb_rollback(connection);
        errno = error;
    }
    return result;
}

extern "C" {

int32_t players_save_state(control_block* control) noexcept {
    if (control->lastmode_keep_missing != 0 && !lastmode_was_read()) {
        msglog(3, "What is saved of the players could not be read and is left as it is");
        return -1;
    }
    sqldb_connection* connection = sqldb_connect(CONNECTION, 0);
    if (connection == nullptr) {
        msglog(3, "Failed to connect to database");
        return -1;
    }
    sqldb_set_patience(connection, END_WAIT_MS, nullptr);
    if (save_at_end(control, connection) != 0) {
        msglog(3, NOT_SAVED, msglog_error_text(errno));
        (void)sqldb_disconnect(connection);
        return -1;
    }
    plugin_opening_saved();
    (void)sqldb_backup(connection, SQLDB_SCOPE_ALL);
    msglog(7, "The lastmode audio trksession backup is done");
    (void)sqldb_disconnect(connection); /* nothing is left to commit */
    (void)pps_unlink(CONFIGURATION);
    return 0;
}
}
