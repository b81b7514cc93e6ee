#include "plugin_watch.h"

#include <atomic>
#include <ctime>

#include <pthread.h>

#include <veloran/lock.h>
#include <veloran/process.h>

#include "msglog.h"

static constexpr int32_t SLOTS = 64;
static constexpr int64_t NS_PER_SECOND = 1000000000;
static constexpr int64_t LOOK_EVERY_NS = NS_PER_SECOND / 2;

/* One call in progress. `since` is 0 in a free slot and -1 in one that is being filled; the rest
 * is valid while it is above 0. */
struct watch_slot {
    std::atomic<int64_t> since;
    std::atomic<const char*> entry;
    std::atomic<int32_t> ms_id;
    std::atomic<int64_t> reported; /* the `since` that has been named in the log */
};

static watch_slot slots[SLOTS];
static vel_mutex watch_lock = {PTHREAD_MUTEX_INITIALIZER};
static pthread_cond_t watch_wake = PTHREAD_COND_INITIALIZER;
static bool watch_started VEL_GUARDED_BY(watch_lock);
static std::atomic<bool> watch_awake; /* false: the thread sleeps until it is woken */

static int64_t now_ns() noexcept {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * NS_PER_SECOND + now.tv_nsec;
}

/* Names a call that takes too long, once. */
static void look_at(watch_slot* slot, int64_t now) noexcept {
    const int64_t since = slot->since;
    if (since <= 0 || now - since < PLUGIN_WATCH_SECONDS * NS_PER_SECOND ||
        slot->reported == since) {
        return;
    }
    const char* entry = slot->entry;
    const int32_t ms_id = slot->ms_id;
    if (slot->since == since) {
        slot->reported = since;
        msglog(3, "A call of '%s' into the plug-in of media source %d does not return", entry,
               ms_id);
    }
}

/* True when a call is in progress. */
static bool look(void) noexcept {
    bool busy = false;
    const int64_t now = now_ns();
    for (watch_slot& slot : slots) {
        busy = busy || slot.since != 0;
        look_at(&slot, now);
    }
    return busy;
}

static timespec next_look(void) noexcept {
    const int64_t at = now_ns() + LOOK_EVERY_NS;
    return {static_cast<time_t>(at / NS_PER_SECOND), static_cast<long>(at % NS_PER_SECOND)};
}

/* Sleeps without a limit only after it has said so and then found no call: a call that begins
 * later finds `watch_awake` false and wakes it. */
static void* watch_body(void* ignored) noexcept VEL_NO_TSA /* condition variable */ {
    (void)ignored;
    vel_lock_guard guard(watch_lock);
    for (;;) {
        watch_awake = false;
        if (!look()) {
            while (!watch_awake) {
                pthread_cond_wait(&watch_wake, &watch_lock.native);
            }
        }
        watch_awake = true;
        const timespec deadline = next_look();
        pthread_cond_clockwait(&watch_wake, &watch_lock.native, CLOCK_MONOTONIC, &deadline);
    }
}

static void wake_watch(void) noexcept {
    vel_lock_guard guard(watch_lock);
    if (!watch_started) {
        pthread_t thread;
        watch_started = process_thread_start("plugin watch", 1, watch_body, nullptr, &thread) == 0;
    }
    watch_awake = true;
    pthread_cond_signal(&watch_wake);
}

int32_t plugin_watch_enter(const char* entry, int32_t ms_id) noexcept {
    for (int32_t i = 0; i < SLOTS; ++i) {
        int64_t free_slot = 0;
        if (slots[i].since.compare_exchange_strong(free_slot, -1)) {
            slots[i].entry = entry;
            slots[i].ms_id = ms_id;
            slots[i].since = now_ns();
            if (!watch_awake) {
                wake_watch();
            }
            return i;
        }
    }
    return -1;
}

void plugin_watch_leave(int32_t ticket) noexcept {
    if (ticket >= 0) {
        slots[ticket].since = 0;
    }
}

int32_t plugin_watch_inside(int32_t ms_id) noexcept {
    for (const watch_slot& slot : slots) {
        if (slot.since > 0 && slot.ms_id == ms_id) {
            return 1;
        }
    }
    return 0;
}
