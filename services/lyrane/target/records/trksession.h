/* A track session: the list of tracks that a player plays. */
#ifndef LYRANE_TRKSESSION_H
#define LYRANE_TRKSESSION_H

#include <atomic>
#include <cstdint>

#include <pthread.h>
#include <sys/types.h>

#include <lyrane/records.h>
#include <veloran/lock.h>

#include "media.h"

/* What a fair shuffle drew: all that is needed to make the same order again. */
struct trksession_draw {
    uint64_t seed;
    int32_t length; /* tracks that were shuffled; 0: the order is not of a fair shuffle */
    int32_t first;  /* index of the track that came first */
};

/* Covers a player's pointer to its session and the holds of sessions; a leaf. */
extern vel_mutex trksession_hold_lock;

struct trksession {
    /* Set at creation and constant afterwards; ignore_count is the build thread's once it runs. */
    int32_t expected;     /* tracks the client announced; -1 unknown */
    int32_t start_index;  /* child of mn_id at which the session starts */
    int32_t ignore_count; /* tracks that the first step imported */
    uid_t user;           /* who asked for it, see user_quota.h */
    char* mn_id; /* folder; owned; may be null; a restored session gets it late, under lock */

    int32_t length VEL_GUARDED_BY(lock);         /* tracks in `tracks` */
    int32_t* order VEL_GUARDED_BY(lock);         /* owned; track index at a playback position */
    int32_t* inverse_order VEL_GUARDED_BY(lock); /* owned; playback position of a track */
    trksession_draw drawn VEL_GUARDED_BY(lock);  /* how `order` came about */
    int32_t trk_id VEL_GUARDED_BY(lock);         /* index of the current track */
    int32_t cli_index VEL_GUARDED_BY(lock);      /* the same as clients see it */
    int32_t trk_pos VEL_GUARDED_BY(lock);        /* position in it, in the plug-in's unit */
    uint64_t ts_id;                              /* constant */
    ::mediasource* mediasource;                  /* constant; lives for ever */
    /* Owned with the strings. The records move when the array grows; their strings stay as long as
     * the record of the session, so that a holder may read them without the lock. */
    medianode* tracks VEL_GUARDED_BY(lock);
    vel_mutex lock;                  /* the track-session lock; inside the player lock */
    mediasource_session* ms_session; /* constant; the player's */
    /* Joinable while build_started; changed by who holds the player lock, too. */
    pthread_t build_thread VEL_GUARDED_BY(lock);

    int32_t build_started VEL_GUARDED_BY(lock);
    int32_t build_done VEL_GUARDED_BY(lock); /* the build thread calls no plug-in any more */
    pthread_cond_t build_over;               /* with lock: build_done was set */
    int32_t capacity VEL_GUARDED_BY(lock);   /* entries allocated in the three arrays */
    int32_t destroyed VEL_GUARDED_BY(lock);  /* answer as if there were none */
    int32_t left VEL_GUARDED_BY(lock);       /* tracks that the last hold frees; 0 before the end */
    int32_t holds VEL_GUARDED_BY(trksession_hold_lock); /* see trksession_hold.h */
    std::atomic<int32_t> cancelled;                     /* building is to end */
};

#endif
