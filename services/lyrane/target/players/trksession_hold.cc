#include "trksession_hold.h"

#include <cstdlib>

vel_mutex trksession_hold_lock = {PTHREAD_MUTEX_INITIALIZER};

/* The pointer changes under both locks, so either is enough to read it; the analysis knows one. */
trksession* trksession_hold(player* player) noexcept VEL_NO_TSA {
    vel_lock_guard guard(trksession_hold_lock);
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
        vel_lock_guard guard(trksession_hold_lock);
        if (--session->holds != 0) {
            return;
        }
    }
    vel_mutex_destroy(&session->lock);
    pthread_cond_destroy(&session->build_over);
    free(session->mn_id);
    free(session);
}

trksession* trksession_of_builder(const player* player) noexcept VEL_NO_TSA /* see the header */ {
    return player->trksession;
}

void trksession_set(player* player, trksession* session) noexcept {
    vel_lock_guard guard(trksession_hold_lock);
    player->trksession = session;
    if (session != nullptr) {
        session->holds = 1;
    }
}
