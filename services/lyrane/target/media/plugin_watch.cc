#include "plugin_watch.h"

#include <atomic>
#include <ctime>
#include <new>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <veloran/lock.h>
#include <veloran/process.h>

#include "msglog.h"

static constexpr int32_t SLOTS = 64; /* of a block */
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

/* Blocks are added when all slots are taken, and stay. */
struct watch_block {
    watch_slot slots[SLOTS];
    std::atomic<watch_block*> next;
};

static watch_block first_block;
/* Calls that there was no memory to note. */
static std::atomic<int32_t> unnoted;
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

/* The first slot for which `test` is true, or null. Safe in a signal handler. */
template <typename Test>
static watch_slot* find_slot(Test test) noexcept {
    for (watch_block* block = &first_block; block != nullptr; block = block->next) {
        for (watch_slot& slot : block->slots) {
            if (test(slot)) {
                return &slot;
            }
        }
    }
    return nullptr;
}

/* True when a call is in progress. */
static bool look(void) noexcept {
    bool busy = false;
    const int64_t now = now_ns();
    (void)find_slot([&](watch_slot& slot) noexcept {
        busy = busy || slot.since != FREE;
        look_at(&slot, now);
        return false;
    });
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

static bool take(watch_slot& slot) noexcept {
    int64_t expected = FREE;
    return slot.since.compare_exchange_strong(expected, TAKEN);
}

/* A slot that is TAKEN, or null without memory. */
static watch_slot* take_slot(void) noexcept {
    watch_slot* slot = find_slot(take);
    if (slot != nullptr) {
        return slot;
    }
    auto* block = new (std::nothrow) watch_block();
    if (block == nullptr) {
        return nullptr;
    }
    slot = &block->slots[0];
    slot->since = TAKEN;
    std::atomic<watch_block*>* end = &first_block.next;
    for (watch_block* after = nullptr; !end->compare_exchange_weak(after, block);) {
        if (after != nullptr) {
            end = &after->next;
            after = nullptr;
        }
    }
    return slot;
}

watch_slot* plugin_watch_enter(const plugin_watch_call& call) noexcept {
    static thread_local const pid_t thread = gettid();
    watch_slot* slot = take_slot();
    if (slot == nullptr) {
        ++unnoted;
        return nullptr;
    }
    slot->call = call;
    slot->plugin = call.plugin;
    slot->owner = call.owner;
    slot->thread = thread;
    slot->since = now_ns();
    if (!watch_awake) {
        wake_watch();
    }
    return slot;
}

void plugin_watch_leave(watch_slot* slot) noexcept {
    if (slot == nullptr) {
        --unnoted;
        return;
    }
    int64_t expected = slot->since;
    while (expected == TAKEN || !slot->since.compare_exchange_weak(expected, FREE)) {
        sched_yield(); /* the watch writes a line about this call */
        expected = slot->since;
    }
}

int32_t plugin_watch_inside(const char* plugin) noexcept {
    return unnoted != 0 ||
           find_slot([plugin](const watch_slot& slot) noexcept {
               return slot.since != FREE && (slot.plugin == plugin || slot.owner == plugin);
           }) != nullptr;
}

int64_t plugin_watch_main_since(void) noexcept {
    int64_t found = 0;
    (void)find_slot([&found](const watch_slot& slot) noexcept {
        const int64_t since = slot.since;
        found = since > FREE && slot.thread == getpid() ? since : 0;
        return found != 0;
    });
    return found / NS_PER_MS;
}

/* The thread's own slot does not change under it, but for the watch that may have it TAKEN. */
bool plugin_watch_here(plugin_watch_call* call) noexcept {
    const pid_t thread = gettid();
    const watch_slot* slot = find_slot([thread](const watch_slot& at) noexcept {
        return at.since != FREE && at.thread == thread;
    });
    if (slot != nullptr) {
        *call = slot->call;
    }
    return slot != nullptr;
}
