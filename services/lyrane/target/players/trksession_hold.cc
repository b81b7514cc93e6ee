#include "trksession_hold.h"

#include <cstdlib>

#include <lyrane/records.h>

#include "user_quota.h"

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

/* Nobody else knows the session any more, so its lock is not taken. */
static void free_session(trksession* session) noexcept VEL_NO_TSA {
    user_quota_give_tracks(session->user, session->left);
    free_medianodes(&session->tracks, session->left);
    vel_mutex_destroy(&session->lock);
    pthread_cond_destroy(&session->build_over);
    free(session->mn_id);
    free(session);
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
    free_session(session);
}

trksession* trksession_of_builder(const player* player) noexcept VEL_NO_TSA /* see the header */ {
    return player->trksession;
}

void trksession_set(player* player, trksession* session) noexcept {
    vel_lock_guard guard(trksession_hold_lock);
    player->trksession = session;
    player->changes += 2;
    if (session != nullptr) {
        session->holds = 1;
    }
}
