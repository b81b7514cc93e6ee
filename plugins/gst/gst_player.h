/* Playing by GStreamer, for media plug-ins.
 *
 * The player lives in a shared module of its own, lyrane-gst.so, so that a plug-in can be loaded
 * without GStreamer and GLib; gst_loader.h fetches the module at the first need. Plain C types
 * only: the module and the plug-ins that use it share nothing but this table.
 *
 * One player serves one play session. Every player has one thread, its worker, which alone talks
 * to GStreamer. The entries below only write down what is wanted and wake the worker, so they never
 * block, may be called from inside a callback, and may be called with any lock held. The worker
 * makes the callbacks with no lock held.
 *
 * What follows from that:
 *   - No position and no end of a track begins after `attach` for the next one, `stop` or
 *     `destroy` was called; a callback that was already on its way is not called back.
 *   - The file of a track is opened when the track begins, and closed with its end, so a source
 *     that nobody plays can be unmounted.
 *   - A track that cannot be opened or decoded is found out by the worker: `attach` and `play`
 *     have answered 0 by then, and play_error_occurred says LYR_PLAY_ERROR_SKIP. When it is the
 *     output that cannot be had, no track can be played: LYR_PLAY_ERROR_FATAL.
 *   - An end or an error that is found while the player is paused is reported when it plays on.
 */
#ifndef LYRANE_GST_PLAYER_H
#define LYRANE_GST_PLAYER_H

#include <stdint.h>

#include <lyrane/plugin.h>

#ifdef __cplusplus
extern "C" {
#endif

#define GST_PLAYER_ABI 2

/* The rates that can be played. */
#define GST_PLAYER_RATE_LEAST 0.25F
#define GST_PLAYER_RATE_MOST 8.0F

typedef struct gst_player gst_player;

/* How a player is made. Strings are copied; the rest stays valid until `released` was called. */
typedef struct gst_player_config {
    const lyrane_internal_callbacks_table* callbacks;
    void* play_session; /* handle and data handed back with each callback; never looked into */
    void* callback_data;
    /* [worker] Called once, as the last thing, when no callback can come any more: from now on
     * the memory of `play_session` may be used again. */
    void (*released)(void* play_session) LYR_NOEXCEPT;
    /* [worker] Opens the plain file of an attached track for reading, without waiting for what is
     * none. The caller owns the descriptor; -1 with the reason in *why, valid until the next
     * call on this thread. No path goes to GStreamer: it might lead elsewhere by then. */
    int32_t (*open)(void* play_session, const char* id, const char** why) LYR_NOEXCEPT;
    /* [any thread] Writes one line to the log. `level` as in the service's log, 3 or more. */
    void (*log)(int32_t level, const char* text) LYR_NOEXCEPT;
    const void* group;        /* whose player this is; see `shutdown` */
    const char* audio_output; /* sink description; "%u" stands for the number of the track */
    const char* video_output; /* likewise; empty: video is decoded and not shown */
    int32_t update_interval;  /* ms between two positions, above 0 */
} gst_player_config;

/* The module's table, exported as the data symbol `lyrane_gst_player`. Every entry: [any thread];
 * results 0, or -1 when there is nothing attached or an argument is out of range. */
typedef struct gst_player_api {
    uint32_t abi; /* GST_PLAYER_ABI */
    /* A player with nothing attached, or null without memory or thread. */
    gst_player* (*create)(const gst_player_config* config)LYR_NOEXCEPT;
    /* Ends the player; the pointer is invalid from here on. Does not wait for the worker. */
    void (*destroy)(gst_player* player) LYR_NOEXCEPT;
    /* Makes a track the one that `play` plays; an earlier one stops. `id` is for `open`, `uri`
     * ("file://...") what the file is called in the log; its ending is a hint. `type` is
     * LYR_NODE_AUDIO or LYR_NODE_VIDEO: of anything else than a video only the sound is played. */
    int32_t (*attach)(gst_player* player, const char* id, const char* uri, int32_t type)
        LYR_NOEXCEPT;
    int32_t (*play)(gst_player* player) LYR_NOEXCEPT;
    int32_t (*pause)(gst_player* player) LYR_NOEXCEPT;
    /* Back to the beginning; the track stays attached. 0 also with nothing attached. */
    int32_t (*stop)(gst_player* player) LYR_NOEXCEPT;
    /* `position` in ms from the beginning, 0 or more. Before `play`: where play will begin. */
    int32_t (*seek)(gst_player* player, int32_t position) LYR_NOEXCEPT;
    /* 1.0 is the normal speed; holds for later tracks, too. */
    int32_t (*set_rate)(gst_player* player, float rate) LYR_NOEXCEPT;
    /* Ends the players of a group that are left and returns when their threads have ended. Not
     * from inside a callback, and with no lock held. */
    void (*shutdown)(const void* group) LYR_NOEXCEPT;
} gst_player_api;

extern const gst_player_api lyrane_gst_player;

#ifdef __cplusplus
}
#endif

#endif
