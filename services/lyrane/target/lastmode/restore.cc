/* Reading what was saved, and starting a thread for each saved track session. */
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <veloran/process.h>
#include <veloran/sqldb.h>

#include "lastmode.h"
#include "lastmode_rows.h"
#include "lastmode_threads.h"
#include "msglog.h"
#include "player_pin.h"
#include "player_registry.h"
#include "plugin_opening.h"
#include "user_quota.h"

static constexpr char CONNECTION[] = "/dev/sqldb/lyrane";

/* Columns of the three tables. */
enum players_column : int32_t {
    PLAYER_NAME,
    PLAYER_TS_ID,
    PLAYER_STATUS,
    PLAYER_SHUFFLE,
    PLAYER_REPEAT,
    PLAYER_RATE
};
enum sessions_column : int32_t {
    SESSION_PLUGIN,
    SESSION_TS_ID,
    SESSION_MS_TYPE,
    SESSION_MS_UID,
    SESSION_MN_ID,
    SESSION_LENGTH,
    SESSION_TRK_ID,
    SESSION_TRK_POS
};
enum tracks_column : int32_t {
    TRACK_KEY,
    TRACK_TS_ID,
    TRACK_ID,
    TRACK_NAME,
    TRACK_URL,
    TRACK_TYPE,
    TRACK_MS_UID,
    TRACK_MS_TYPE
};

/* A number that does not fit counts as one that is not there. */
static int32_t number(const sqldb_result* result, int64_t row, int32_t column) noexcept {
    const int64_t value = sqldb_cell_integer(result, row, column, 0);
    return value < INT32_MIN || value > INT32_MAX ? 0 : static_cast<int32_t>(value);
}

/* A copy of a cell's text; null for a cell without one. */
static char* text(const sqldb_result* result, int64_t row, int32_t column) noexcept {
    const char* cell = sqldb_cell(result, row, column);
    char* copy = cell != nullptr ? strdup(cell) : nullptr;
    if (cell != nullptr && copy == nullptr) {
        msglog(1, "Cannot allocate memory");
    }
    return copy;
}

static medianode* read_tracks(const sqldb_result* rows, int32_t count) noexcept {
    auto* tracks = static_cast<medianode*>(calloc(static_cast<size_t>(count), sizeof(medianode)));
    if (tracks == nullptr) {
        msglog(1, "Cannot allocate memory");
        return nullptr;
    }
    for (int32_t i = 0; i < count; ++i) {
        medianode* track = &tracks[i];
        track->id = text(rows, i, TRACK_ID);
        track->name = text(rows, i, TRACK_NAME);
        track->url = text(rows, i, TRACK_URL);
        track->type = number(rows, i, TRACK_TYPE);
        track->ms_uid = text(rows, i, TRACK_MS_UID);
        track->ms_type = number(rows, i, TRACK_MS_TYPE);
        track->count = -1;
    }
    return tracks;
}

/* Executes a query about one session; null when it fails. */
static sqldb_result* query(sqldb_connection* connection, const char* statement,
                           int64_t ts_id) noexcept {
    if (sqldb_statement(connection, statement, static_cast<unsigned long long>(ts_id)) != 0) {
        return nullptr;
    }
    return sqldb_getresult(connection);
}

/* The session's fair order, if there is one; older databases have no place for it. */
static trksession_draw read_draw(sqldb_connection* connection, int64_t ts_id) noexcept {
    sqldb_result* row =
        query(connection, "SELECT seed, length, first FROM lyrane_orders WHERE ts_id=%llu", ts_id);
    trksession_draw drawn = {};
    if (sqldb_rows(row) == 1) {
        drawn = {static_cast<uint64_t>(sqldb_cell_integer(row, 0, 0, 0)), number(row, 0, 1),
                 number(row, 0, 2)};
    }
    sqldb_freeresult(row);
    return drawn;
}

static void fill_session(player_state* state, const sqldb_result* session) noexcept {
    state->ms_plugin_name = text(session, 0, SESSION_PLUGIN);
    state->ms_type = number(session, 0, SESSION_MS_TYPE);
    state->ms_uid = text(session, 0, SESSION_MS_UID);
    state->mn_id = text(session, 0, SESSION_MN_ID);
    state->trk_id = number(session, 0, SESSION_TRK_ID);
    state->trk_pos = number(session, 0, SESSION_TRK_POS);
}

/* The rows of a session's tracks, as many as the session says; else null, with the message. */
static sqldb_result* session_tracks(sqldb_connection* connection, const sqldb_result* session,
                                    int64_t ts_id, const char* name) noexcept {
    const int64_t length = sqldb_cell_integer(session, 0, SESSION_LENGTH, 0);
    if (length == 0) {
        msglog(3, "The trksession saved for %s has zero tracks", name);
        return nullptr;
    }
    sqldb_result* tracks =
        query(connection, "SELECT * from trksession_medianodes WHERE ts_id=%llu", ts_id);
    if (tracks == nullptr) {
        msglog(3, "The TABLE trksession_medianodes was not properly saved for %s", name);
        return nullptr;
    }
    if (sqldb_rows(tracks) != length || length > INT32_MAX) {
        msglog(3, "The number of tracks was not properly saved for %s", name);
        sqldb_freeresult(tracks);
        return nullptr;
    }
    return tracks;
}

