#include "plugin_browsing.h"

#include <pthread.h>

#include <veloran/lock.h>

#include "plugin_call.h"

static vel_mutex browsing_lock = {PTHREAD_MUTEX_INITIALIZER};
static pthread_cond_t cancel_over = PTHREAD_COND_INITIALIZER;
static browse_in_progress* calls VEL_GUARDED_BY(browsing_lock);
static uint32_t sweeps VEL_GUARDED_BY(browsing_lock);

void plugin_browsing_enter(browse_in_progress* call) noexcept {
    vel_lock_guard guard(browsing_lock);
    call->next = calls;
    calls = call;
}

void plugin_browsing_leave(browse_in_progress* call) noexcept {
    vel_lock_guard guard(browsing_lock);
    while (call->cancelling != 0) {
        pthread_cond_wait(&cancel_over, &browsing_lock.native);
    }
    for (browse_in_progress** link = &calls; *link != nullptr; link = &(*link)->next) {
        if (*link == call) {
            *link = call->next;
            return;
        }
    }
}

static uint32_t next_sweep(void) noexcept {
    vel_lock_guard guard(browsing_lock);
    return ++sweeps;
}

/* A call that this sweep has to cancel, marked so that it stays; null when there is none. */
static browse_in_progress* next_to_cancel(int32_t ms_id, uint32_t sweep) noexcept {
    vel_lock_guard guard(browsing_lock);
    for (browse_in_progress* call = calls; call != nullptr; call = call->next) {
        if (call->session->ms_id == ms_id && call->swept != sweep) {
            call->swept = sweep;
            ++call->cancelling;
            return call;
        }
    }
    return nullptr;
}

void plugin_browsing_cancel(int32_t ms_id) noexcept {
    const uint32_t sweep = next_sweep();
    for (;;) {
        browse_in_progress* call = next_to_cancel(ms_id, sweep);
        if (call == nullptr) {
            return;
        }
        /* Outside the lock: the plug-in may take its time, and others begin and end calls. */
        plugin_call_cancel_browse(call->session);
        vel_lock_guard guard(browsing_lock);
        --call->cancelling;
        pthread_cond_broadcast(&cancel_over);
    }
}
