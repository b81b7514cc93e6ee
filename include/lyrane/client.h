/* The client library: send requests to a running service and decode its replies.
 *
 * A client opens the service by name, sends requests, and closes:
 *
 *     msgclient_t* client = msgclient_open(LYR_SERVICE_NAME, NULL, 0);
 *     lyr_request request = {.type = LYR_MSG_GET_MEDIA_SOURCE};
 *     static char reply[65536];
 *     int32_t length;
 *     int32_t status = msgclient_putget(client, &request, sizeof request, reply, sizeof reply,
 *                                       &length, 0);
 *
 * Everything is in native byte order. The service listens below the runtime root: $VELORAN_RUN,
 * else the user's own (/run/veloran for root), else /run/veloran.
 *
 * Rules:
 *   - Calls on one client record may be made from several threads; each waits for the one before
 *     it. msgclient_wait_pulse holds up nobody. Nothing may be called on a record once
 *     msgclient_close has begun, except that threads already inside a call are waited for.
 *   - A record belongs to the process that opened it: after fork() the child must not use it, not
 *     even close it. Its descriptors are close-on-exec.
 *   - No call raises SIGPIPE, changes a signal disposition, logs, or returns because of a signal.
 *   - Calls wait as long as the service takes; a service that is stopped holds its clients up, in
 *     msgclient_open too once its backlog is full.
 *   - Out lengths are set after every call, failed ones included: after a failed call they hold the
 *     capacity that was offered (0 after EINVAL), so look at the result first. With a status they
 *     never say more than what was stored, or with LYR_STATUS_QUEUED what is needed.
 */
#ifndef LYRANE_CLIENT_H
#define LYRANE_CLIENT_H

#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

#include <lyrane/records.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Name under which the service is opened unless it was started with another. */
#define LYR_SERVICE_NAME "lyrane.sys"

/* Result of a call whose reply is longer than the capacity: it waits in the service's queue, and
 * the out length tells how large a buffer msgclient_get needs. The tag is 0 after
 * msgclient_putget. */
#define LYR_STATUS_QUEUED 240

/* --- Transport -------------------------------------------------------------------------------- */

#define MSGCLIENT_NAME_SIZE 32 /* bytes of a service name with its NUL */

/* A client record; owned by the caller from msgclient_open to msgclient_close. Read-only. */
typedef struct msgclient {
    int32_t coid;             /* the connection, a descriptor */
    int32_t service_index;    /* given by the server */
    int32_t connection_index; /* given by the server */
    int32_t notify_chid;      /* the private notification channel, or -1 */
    int32_t notify_coid;      /* its sending end, which the server has a copy of, or -1 */
    char name[MSGCLIENT_NAME_SIZE];
    int32_t by_path;                     /* 1: opened by path, 0: by the name space */
    struct msgclient_internal* internal; /* the library's own */
} msgclient_t;

/* A notification event, 16 bytes; it is delivered with `value` replaced by the tag of a reply. */
typedef struct msgclient_event {
    int32_t kind;     /* MSGCLIENT_EVENT_PULSE; any other kind is registered and goes nowhere */
    int32_t coid;     /* sending end of a SOCK_SEQPACKET socket pair of this process */
    uint32_t value;   /* replaced */
    int16_t code;     /* the caller's */
    int16_t priority; /* the caller's */
} msgclient_event;
#define MSGCLIENT_EVENT_PULSE 4

/* Opens a service. `variant` null means "default". `code` is a number of the caller's own that the
 * transport carries and does not read. Null with errno set: ENAMETOOLONG (a name above 31 bytes, or
 * a variant above 64 less the name's length), EINVAL (empty, a leading dot, or a '/'), ENOENT (no
 * such service), ECONNREFUSED (it does not run), EACCES, ENOMEM (it has no room for another
 * client), or the number that the service refused with. */
msgclient_t* msgclient_open(const char* name, const char* variant, int16_t code) LYR_NOEXCEPT;

/* Closes; waits for calls in progress, wakes threads in msgclient_wait_pulse (they return 0).
 * Replies still queued are lost. Null is allowed. Returns 0. */
int32_t msgclient_close(msgclient_t* client) LYR_NOEXCEPT;

