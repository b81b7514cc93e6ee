/* Saving while the service runs. */
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <utility>

#include <pthread.h>

#include <veloran/lock.h>
#include <veloran/process.h>
#include <veloran/sqldb.h>

#include "lastmode.h"
#include "lastmode_threads.h"
#include "lastmode_time.h"
#include "msglog.h"
#include "ppschange.h"
#include "save.h"

static constexpr char CONNECTION[] = "/dev/sqldb/lyrane";

static pthread_t thread;         /* [main] */
static bool is_running;          /* [main] */
static std::atomic<bool> ending; /* the thread is to end */
static vel_mutex sleep_lock = {PTHREAD_MUTEX_INITIALIZER};
static pthread_cond_t woken = PTHREAD_COND_INITIALIZER; /* with sleep_lock: ending was set */

/* The thread's own. */
struct checkpoints {
    control_block* control;
    sqldb_connection* connection; /* null while there is none */
    snapshot saved;               /* what the database holds, once `is_known` */
    bool is_known;
    bool is_failing; /* the last attempt failed, and that was said */
};

static int32_t write_changes(checkpoints* own, snapshot* now) noexcept {
    const int32_t result = own->is_known ? save_changes(own->connection, &own->saved, now, &ending)
                                         : save_all(own->connection, now, &ending);
    if (result == 0 && sqldb_commit(own->connection) == 0) {
        return 0;
    }
    const int32_t error = errno;
    (void)sqldb_rollback(own->connection);
    errno = error;
    return -1;
}

/* Takes the snapshot over when it was written. False, with the reason said once, when it could not
 * be. */
static bool save(checkpoints* own, snapshot* now) noexcept {
    if (own->connection == nullptr) {
        own->connection = sqldb_connect(CONNECTION, 0);
        sqldb_set_patience(own->connection, SQLDB_BUSY_MS, &ending);
    }
    if (own->connection == nullptr || write_changes(own, now) != 0) {
        if (errno != ECANCELED && !ending && !own->is_failing) {
            msglog(3, "What the players play cannot be saved for now: %s",
                   msglog_error_text(errno));
            own->is_failing = true;
        }
        (void)sqldb_disconnect(own->connection);
        own->connection = nullptr;
        snapshot_free(now);
        return false;
    }
    if (!own->is_known) {
        save_adopt_ids(now);
    }
    snapshot_free(&own->saved);
    own->saved = *now;
    own->is_known = true;
    own->is_failing = false;
    snapshot_let_go(&own->saved);
    return true;
}

/* False when something is still to be saved. */
static bool look(checkpoints* own) noexcept {
    bool is_whole = false;
    snapshot now = snapshot_take(own->control, &own->saved, &is_whole);
    if (snapshot_same(&own->saved, &now)) {
        snapshot_free(&now);
        return is_whole;
    }
    return save(own, &now) && is_whole;
}

/* Sleeps until that time or the end. */
static void sleep_until(const timespec* at) noexcept VEL_NO_TSA
/* a condition variable waits with the lock */ {
    vel_lock_guard guard(sleep_lock);
    while (!ending &&
           pthread_cond_clockwait(&woken, &sleep_lock.native, CLOCK_MONOTONIC, at) == 0) {
    }
}

/* The next look is due so that the end of its save comes one period after the present look began:
 * nothing that is saved is ever older than the period. With saves that take more than half of it
 * the next begins at once, and what is saved is as old as two of them. A save that failed is not
 * tried again before a period is over. */
static void sleep_for_period(const checkpoints* own, const timespec* began) noexcept {
    const int64_t period = int64_t{own->control->lastmode_checkpoint} * 1000;
    const timespec now = lastmode_now();
    const int64_t took = lastmode_ms_between(*began, now);
    const timespec next =
        lastmode_after(now, own->is_failing ? period : std::max(period - 2 * took, int64_t{0}));
    sleep_until(&next);
}

/* What the database holds before the first save: the rows that still wait. Whether that is all. */
static bool look_first(checkpoints* own) noexcept {
    bool is_whole = false;
    snapshot now = snapshot_take(own->control, nullptr, &is_whole);
    int32_t staying = 0;
    for (int32_t i = 0; i < now.count; ++i) {
        if (now.players[i].rows != nullptr) {
            std::swap(now.players[staying++], now.players[i]);
        }
    }
    is_whole = is_whole && staying == now.count;
    snapshot_shorten(&now, staying);
    own->saved = now;
    return is_whole;
}

static void* run(void* control) noexcept {
    checkpoints own = {};
    own.control = static_cast<control_block*>(control);
    uint32_t seen = ppschange_count();
    bool is_saved = look_first(&own);
    while (!ending) {
        if (is_saved) {
            ppschange_await(seen);
        }
        const timespec began = lastmode_now();
        seen = ppschange_count();
        is_saved = ending || look(&own);
        sleep_for_period(&own, &began);
    }
    (void)sqldb_disconnect(own.connection);
    snapshot_free(&own.saved);
    return nullptr;
}

void lastmode_checkpoints_start(control_block* control) noexcept {
    if (control->lastmode_checkpoint == 0) {
        return;
    }
    if (!lastmode_was_read()) {
        msglog(3,
               "What is saved of the players could not be read; nothing is saved before the end");
        return;
    }
    const int32_t error = process_thread_start("checkpoint", 0, run, control, &thread);
    if (error != 0) {
        msglog(3, "Failed to create a checkpoint thread (%d:%s)", error, msglog_error_text(error));
        return;
    }
    is_running = true;
}

void lastmode_checkpoints_stop(void) noexcept {
    if (!is_running) {
        return;
    }
    {
        vel_lock_guard guard(sleep_lock);
        ending = true;
        pthread_cond_broadcast(&woken);
    }
    ppschange_raise();
    pthread_join(thread, nullptr);
    is_running = false;
}
