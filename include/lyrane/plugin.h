/* The plug-in interface: what a media plug-in exports, what it may call, and who owns what.
 *
 * A plug-in is a shared library that exports one data object, `lyrp`, of type lyrp_api. The
 * service loads it while it reads its configuration, and unloads it after every session was
 * destroyed and detection was switched off.
 *
 * Contexts, as used in the tags below:
 *   [start]        main thread while the configuration is read; no lock of the service is held
 *   [main]         main thread; no lock of the service is held
 *   [player lock]  any thread of the service, or another plug-in's thread, holding the lock of the
 *                  player that the session belongs to
 *   [build]        a track-session build thread, holding no lock
 *   [plug-in]      a thread of the plug-in's own
 *
 * Rules for plug-in authors:
 *   - A callback is made from the plug-in's own threads only, never from inside a call that the
 *     service made into the plug-in with the player lock held: such a callback is refused, logged,
 *     and returns -1. The four of media sources may also be made by the thread that is inside
 *     `set_mediasource_detection` or `cleanup` (there none can be connected any more). `init` is
 *     too early, on any thread: the plug-in's id is valid when it has returned.
 *   - A thread that reports again and again lets others have the player lock in between: it waits
 *     for something (time, the device) after each report.
 *   - No lock of the plug-in may be held while it makes a callback that one of its entries needs:
 *     the callback waits for the player lock, whose holder may be waiting for that entry.
 *   - No entry may wait for a callback in flight (for instance by joining the event thread inside
 *     `destroy`): the callback may be waiting for the lock that the caller holds.
 *   - Browse entries may run concurrently on one browse session: a build thread browses while the
 *     main thread browses or asks for metadata.
 *   - A create call may name a media source whose id lyrane_internal_mediasource_connected has not
 *     returned yet; answer null, the service asks again at the next use.
 *   - `create` and `destroy` may run on threads of other plug-ins.
 *   - Records and strings handed out are malloc() allocations (see records.h); the service frees
 *     them. Records handed in are borrowed for the duration of the call.
 *   - A null entry counts as a missing capability: the service answers ENOTSUP or -1 in its place.
 */
#ifndef LYRANE_PLUGIN_H
#define LYRANE_PLUGIN_H

#include <stddef.h>
#include <stdint.h>

#include <lyrane/records.h>
#include <veloran/dict.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Playback state as a plug-in reports it; the numbers are LYR_SHUFFLE_*, LYR_REPEAT_* and
 * LYR_STATUS_*. */
typedef struct lyr_playback_state {
    int32_t shuffle_mode;
    int32_t repeat_mode;
    int32_t status;
    float playback_rate; /* 1.0 is the normal speed */
} lyr_playback_state;

/* Errors of play_error_occurred. */
#define LYR_PLAY_ERROR_SKIP 0  /* this track cannot be played: go on with the next that can */
#define LYR_PLAY_ERROR_FATAL 1 /* nothing can be played: the track session is destroyed */

/* The callbacks. [plug-in], and, for the four mediasource_* callbacks, also [main] from inside
 * set_mediasource_detection and cleanup.
 * `play_session` and `callback_data` are the handle that `create` returned and the pointer that it
 * was given. Results: 0 or the documented value, -1 when the event was refused (stale session, a
 * stop or an attach that came first, unknown id, a player that has been closed). Strings are copied. */
typedef struct lyrane_internal_callbacks_table {
    /* A media source arrived, or came back (same plug-in id and uid, letter case aside).
     * `uid` must not be null. Returns the media-source id or -1. */
    int32_t (*mediasource_connected)(int32_t plugin_id, const char* uid, const char* name,
                                     const char* view_name, int32_t type, uint64_t capabilities,
                                     int32_t status) LYR_NOEXCEPT;
    /* The source has gone. Before this returns, every play and browse session on it is destroyed,
     * on the calling thread; but those of a player that is just being closed may be destroyed a
     * little later, on the thread that closes it. */
    int32_t (*mediasource_disconnected)(int32_t ms_id) LYR_NOEXCEPT;
    int32_t (*mediasource_status_changed)(int32_t ms_id, int32_t status) LYR_NOEXCEPT;
    int32_t (*mediasource_capability_changed)(int32_t ms_id, uint64_t capabilities) LYR_NOEXCEPT;
    /* `position` in the unit of `seek` (ms in our plug-ins), every `update_interval` ms. */
    int32_t (*position_updated)(void* play_session, void* callback_data, int32_t position)
        LYR_NOEXCEPT;
    /* The attached node came to its end. At most once for each attach; never after the next
     * attach was called. */
    int32_t (*track_finished)(void* play_session, void* callback_data) LYR_NOEXCEPT;
    /* Device mode: the device went on to another node by itself. `node` may be null. */
    int32_t (*track_changed)(void* play_session, void* callback_data, const medianode* node)
        LYR_NOEXCEPT;
    int32_t (*state_updated)(void* play_session, void* callback_data,
                             const lyr_playback_state* state) LYR_NOEXCEPT;
    /* `error` is LYR_PLAY_ERROR_*. */
    int32_t (*play_error_occurred)(void* play_session, void* callback_data, int32_t error)
        LYR_NOEXCEPT;
    int32_t (*browse_error_occurred)(void* browse_session, void* callback_data) LYR_NOEXCEPT;
} lyrane_internal_callbacks_table;

