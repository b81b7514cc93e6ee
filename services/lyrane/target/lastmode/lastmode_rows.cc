#include "lastmode_rows.h"

#include <cstdlib>
#include <cstring>

#include <pthread.h>

#include <veloran/lock.h>

#include "msglog.h"
#include "player_pin.h"

static vel_mutex rows_lock = {PTHREAD_MUTEX_INITIALIZER}; /* a leaf; covers all records */
static lastmode_rows* newest VEL_GUARDED_BY(rows_lock);

static lastmode_rows* add(player* player, char* name, int64_t ts_id) noexcept {
    auto* rows = static_cast<lastmode_rows*>(calloc(1, sizeof(lastmode_rows)));
    if (rows == nullptr || (player == nullptr && name == nullptr)) {
        msglog(1, "Cannot allocate memory");
        return nullptr;
    }
    rows->player = player;
    rows->name = name;
    rows->ts_id = ts_id;
    vel_lock_guard guard(rows_lock);
    rows->next = newest;
    newest = rows;
    return rows;
}

lastmode_rows* lastmode_rows_add(player* player, int64_t ts_id) noexcept {
    player_pin(player);
    return add(player, nullptr, ts_id);
}

void lastmode_rows_add_lost(const char* name, int64_t ts_id) noexcept {
    (void)add(nullptr, strdup(name), ts_id);
}

lastmode_rows* lastmode_rows_lost(const lastmode_rows* after) noexcept {
    vel_lock_guard guard(rows_lock);
    lastmode_rows* rows = after != nullptr ? after->next : newest;
    while (rows != nullptr && rows->name == nullptr) {
        rows = rows->next;
    }
    return rows;
}

void lastmode_rows_over(lastmode_rows* rows) noexcept {
    if (rows == nullptr) {
        return;
    }
    player* pinned = nullptr;
    {
        vel_lock_guard guard(rows_lock);
        pinned = rows->player;
        rows->player = nullptr;
    }
    player_unpin(pinned);
}

lastmode_rows* lastmode_rows_of(const player* player) noexcept {
    vel_lock_guard guard(rows_lock);
    lastmode_rows* rows = newest;
    while (rows != nullptr && rows->player != player) {
        rows = rows->next;
    }
    return rows;
}

int64_t lastmode_rows_id(const lastmode_rows* rows) noexcept {
    vel_lock_guard guard(rows_lock);
    return rows->ts_id;
}

void lastmode_rows_set_id(lastmode_rows* rows, int64_t ts_id) noexcept {
    vel_lock_guard guard(rows_lock);
    rows->ts_id = ts_id;
}
