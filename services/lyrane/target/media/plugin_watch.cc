#include "plugin_watch.h"

#include <atomic>
#include <ctime>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <veloran/lock.h>
#include <veloran/process.h>

#include "msglog.h"

static constexpr int32_t SLOTS = 64;
static constexpr int64_t NS_PER_MS = 1000000;
static constexpr int64_t NS_PER_SECOND = 1000 * NS_PER_MS;
static constexpr int64_t LOOK_EVERY_NS = NS_PER_SECOND / 2;

static constexpr int64_t FREE = 0;
static constexpr int64_t TAKEN = -1; /* being filled, or being looked at */

/* One call in progress. The call's texts are read by who has TAKEN the slot: the call is not left
 * meanwhile. */
struct watch_slot {
    std::atomic<int64_t> since; /* or FREE or TAKEN */
    std::atomic<const char*> plugin;
    std::atomic<const char*> owner;
    std::atomic<pid_t> thread;
    plugin_watch_call call;
    int64_t reported; /* the `since` that has been named in the log; the watch's own */
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
    if (since <= FREE || now - since < PLUGIN_WATCH_SECONDS * NS_PER_SECOND ||
        slot->reported == since) {
        return;
    }
    int64_t expected = since;
    if (slot->since.compare_exchange_strong(expected, TAKEN)) {
        const plugin_watch_call& call = slot->call;
        slot->reported = since;
        msglog(3, "A call of '%s' into %s does not return (player %s, media source %d)", call.entry,
               call.plugin, call.player != nullptr ? call.player : "none", call.ms_id);
        slot->since = since;
    }
}

/* True when a call is in progress. */
static bool look(void) noexcept {
    bool busy = false;
    const int64_t now = now_ns();
    for (watch_slot& slot : slots) {
        busy = busy || slot.since != FREE;
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

int32_t plugin_watch_enter(const plugin_watch_call& call) noexcept {
    static thread_local const pid_t thread = gettid();
    for (int32_t i = 0; i < SLOTS; ++i) {
        int64_t expected = FREE;
        if (slots[i].since.compare_exchange_strong(expected, TAKEN)) {
            slots[i].call = call;
            slots[i].plugin = call.plugin;
            slots[i].owner = call.owner;
            slots[i].thread = thread;
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
    if (ticket < 0) {
        return;
    }
    std::atomic<int64_t>* since = &slots[ticket].since;
    int64_t expected = *since;
    while (expected == TAKEN || !since->compare_exchange_weak(expected, FREE)) {
        sched_yield(); /* the watch writes a line about this call */
        expected = *since;
    }
}

int32_t plugin_watch_inside(const char* plugin) noexcept {
    for (const watch_slot& slot : slots) {
        if (slot.since != FREE && (slot.plugin == plugin || slot.owner == plugin)) {
            return 1;
        }
    }
    return 0;
}

int64_t plugin_watch_main_since(void) noexcept {
    for (const watch_slot& slot : slots) {
        const int64_t since = slot.since;
        if (since > FREE && slot.thread == getpid()) {
            return since / NS_PER_MS;
        }
    }
    return 0;
}

/* The thread's own slot does not change under it, but for the watch that may have it TAKEN. */
bool plugin_watch_here(plugin_watch_call* call) noexcept {
    const pid_t thread = gettid();
    for (const watch_slot& slot : slots) {
        if (slot.since != FREE && slot.thread == thread) {
            *call = slot.call;
            return true;
        }
    }
    return false;
}