extern const lyrane_internal_callbacks_table lyrane_internal_callbacks;

/* The play table: one slot a function, in this order. Results: 0 success, anything else failure,
 * which is passed on to the client as it is. All but `create` take the play session first. */
typedef struct lyr_play_api {
    /* [player lock] Opens a play session on a media source. `callback_data` comes back with each
     * playback callback. Null on failure. */
    void* (*create)(int32_t ms_id, void* callback_data)LYR_NOEXCEPT;
    /* [player lock] Ends the session; no callback may be begun for it after this returned. One that
     * a thread was on its way to make is refused. */
    int32_t (*destroy)(void* play_session) LYR_NOEXCEPT;
    void (*reserved)(void) LYR_NOEXCEPT; /* not called */
    /* [player lock] Makes `node` the one that `play` plays; stops an earlier one. Non-zero: this
     * node cannot be played, try another. */
    int32_t (*attach_medianode)(void* play_session, const medianode* node) LYR_NOEXCEPT;
    int32_t (*play)(void* play_session) LYR_NOEXCEPT;  /* [player lock] LYR_CAP_PLAY */
    int32_t (*pause)(void* play_session) LYR_NOEXCEPT; /* [player lock] LYR_CAP_PAUSE */
    int32_t (*stop)(void* play_session) LYR_NOEXCEPT;  /* [player lock] LYR_CAP_STOP */
    int32_t (*set_playback_rate)(void* play_session, float rate) LYR_NOEXCEPT; /* LYR_CAP_STOP */
    int32_t (*seek)(void* play_session, int32_t position) LYR_NOEXCEPT;        /* LYR_CAP_SEEK */
    /* Device mode only, all [player lock]. */
    int32_t (*next)(void* play_session) LYR_NOEXCEPT;                  /* LYR_CAP_NEXT */
    int32_t (*previous)(void* play_session) LYR_NOEXCEPT;              /* LYR_CAP_PREVIOUS */
    int32_t (*shuffle)(void* play_session, int32_t mode) LYR_NOEXCEPT; /* LYR_CAP_MODES */
    int32_t (*repeat)(void* play_session, int32_t mode) LYR_NOEXCEPT;  /* LYR_CAP_MODES */
} lyr_play_api;

/* The browse table. Results as in the play table. `count` is in/out: the most records wanted (-1:
 * no limit), then the number delivered, which may be smaller: the service asks again with a larger
 * offset until 0 are delivered. `nodes` receives one malloc()ed array that the caller owns; on
 * failure or a count of 0 nothing is handed over. */
typedef struct lyr_browse_api {
    void* (*create)(int32_t ms_id, void* callback_data)LYR_NOEXCEPT; /* [player lock] */
    int32_t (*destroy)(void* browse_session) LYR_NOEXCEPT;           /* [player lock] */
    void (*reserved)(void) LYR_NOEXCEPT;                             /* not called */
    /* [player lock] or [build] Children of a node, in a stable order. LYR_CAP_BROWSE */
    int32_t (*browse)(void* browse_session, const char* node_id, int32_t offset, int32_t* count,
                      medianode** nodes) LYR_NOEXCEPT;
    /* [player lock] LYR_CAP_SEARCH; `filter` may be null. */
    int32_t (*search)(void* browse_session, const char* filter, const char* key, int32_t offset,
                      int32_t* count, medianode** nodes) LYR_NOEXCEPT;
    /* [player lock] LYR_CAP_METADATA; stores one malloc()ed record, or leaves null: none.
     * `node_id` may be null: after a track_changed without a node. */
    int32_t (*get_metadata)(void* browse_session, const char* node_id, metadata** data)
        LYR_NOEXCEPT;
    /* [player lock] LYR_CAP_EXTENDED_METADATA; `keys` ends with null; values[i] receives a
     * malloc()ed text for keys[i], or stays null. Values stored before a failure are the
     * service's to free, too. */
    int32_t (*get_extended_metadata)(void* browse_session, const char* node_id,
                                     const char* const* keys, char** values) LYR_NOEXCEPT;
    /* [player lock] Brings nodes saved by an earlier run up to date, in place. A plug-in without
     * it has no saved sessions restored. */
    int32_t (*update_medianodes)(void* browse_session, int32_t count, medianode* nodes)
        LYR_NOEXCEPT;
    /* [any] Makes calls in progress on the session return soon; later calls are not affected.
     * May be called more than once. May be null. */
    int32_t (*cancel_browse)(void* browse_session) LYR_NOEXCEPT;
} lyr_browse_api;

