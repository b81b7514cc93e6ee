/* A player: a named playback context that clients share. */
#ifndef LYRANE_PLAYER_H
#define LYRANE_PLAYER_H

#include <atomic>
#include <cstdint>

#include <pthread.h>
#include <sys/types.h>

#include <lyrane/plugin.h>
#include <veloran/lock.h>

#include "array.h"
#include "control.h"

struct nowplaying_commands;
struct trksession;

constexpr int32_t PLAYER_CLIENTS_MAX = 32;

struct player {
    char* name; /* owned, constant */
    uid_t user; /* who opened it first; constant */
    int32_t clients VEL_GUARDED_BY(control->players_lock);

    /* Written under the player lock; read without it by get_current_state. */
    std::atomic<int32_t> status;
    std::atomic<int32_t> shuffle_mode;
    std::atomic<int32_t> repeat_mode;
    std::atomic<float> playback_rate;
    std::atomic<int32_t> closed; /* 1: torn down; leave at once */

    /* Goes up by 2 with each stop, each attach and each track session that comes or goes; an attach
     * goes up by 1 twice, so the number is odd while the plug-in attaches. Written under the player
     * lock. An event keeps the number that it began with, and so knows when something has overtaken
     * it on its way to that lock. */
    std::atomic<uint32_t> changes;

    /* Changed under the player lock and the hold lock; without the player lock it is read through
     * trksession_hold, and by the build thread through trksession_of_builder. */
    ::trksession* trksession VEL_GUARDED_BY(lock);
    pointer_array ms_sessions VEL_GUARDED_BY(lock); /* of mediasource_session, owned */
    const player_cfg* config;                       /* constant, shared */
    vel_mutex lock;                                 /* the player lock */

    /* Set before the player is visible, taken down at close. */
    lyr_ppsdir* ppsdir VEL_GUARDED_BY(lock);
    lyr_ppswriter* state_writer VEL_GUARDED_BY(lock);
    lyr_ppswriter* mediasource_writer VEL_GUARDED_BY(lock);
    lyr_ppswriter* status_writer VEL_GUARDED_BY(lock);
    lyr_ppswriter* track_writer VEL_GUARDED_BY(lock); /* null without a current track */
    /* Constant while there is a track session, under whose lock the object is written. */
    lyr_ppswriter* trksession_writer;

    /* The audio focus; see nowplaying.h. */
    std::atomic<int32_t> np_thread;              /* kernel id of the thread; 0 before it runs */
    int32_t np_fd VEL_GUARDED_BY(np_lock);       /* -1 while there is no arbiter */
    int32_t np_busy VEL_GUARDED_BY(np_lock);     /* 1: there is one that accepts nobody now */
    int32_t np_acquired VEL_GUARDED_BY(np_lock); /* 1: granted and not used yet */
    std::atomic<int32_t> np_state;               /* NOWPLAYING_*; the arbiter's last word */
    vel_mutex np_lock;                           /* inside the player lock */
    pthread_cond_t np_cond;                      /* with np_lock: something below changed */
    int32_t np_waiting VEL_GUARDED_BY(np_lock);  /* 1: a command waits for the arbiter's answer */
    int32_t np_lost VEL_GUARDED_BY(np_lock);     /* 1: the arbiter has changed since it was asked */
    int32_t np_unanswered VEL_GUARDED_BY(np_lock); /* acquires sent to this arbiter */
    uint32_t np_revokes VEL_GUARDED_BY(np_lock);   /* read so far */
    uint32_t np_asked VEL_GUARDED_BY(np_lock);     /* np_revokes when the last acquire was sent */
    int32_t np_ending VEL_GUARDED_BY(np_lock);     /* 1: the thread is to end */
    int32_t np_running VEL_GUARDED_BY(np_lock);    /* 1: the thread has not ended */
    const nowplaying_commands* np_commands;        /* constant once the thread runs */
    int32_t np_wake;                               /* eventfd that wakes the thread; constant */

    control_block* control;                             /* constant */
    int32_t pins VEL_GUARDED_BY(control->players_lock); /* see player_pin.h */
    uid_t session_user VEL_GUARDED_BY(lock);    /* who asks for the session that is made now */
    int32_t sessions_made VEL_GUARDED_BY(lock); /* track sessions in this run */
    int32_t error_run VEL_GUARDED_BY(lock);     /* skips in a row without a track that played */
};

/* Tells the analysis that the players lock a caller holds is this player's: a player belongs to
 * one control block for life. */
inline void player_of(const player* player, const control_block* control) noexcept
    VEL_REQUIRES(control->players_lock) VEL_ASSERT_HELD(player->control->players_lock) {
    (void)player;
    (void)control;
}

#endif