/* All calls below return 0, or the reply's status (LYR_STATUS_QUEUED among them), or an error
 * number: ENOENT (the connection is not known any more), EMSGSIZE (the request is larger than the
 * service takes), EPIPE or ECONNRESET (the service has ended; only msgclient_close is left),
 * EPROTO (it does not speak this protocol), EINVAL (a null client, a negative length or count),
 * ENOMEM. */

/* Sends a request and waits for the reply, which is stored in `reply` (`capacity` bytes); its
 * length goes to *reply_length (may be null). */
int32_t msgclient_putget(msgclient_t* client, const void* request, int32_t request_length,
                         void* reply, int32_t capacity, int32_t* reply_length, int16_t code)
    LYR_NOEXCEPT;

/* The same, gathered from `request_count` pieces and scattered into `reply_count` pieces. Calls
 * with more than 1,000 of either copy them. */
int32_t msgclient_putgetv(msgclient_t* client, const struct iovec* request, int32_t request_count,
                          const struct iovec* reply, int32_t reply_count, int32_t* reply_length,
                          int16_t code) LYR_NOEXCEPT;

/* Sends a request and returns as soon as the service has taken it; its reply is queued there under
 * `tag` and announced by the registered event. EAGAIN: as many replies are queued as were asked
 * for (none before the first msgclient_notify or msgclient_notify_pulse), or too many bytes; fetch
 * one first.
 * EINVAL: tag 0. */
int32_t msgclient_put(msgclient_t* client, uint32_t tag, const void* request, int32_t length,
                      int16_t code) LYR_NOEXCEPT;
int32_t msgclient_putv(msgclient_t* client, uint32_t tag, const struct iovec* request,
                       int32_t count, int16_t code) LYR_NOEXCEPT;

/* Fetches the newest queued reply of a tag; returns the status it was given. ENOMSG: there is
 * none (a request that the service does not know also has this status; its reply has length 0).
 * LYR_STATUS_QUEUED: it is larger than `capacity`, it stays, *reply_length is its length. */
int32_t msgclient_get(msgclient_t* client, uint32_t tag, void* reply, int32_t capacity,
                      int32_t* reply_length, int16_t code) LYR_NOEXCEPT;
int32_t msgclient_getv(msgclient_t* client, uint32_t tag, const struct iovec* reply, int32_t count,
                       int32_t* reply_length, int16_t code) LYR_NOEXCEPT;

/* Registers an event of the caller's own (copied) and asks for a queue of `depth` replies; the
 * service grants at least 1 and at most its own limit. With kind MSGCLIENT_EVENT_PULSE a duplicate
 * of `coid` is handed to the service. Events that find the channel full are lost; the replies are
 * not. */
int32_t msgclient_notify(msgclient_t* client, int32_t depth, const msgclient_event* event)
    LYR_NOEXCEPT;

/* Makes a private channel (an earlier one is closed, threads waiting on it return 0) and registers
 * a pulse to it. -1 with errno set when it cannot be made. */
int32_t msgclient_notify_pulse(msgclient_t* client, int32_t depth) LYR_NOEXCEPT;

/* Waits for the next pulse: the tag of a reply to fetch. 0: there is no channel, it was closed, or
 * the service has ended; waiting again would not help. */
uint32_t msgclient_wait_pulse(msgclient_t* client) LYR_NOEXCEPT;

/* --- Requests ----------------------------------------------------------------------------------
 *
 * Every request begins with a lyr_request; the fields named here follow it from offset 16 on,
 * packed. Strings are a length and that many bytes, without NUL. Every reply body begins with an
 * i32 result: 0, -1, or what the operation returned; a reply that failed is the result alone.
 * Requests from GET_CURRENT_STATE on act on the player that this connection opened last.
 *
 *   number                        request fields                         reply after the result
 */
/* clang-format off: a table */
#define LYR_MSG_OPEN 0  /* i8 name length, 3 unused, name       - */
#define LYR_MSG_CLOSE 1 /* as OPEN                              - */
#define LYR_MSG_GET_MEDIA_SOURCE                                                                   \
    2 /* -                                   i32 n, n media sources                                \
       */
#define LYR_MSG_GET_CURRENT_STATE                                                                  \
    3 /* -                                  i32 shuffle, i32 repeat,                               \
                                            i32 status, f32 rate */
#define LYR_MSG_GET_TRKSESSION_INFO                                                                \
    4 /* -                                u64 ts_id, i32 tracks,                                   \
                                          4 unused */
