/* Saving what the players play. */
#include <cerrno>
#include <cstdlib>

#include <veloran/pps.h>
#include <veloran/sqldb.h>

#include "lastmode.h"
#include "lastmode_threads.h"
#include "media.h"
#include "msglog.h"
#include "player_pin.h"
#include "trksession.h"
#include "trksession_build.h"
#include "trksession_hold.h"

static constexpr char CONNECTION[] = "/dev/sqldb/lyrane";
static constexpr char CONFIGURATION[] = "/pps/veloran/sqldb/config/lyrane";

/* In this order; the second one makes the keys of the tracks begin at 1 again. */
static constexpr const char* clears[] = {
    "DELETE FROM trksession_medianodes;",
    "DELETE FROM sqlite_sequence WHERE name='trksession_medianodes'",
    "DELETE FROM trksessions;",
    "DELETE FROM players;",
};

static void insert_failed(const char* table) noexcept {
    msglog(3, "sqldb_statement on TABLE %s failed: %s", table, msglog_error_text(errno));
}

static constexpr char INSERT_PLAYER[] =
    "INSERT INTO players(name, ts_id, status, shuffle_mode,repeat_mode,playback_rate) "
    "VALUES('%q',%llu,%d,%d,%d,%f);";
static constexpr char INSERT_SESSION[] =
    "INSERT INTO trksessions(ts_id, ms_plugin_name, ms_type, ms_uid, mn_id, length, trk_id, "
    "trk_pos) VALUES(%llu, '%q', %d, '%q', '%q', %d, %d, %d);";
static constexpr char INSERT_TRACK[] =
    "INSERT INTO trksession_medianodes(ts_id, mn_id, name, url, mn_type, ms_uid, ms_type) "
    "VALUES(%llu, '%q', '%q', '%q', %d, '%q', %d);";

static void save_player(sqldb_connection* connection, const player* player,
                        uint64_t ts_id) noexcept {
    msglog(7, "save player %s into db", player->name);
    if (sqldb_statement(connection, INSERT_PLAYER, player->name,
                        static_cast<unsigned long long>(ts_id), player->status.load(),
                        player->shuffle_mode.load(), player->repeat_mode.load(),
                        static_cast<double>(player->playback_rate.load())) != 0) {
        insert_failed("players");
    }
}

static void save_tracks(sqldb_connection* connection, unsigned long long ts_id,
                        const medianode* tracks, int32_t count) noexcept {
    for (int32_t i = 0; i < count; ++i) {
        const medianode* track = &tracks[i];
        if (sqldb_statement(connection, INSERT_TRACK, ts_id, track->id, track->name, track->url,
                            track->type, track->ms_uid != nullptr ? track->ms_uid : "NULL",
                            track->ms_type) != 0) {
            insert_failed("trksession_medianodes");
        }
    }
}

static void save_session(sqldb_connection* connection, const trksession* session) noexcept
    VEL_REQUIRES(session->lock) {
    msglog(7, "save trksessions into db");
    const mediasource* source = session->mediasource;
    if (sqldb_statement(connection, INSERT_SESSION, static_cast<unsigned long long>(session->ts_id),
                        source->plugin_name, source->type, source->uid, session->mn_id,
                        session->length, session->trk_id, session->trk_pos) != 0) {
        insert_failed("trksessions");
    }
    save_tracks(connection, static_cast<unsigned long long>(session->ts_id), session->tracks,
                session->length);
}

/* What was saved of a player whose session did not come back, unless the player has gone or a
 * client has begun something else on it. The session's id is new: the old one may be in use. */
static void save_kept(sqldb_connection* connection, player_state* state) noexcept {
    player* player = state->player;
    {
        vel_lock_guard guard(player->lock);
        if (player->closed != 0 || player->sessions_made != 0) {
            return;
        }
    }
    const auto ts_id = static_cast<unsigned long long>(trksession_new_id());
    if (sqldb_statement(connection, INSERT_PLAYER, player->name, ts_id, state->status,
                        state->shuffle_mode, state->repeat_mode,
                        static_cast<double>(state->playback_rate)) != 0) {
        insert_failed("players");
    }
    if (sqldb_statement(connection, INSERT_SESSION, ts_id, state->ms_plugin_name, state->ms_type,
                        state->ms_uid, state->mn_id, state->length, state->trk_id,
                        state->trk_pos) != 0) {
        insert_failed("trksessions");
    }
    save_tracks(connection, ts_id, state->tracks, state->length);
}

static void save_all_kept(sqldb_connection* connection) noexcept {
    for (player_state* state = lastmode_take_kept(); state != nullptr;) {
        player_state* next = state->next;
        save_kept(connection, state);
        free_player_state(&state, 1);
        state = next;
    }
}

/* The session stays whole while its lock is held: a build that still appends, and a source that
 * goes, wait. The player's own fields are read one by one. */
static void save_one(sqldb_connection* connection, player* player) noexcept {
    trksession* session = trksession_hold(player);
    if (session == nullptr) {
        return;
    }
    {
        vel_lock_guard guard(session->lock);
        if (session->destroyed == 0) {
            save_player(connection, player, session->ts_id);
            save_session(connection, session);
        }
    }
    trksession_release(session);
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
    for (const char* clear : clears) {
        if (sqldb_statement(connection, clear) != 0) {
            (void)sqldb_rollback(connection);
            (void)sqldb_disconnect(connection);
            return -1;
        }
    }
    int32_t count = 0;
    player** players = players_pin_all(control, &count);
    for (int32_t i = 0; i < count; ++i) {
        save_one(connection, players[i]);
    }
    players_unpin(players, count);
    save_all_kept(connection);
    (void)sqldb_backup(connection, SQLDB_SCOPE_ALL);
    msglog(7, "The lastmode audio trksession backup is done");
    if (sqldb_disconnect(connection) != 0) {
        msglog(3, "What the players play could not be saved: %s", msglog_error_text(errno));
        return -1;
    }
    (void)pps_unlink(CONFIGURATION);
    return 0;
}
}
