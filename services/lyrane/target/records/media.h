/* What the service knows of plug-ins, media sources and a player's sessions on them. */
#ifndef LYRANE_MEDIA_H
#define LYRANE_MEDIA_H

#include <cstdint>

#include <lyrane/plugin.h>

struct player;

/* One loaded plug-in library; owned by the control block, immutable after loading. */
struct plugin {
    int32_t id; /* equals its position in the plug-in list */
    char* name; /* library name as configured; owned */
    const lyrp_api* api;
    void* handle;        /* of the dynamic loader */
    uint32_t types;      /* media-source types it can play */
    int32_t player_mode; /* 1: the service walks the track session; 0: the device does */
};

/* A player's pairing of a play and a browse session on one media source; owned by the player and
 * guarded by its lock. A half is usable only when table and handle are both set; it is written
 * once, the handle before the table. */
struct mediasource_session {
    int32_t ms_id;
    int32_t player_mode;
    uint64_t capabilities; /* of the source when the session was made */
    /* Of the plug-ins' records, which outlive the session: the source's own, which browses, and the
     * one whose play table is used (null before there was one). */
    const char* plugin_name;
    const char* play_plugin_name;
    ::player* player; /* the owner */
    const lyr_play_api* play_api;
    void* play_session;
    const lyr_browse_api* browse_api;
    void* browse_session;
};

/* The fields of a media source that plug-in threads change while others read. */
inline uint64_t mediasource_capabilities(const mediasource* source) noexcept {
    return __atomic_load_n(&source->capabilities, __ATOMIC_ACQUIRE);
}
inline int32_t mediasource_active(const mediasource* source) noexcept {
    return __atomic_load_n(&source->active, __ATOMIC_ACQUIRE);
}
inline int32_t mediasource_status(const mediasource* source) noexcept {
    return __atomic_load_n(&source->status, __ATOMIC_ACQUIRE);
}

#endif