/* The entry table, exported as the data symbol `lyrp`. */
typedef struct lyrp_api {
    const char* name; /* for the log */
    void* reserved;   /* not used by the service */
    /* [start] `settings` is destroyed when init returns: copy what is kept. `types` receives the
     * mask of media-source types that the plug-in can play (also sources of other plug-ins).
     * -1 means failure and ends the service. May be null. The process may still have other rights
     * than later: files are opened and made when detection is switched on, not here. */
    int32_t (*init)(int32_t plugin_id, const strm_dict* settings,
                    const lyrane_internal_callbacks_table* callbacks, uint32_t* types) LYR_NOEXCEPT;
    /* [main] enable 1: start to report media sources; 0: stop. -1 means failure. May be null. */
    int32_t (*set_mediasource_detection)(int32_t enable) LYR_NOEXCEPT;
    /* [main] The last call; all threads of the plug-in have ended when it returns. May be null. */
    int32_t (*cleanup)(void) LYR_NOEXCEPT;
    const lyr_play_api* play_api;     /* null: cannot play */
    const lyr_browse_api* browse_api; /* null: cannot browse */
} lyrp_api;

/* --- Objects in the publish/subscribe name space ------------------------------------------------
 *
 * A tree of directories and objects below one root. One lock of the tree makes every operation
 * safe from [any thread]; two threads that write one object must still agree who flushes what.
 * Attribute values are the text behind the name on a line: "::text", ":n:12", ":json:{...}". */
typedef struct lyr_ppsnode lyr_ppsnode;
typedef lyr_ppsnode lyr_ppsdir;
typedef lyr_ppsnode lyr_ppswriter;

/* Makes a directory below `parent`. Null on failure with *error set (ENOMEM). A directory that
 * exists is used and will be left in place at removal; one that cannot be made ends the process. */
lyr_ppsdir* lyr_ppsdir_create(lyr_ppsdir* parent, const char* name, uint32_t mode, int32_t* error)
    LYR_NOEXCEPT;
/* Removes a directory and all it holds; every writer in it must have been closed. Returns 0. */
int32_t lyr_ppsdir_remove(lyr_ppsdir* dir) LYR_NOEXCEPT;
/* Length of the node's path in bytes without the NUL; the path is copied only when it fits with
 * its NUL, else `destination` becomes the empty text (when size is not 0). */
int32_t lyr_ppsdir_getpath(const lyr_ppsnode* node, char* destination, size_t size) LYR_NOEXCEPT;
/* Makes an object in `dir`; `instance` -1, or a number appended to the name. Null on failure with
 * *error set: EEXIST for a second object of that name and instance, ENOMEM. */
lyr_ppswriter* lyr_ppswriter_create(lyr_ppsdir* dir, const char* name, int32_t instance,
                                    int32_t* error) LYR_NOEXCEPT;
/* Drops the writer's reference; the object stays published until its directory is removed. */
void lyr_ppswriter_close(lyr_ppswriter* object) LYR_NOEXCEPT;
/* Withdraws the object. 0, EBUSY while other references remain, or the error of the unlink. */
int32_t lyr_ppswriter_remove(lyr_ppswriter* object) LYR_NOEXCEPT;
/* Sets (value null: deletes) one attribute of the next update. The strings are copied. What is not
 * one line of the form above is ignored, a value beyond 4 MiB withdraws its attribute; both are
 * logged. */
void lyr_ppswriter_write_attr(lyr_ppswriter* object, const char* name, const char* value)
    LYR_NOEXCEPT;
/* Publishes what was set since the last flush, in one piece. Returns 0. */
int32_t lyr_ppswriter_flush(lyr_ppswriter* object) LYR_NOEXCEPT;
/* Publishes `content` as the object's whole content and takes ownership of it. Returns 0. */
int32_t lyr_ppswriter_write_dict(lyr_ppswriter* object, strm_dict* content) LYR_NOEXCEPT;
/* What was last published; borrowed, valid until the next flush of the object. */
const strm_dict* lyr_ppswriter_getall(const lyr_ppswriter* object) LYR_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