/* No plug-in is asked about a node without an id. */
static bool tracks_have_ids(const sqldb_result* tracks) noexcept {
    for (int64_t row = 0; row < sqldb_rows(tracks); ++row) {
        if (sqldb_cell(tracks, row, TRACK_ID) == nullptr) {
            return false;
        }
    }
    return true;
}

/* Reads a player's session into `state`. False, with the message, when there is nothing to bring
 * back. */
static bool read_session(sqldb_connection* connection, int64_t ts_id, const char* name,
                         player_state* state) noexcept {
    sqldb_result* session = query(connection, "SELECT * from trksessions WHERE ts_id=%llu", ts_id);
    if (session == nullptr) {
        msglog(3, "The TABLE trksession was not properly saved for %s", name);
        return false;
    }
    sqldb_result* tracks = nullptr;
    if (sqldb_rows(session) != 1) {
        msglog(3, "The trksession saved for %s is not unique", name);
    } else {
        tracks = session_tracks(connection, session, ts_id, name);
    }
    if (tracks != nullptr && !tracks_have_ids(tracks)) {
        msglog(3, "The TABLE trksession_medianodes was not properly saved for %s", name);
    } else if (tracks != nullptr) {
        fill_session(state, session);
        state->length = static_cast<int32_t>(sqldb_rows(tracks));
        state->tracks = read_tracks(tracks, state->length);
        state->drawn = read_draw(connection, ts_id);
    }
    sqldb_freeresult(tracks);
    sqldb_freeresult(session);
    return state->tracks != nullptr;
}

/* A player that cannot be opened keeps what is saved of it, if the configuration wants that: only
 * then is it true, and the players behind it come back. */
static bool keep_lost(const control_block* control, const char* name, int64_t ts_id) noexcept {
    if (control->lastmode_keep_missing == 0) {
        return false;
    }
    msglog(3, "Player %s cannot be opened; what is saved of it stays saved", name);
    if (ts_id != -1) {
        lastmode_rows_add_lost(name, ts_id);
    }
    return true;
}

/* One row of the players. False when the player cannot be opened. */
static bool restore_player(control_block* control, sqldb_connection* connection,
                           const sqldb_result* players, int64_t row) noexcept {
    const char* name = sqldb_cell(players, row, PLAYER_NAME);
    if (name == nullptr) {
        msglog(3, "A player was saved without its name");
        return true;
    }
    player* opened = player_open_pinned(control, name, user_quota_own());
    const int64_t ts_id = sqldb_cell_integer(players, row, PLAYER_TS_ID, -1);
    if (opened == nullptr) {
        return keep_lost(control, name, ts_id);
    }
    auto* state = static_cast<player_state*>(calloc(1, sizeof(player_state)));
    if (state == nullptr) {
        msglog(1, "Cannot allocate memory");
        return false;
    }
    state->player = opened;
    state->status = number(players, row, PLAYER_STATUS);
    state->shuffle_mode = number(players, row, PLAYER_SHUFFLE);
    state->repeat_mode = number(players, row, PLAYER_REPEAT);
    state->playback_rate = static_cast<float>(sqldb_cell_real(players, row, PLAYER_RATE, 1));
    if (ts_id == -1 || !read_session(connection, ts_id, name, state)) {
        free_player_state(&state, 1);
        return true;
    }
    state->rows = lastmode_rows_add(opened, ts_id);
    lastmode_threads_start(state);
    return true;
}

/* The rows of the players; null with the message. */
static sqldb_result* read_players(sqldb_connection* connection) noexcept {
    if (sqldb_statement(connection, "SELECT * from players;") != 0) {
        msglog(3, "Failed to access TABLE players: %s", msglog_error_text(errno));
        return nullptr;
    }
    sqldb_result* players = sqldb_getresult(connection);
    if (players == nullptr) {
        msglog(3, "Failed to get result from TABLE players: %s", msglog_error_text(errno));
    }
    return players;
}

static bool all_was_read; /* [main] */

bool lastmode_was_read(void) noexcept {
    return all_was_read;
}

extern "C" {

int32_t lastmode_restore(control_block* control) noexcept {
    plugin_opening_load(control->database);
    const int32_t ready = database_initialize(control);
    if (ready != 0) {
        return ready;
    }
    sqldb_connection* connection = sqldb_connect(CONNECTION, 0);
    if (connection == nullptr) {
        msglog(3, "Failed to connect to database");
        return -1;
    }
    sqldb_result* players = read_players(connection);
    int32_t result = players != nullptr ? 0 : -1;
    for (int64_t row = 0; row < sqldb_rows(players) && result == 0; ++row) {
        result = restore_player(control, connection, players, row) ? 0 : -1;
    }
    sqldb_freeresult(players);
    (void)sqldb_disconnect(connection);
    all_was_read = result == 0;
    return result;
}

void free_player_state(player_state** state, int32_t deep) noexcept {
    if (state == nullptr || *state == nullptr) {
        return;
    }
    player_state* gone = *state;
    free(gone->mn_id);
    free(gone->ms_uid);
    free(gone->ms_plugin_name);
    if (gone->length > 0) {
        free_medianodes(&gone->tracks, deep != 0 ? gone->length : 0);
    }
    player_unpin(gone->player);
    free(gone);
    *state = nullptr;
}
}