#define LYR_MSG_GET_CURRENT_TRACK_INFO                                                             \
    5 /* -                             i32 index, u64 ts_id,                                       \
                                       u32 n, u32 m, media node                                    \
                                       (n bytes), metadata (m) */
#define LYR_MSG_GET_CURRENT_TRACK_POSITION 6 /* -                         i32 position */
#define LYR_MSG_BROWSE                                                                             \
    7 /* i32 ms_id, i32 offset, i32 limit,                                                         \
         u32 id length, node id               i32 n, n media nodes */
#define LYR_MSG_SEARCH                                                                             \
    8 /* i32 ms_id, i32 offset, i32 limit,                                                         \
         i32 filter length, filter,                                                                \
         i32 text length, text                i32 n, n media nodes */
#define LYR_MSG_GET_TRKSESSION_TRACKS                                                              \
    9                           /* u64 ts_id, i32 offset,                                          \
                             i32 limit                            i32 n, n media nodes */
#define LYR_MSG_GET_METADATA 10 /* i32 ms_id, u32 id length, node id    metadata, or nothing */
#define LYR_MSG_GET_EXTENDED_METADATA                                                              \
    11 /* i32 ms_id, u32 id length,                                                                \
   node id, u32 n, n times: u32 key                                                                \
   length, key                          n times: u32 value length,                                 \
                                        value */
#define LYR_MSG_CREATE_TRKSESSION                                                                  \
    12                                /* i32 ms_id, i32 tracks expected                            \
                                      (-1 unknown), i32 start index,                               \
                                      u32 id length, node id               u64 ts_id */
#define LYR_MSG_CREATE_TRKSESSIONV 13 /* not served: status ENOTSUP       no body at all */
#define LYR_MSG_DESTROY_TRKSESSION 14 /* u64 ts_id                        - */
#define LYR_MSG_PLAY 15               /* -                                    - */
#define LYR_MSG_STOP 16               /* -                                    - */
#define LYR_MSG_PAUSE 17              /* -                                    - */
#define LYR_MSG_JUMP 18               /* i32 index                            - */
#define LYR_MSG_NEXT 19               /* -                                    - */
#define LYR_MSG_PREVIOUS 20           /* -                                    - */
#define LYR_MSG_SEEK 21               /* i32 position                         - */
#define LYR_MSG_SET_SPEED 22          /* f32 rate                             - */
#define LYR_MSG_SHUFFLE 23            /* i32 LYR_SHUFFLE_*                    - */
#define LYR_MSG_REPEAT 24             /* i32 LYR_REPEAT_*                     - */
/* clang-format on */

/* In front of every request. A number above LYR_MSG_REPEAT is answered with status ENOMSG. */
typedef struct lyr_request {
    uint16_t type; /* LYR_MSG_* */
    uint8_t unused[14];
} lyr_request;

/* The reply body of LYR_MSG_GET_CURRENT_STATE. */
typedef struct lyr_state_reply {
    int32_t result;
    int32_t shuffle_mode; /* LYR_SHUFFLE_* */
    int32_t repeat_mode;  /* LYR_REPEAT_* */
    int32_t status;       /* LYR_STATUS_* of records.h */
    float playback_rate;
} lyr_state_reply;

/* --- Decoders ----------------------------------------------------------------------------------
 *
 * Each reads `count` packed records from the first `size` bytes of `buffer` (no alignment needed)
 * and stores one array with strings of its own in *records, all of it malloc()ed and the caller's.
 * Free the strings of each record and then the array: for media nodes free_lyr_ms_nodes(array,
 * count) does both; free_lyr_ms and free_lyr_ms_node_metadata release an array of one, so decode
 * those one at a time or free the strings of an array by hand.
 *
 * An absent and an empty string both become null. Bytes behind the last record are ignored. Returns
 * 0; -1, with *records null and nothing allocated, when the buffer is null, size or count are below
 * 1, the bytes end before the records do, or memory runs out. [any thread] */
int32_t unpack_media_source(const void* buffer, int32_t size, int32_t count, lyr_ms** records)
    LYR_NOEXCEPT;
int32_t unpack_media_node(const void* buffer, int32_t size, int32_t count, lyr_ms_node** records)
    LYR_NOEXCEPT;
int32_t unpack_metadata(const void* buffer, int32_t size, int32_t count,
                        lyr_ms_node_metadata** records) LYR_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
