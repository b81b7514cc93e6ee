/* What is shared between the entries of a player and its worker.
 *
 * The entries change the wish and wake the worker, which takes a copy and brings its pipeline to
 * what the copy says. Wishes that were overtaken are never carried out: ten seeks in a row are one
 * seek, and a track that was attached and left at once is not opened. */
#ifndef LYRANE_GST_WISH_H
#define LYRANE_GST_WISH_H

#include <cstdint>
#include <deque>
#include <string>

#include <gst/gst.h>
#include <pthread.h>

#include <veloran/lock.h>

#include "gst_player.h"

enum class gst_target { idle, paused, playing };

struct gst_wish {
    /* Raised whenever the track starts anew: attach, stop, the end of the track. What the worker
     * finds out about an earlier load is nobody's business any more. */
    uint64_t load = 0;
    std::string uri; /* empty: nothing attached */
    std::string id;  /* what the file is opened by */
    bool video = false;
    gst_target target = gst_target::idle;
    int64_t seek = -1;        /* ms; -1: none since the load began */
    uint64_t seek_number = 0; /* raised with each seek */
    double rate = 1.0;
    bool closed = false; /* the player was destroyed */
};

struct gst_player {
    /* Immutable after creation. */
    const lyrane_internal_callbacks_table* callbacks = nullptr;
    void* play_session = nullptr;
    void* callback_data = nullptr;
    void (*released)(void*) noexcept = nullptr;
    int32_t (*open)(void*, const char*, const char**) noexcept = nullptr;
    void (*log)(int32_t, const char*) noexcept = nullptr;
    const void* group = nullptr;
    std::string audio_output;
    std::string video_output;
    int32_t update_interval = 0; /* ms */

    vel_mutex lock = {};
    pthread_cond_t wake = {}; /* with `lock` */
    gst_wish wish VEL_GUARDED_BY(lock);
    uint64_t changes VEL_GUARDED_BY(lock) = 0; /* raised with each change of the wish */
    /* What the pipeline has said and the worker has not read; owned. */
    std::deque<GstMessage*> messages VEL_GUARDED_BY(lock);

    /* Guarded by the lock of the list of players. */
    pthread_t thread = {};
    bool ended = false; /* the thread touches nothing any more */
    gst_player* next = nullptr;
};

#endif
