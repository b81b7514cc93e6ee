/* The control block: the one record that holds everything a running service knows. */
#ifndef LYRANE_CONTROL_H
#define LYRANE_CONTROL_H

#include <cstddef>
#include <cstdint>

#include <sys/types.h>

#include <lyrane/plugin.h>
#include <veloran/lock.h>

#include "array.h"

struct msgserver;

/* The player settings of the configuration file; made once, shared by all players, never freed. */
struct player_cfg {
    char* audio_output;
    char* video_output;
    int32_t update_interval;  /* ms between two positions */
    int32_t progression_mode; /* 0 "ROSP", 1 anything else */
    int32_t recursion_depth;  /* folders below the start folder; -1: no limit */
    int32_t fair_shuffle;     /* 1: see trksession_shuffle_fair; not for plug-ins */
};

struct control_block {
    pointer_array players VEL_GUARDED_BY(players_lock); /* of player, owned; order of creation */
    vel_mutex players_lock;
    ::player_cfg* player_cfg; /* set once, before any thread */
    /* Of plugin / mediasource, owned. Appended to under registry_leaf; the records behind the
     * pointers never move, so a pointer found under the leaf lock stays good. */
    pointer_array plugins VEL_GUARDED_BY(registry_leaf);
    pointer_array mediasources VEL_GUARDED_BY(registry_leaf);
    vel_mutex mediasources_lock; /* serialises the media-source events; first in the lock order */

    /* From the command line; constant after start-up, verbosity aside. */
    int32_t background;
    int32_t priority;
    int32_t verbosity; /* atomic operations: the SIGUSR1 handler writes it */
    const char* user;
    const char* service_name;
    int32_t max_msg_size; /* bytes */
    int32_t timer;
    int32_t tolerance;
    int32_t lastmode;
    const char* config_file;
    const char* database;
    int32_t lastmode_timeout; /* seconds */
    uint32_t lastmode_devices;
    int32_t lastmode_max_try;
    msgserver* server; /* set by start-up */
    int32_t service_id;
    int32_t client_count; /* main thread only */
    lyr_ppsdir* ppsroot;  /* set by start-up */
    uid_t uid;
    gid_t gid;
    gid_t* groups; /* owned */
    int32_t ngroups;

    /* What comes from here on is not for plug-ins. */
    int32_t lastmode_keep_missing; /* 1: what could not be restored is saved again */
    int32_t lastmode_checkpoint;   /* seconds between saves while the service runs; 0: none */
    int32_t players_per_user;      /* most that are open for one user, see user_quota.h */
    int32_t tracks_per_user;       /* most in all sessions of one user */
    int32_t reply_memory;          /* MiB of replies that may wait for their clients */
    int32_t forgive_lost_clients;  /* 1: who goes without a close gives back its client count */

    /* Guards the growth of `plugins` and `mediasources`, the name texts of media sources and what
     * changes of a source together. A leaf: held for a look-up, a copy or a line in the log; no
     * other lock is taken inside it. */
    vel_mutex registry_leaf;
};

/* Plug-ins reach the record by its name and know where its fields are. */
static_assert(offsetof(control_block, server) ==
              (offsetof(control_block, lastmode_max_try) + sizeof(int32_t) + alignof(void*) - 1) /
                  alignof(void*) * alignof(void*));
static_assert(offsetof(control_block, ngroups) ==
              offsetof(control_block, server) + 5 * sizeof(void*));

extern "C" {
extern control_block mmcontrol;
}

#endif
