#include "trksession_hold.h"

#include <cstdlib>

static vel_mutex hold_lock = {PTHREAD_MUTEX_INITIALIZER};

trksession* trksession_hold(player* player) noexcept {
    vel_lock_guard guard(hold_lock);
    trksession* session = player->trksession;
    if (session != nullptr) {
        ++session->holds;
    }
    return session;
}

void trksession_release(trksession* session) noexcept {
    if (session == nullptr) {
        return;
    }
    {
        vel_lock_guard guard(hold_lock);
        if (--session->holds != 0) {
            return;
        }
    }
    vel_mutex_destroy(&session->lock);
    pthread_cond_destroy(&session->build_over);
    free(session->mn_id);
    free(session);
}

void trksession_set(player* player, trksession* session) noexcept {
    vel_lock_guard guard(hold_lock);
    player->trksession = session;
}
