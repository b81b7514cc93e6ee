#include "snapshot.h"

#include <cstdlib>
#include <cstring>

#include <poll.h>

#include "msglog.h"
#include "player_pin.h"
#include "trksession_hold.h"

/* How long a player's lock is waited for. */
static constexpr int32_t LOOKS = 20;
static constexpr int32_t BETWEEN_LOOKS_MS = 10;

/* The session's part; false when there is none. */
static bool copy_session(player* player, saved_player* copy) noexcept {
    trksession* session = trksession_hold(player);
    if (session == nullptr) {
        return false;
    }
    {
        vel_lock_guard guard(session->lock);
        if (session->destroyed == 0) {
            copy->session = session;
            copy->mn_id = session->mn_id;
            copy->ts_id = session->ts_id;
            copy->length = session->length;
            copy->trk_id = session->trk_id;
            copy->trk_pos = session->trk_pos;
            copy->drawn = session->drawn;
            return true;
        }
    }
    trksession_release(session);
    return false;
}

/* A player without a session that has rows in the database. */
static bool copy_rows(const player* player, saved_player* copy) noexcept {
    copy->rows = lastmode_rows_of(player);
    if (copy->rows == nullptr) {
        return false;
    }
    copy->ts_id = static_cast<uint64_t>(lastmode_rows_id(copy->rows));
    return true;
}

static char* copy_name(const char* name) noexcept {
    char* copy = strdup(name);
    if (copy == nullptr) {
        msglog(1, "Cannot allocate memory");
    }
    return copy;
}

/* False when there is nothing to save of the player. Rows count only as long as no client has made
 * a session. */
static bool copy_player(player* player, bool had_session, saved_player* copy) noexcept {
    *copy = {};
    if (player->closed != 0 ||
        (!copy_session(player, copy) && (had_session || !copy_rows(player, copy)))) {
        return false;
    }
    copy->name = copy_name(player->name);
    copy->status = player->status;
    copy->shuffle_mode = player->shuffle_mode;
    copy->repeat_mode = player->repeat_mode;
    copy->playback_rate = player->playback_rate;
    return true;
}

static bool copy_locked(player* player, saved_player* copy) noexcept VEL_REQUIRES(player->lock) {
    return copy_player(player, player->sessions_made != 0, copy);
}

/* Copies the player between two commands. False when its lock cannot be had. */
static bool copy_soon(player* player, saved_player* copy, bool* is_there) noexcept {
    for (int32_t look = 0; look < LOOKS; ++look) {
        if (vel_mutex_try_lock(&player->lock)) {
            *is_there = copy_locked(player, copy);
            vel_mutex_unlock(&player->lock);
            return true;
        }
        poll(nullptr, 0, BETWEEN_LOOKS_MS);
    }
    return false;
}

/* What an earlier snapshot has of the player of that name; its rows or its session are still what
 * the database holds. */
static bool copy_earlier(const snapshot* before, const char* name, saved_player* copy) noexcept {
    for (int32_t i = 0; i < before->count; ++i) {
        if (strcmp(before->players[i].name, name) == 0) {
            *copy = before->players[i];
            copy->name = copy_name(name);
            copy->session = nullptr;
            copy->mn_id = nullptr;
            return true;
        }
    }
    return false;
}

/* Whether one of the first `count` entries is of that player. */
static bool has_player(const snapshot* taken, int32_t count, const char* name) noexcept {
    for (int32_t i = 0; i < count; ++i) {
        if (strcmp(taken->players[i].name, name) == 0) {
            return true;
        }
    }
    return false;
}

/* Adds the rows of players that could not be opened, unless somebody plays under that name now. */
static void copy_lost(snapshot* taken) noexcept {
    const int32_t players = taken->count;
    for (lastmode_rows* rows = lastmode_rows_lost(nullptr); rows != nullptr;
         rows = lastmode_rows_lost(rows)) {
        if (!has_player(taken, players, rows->name)) {
            saved_player* copy = &taken->players[taken->count++];
            copy->name = copy_name(rows->name);
            copy->rows = rows;
            copy->ts_id = static_cast<uint64_t>(lastmode_rows_id(rows));
        }
    }
}

static size_t count_lost() noexcept {
    size_t count = 0;
    for (const lastmode_rows* rows = lastmode_rows_lost(nullptr); rows != nullptr;
         rows = lastmode_rows_lost(rows)) {
        ++count;
    }
    return count;
}

snapshot snapshot_take(control_block* control, const snapshot* before, bool* is_whole) noexcept {
    int32_t count = 0;
    player** players = players_pin_all(control, &count);
    snapshot taken = {};
    taken.players = static_cast<saved_player*>(
        calloc(static_cast<size_t>(count) + count_lost() + 1, sizeof(saved_player)));
    if (taken.players == nullptr) {
        msglog(1, "Cannot allocate memory");
    }
    *is_whole = true;
    for (int32_t i = 0; i < count; ++i) {
        saved_player* copy = &taken.players[taken.count];
        bool is_there = false;
        if (!copy_soon(players[i], copy, &is_there)) {
            *is_whole = false;
            is_there = (before != nullptr && copy_earlier(before, players[i]->name, copy)) ||
                       copy_player(players[i], false, copy);
        }
        taken.count += is_there ? 1 : 0;
    }
    copy_lost(&taken);
    players_unpin(players, count);
    return taken;
}

bool snapshot_same_order(const saved_player* one, const saved_player* other) noexcept {
    return one->drawn.seed == other->drawn.seed && one->drawn.length == other->drawn.length &&
           one->drawn.first == other->drawn.first;
}

bool snapshot_same_player(const saved_player* one, const saved_player* other) noexcept {
    return strcmp(one->name, other->name) == 0 && one->rows == other->rows &&
           one->ts_id == other->ts_id && one->status == other->status &&
           one->shuffle_mode == other->shuffle_mode && one->repeat_mode == other->repeat_mode &&
           one->playback_rate == other->playback_rate && one->length == other->length &&
           one->trk_id == other->trk_id && one->trk_pos == other->trk_pos &&
           snapshot_same_order(one, other);
}

bool snapshot_same(const snapshot* one, const snapshot* other) noexcept {
    if (one->count != other->count) {
        return false;
    }
    for (int32_t i = 0; i < one->count; ++i) {
        if (!snapshot_same_player(&one->players[i], &other->players[i])) {
            return false;
        }
    }
    return true;
}

const saved_player* snapshot_find(const snapshot* snapshot, uint64_t ts_id) noexcept {
    for (int32_t i = 0; i < snapshot->count; ++i) {
        if (snapshot->players[i].ts_id == ts_id) {
            return &snapshot->players[i];
        }
    }
    return nullptr;
}

void snapshot_shorten(snapshot* snapshot, int32_t count) noexcept {
    while (snapshot->count > count) {
        saved_player* last = &snapshot->players[--snapshot->count];
        trksession_release(last->session);
        free(last->name);
    }
}

void snapshot_let_go(snapshot* snapshot) noexcept {
    for (int32_t i = 0; i < snapshot->count; ++i) {
        saved_player* player = &snapshot->players[i];
        trksession_release(player->session);
        player->session = nullptr;
        player->mn_id = nullptr;
    }
}

void snapshot_free(snapshot* snapshot) noexcept {
    snapshot_shorten(snapshot, 0);
    free(snapshot->players);
    *snapshot = {};
}
