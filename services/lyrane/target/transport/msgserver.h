/* The message server: receives clients' messages on one channel, keeps a record per client
 * connection, and hands each request to the service's worker; the worker answers through the
 * server's reply operations, at once or by way of the connection's queue.
 *
 * Refusals are error replies to the one client concerned and are not logged: ENOENT (unknown
 * service; indices that name no open connection of the sender), ENOMEM (no room for a connection or
 * for a reply that does not fit), EAGAIN (reply queue full, by number or by bytes), EINVAL (tag 0
 * in CSM_PUT; an event that is too short, or whose channel is no socket of the client's), EIO (a
 * payload shorter than its length says; a worker that gave no reply), EMSGSIZE (a payload above
 * max_size), ENOMSG (no queued reply of that tag), ENOSYS (no transport message), EACCES, or what
 * `connect` returned.
 *
 * The messages of one client socket are handled one at a time, in order, whatever the number of
 * receiving threads: a callback never runs beside another one for the same socket, and a client
 * that sends and goes away has its messages handled, then its `disconnect`.
 *
 * Locks: the server lock guards the service table, the connection tables and, of each connection,
 * in_use, closed, refused, queue_limit, event, puts_owed and the queue. It is never held while a
 * callback runs or a reply is sent. */
#ifndef LYRANE_MSGSERVER_H
#define LYRANE_MSGSERVER_H

#include <cstdint>

#include <pthread.h>
#include <sys/uio.h>

#include <veloran/lock.h>
#include <veloran/message.h>

#include "array.h"
#include "msg_header.h"

constexpr uint32_t MSGSERVER_NO_CAPABILITIES = 0x1; /* no capability service */
constexpr uint32_t MSGSERVER_BY_PATH = 0x2;         /* path-name mode; implies the former */

struct msgserver;
struct service;
struct osb;
struct recv_context;
struct reply_entry;

/* Bounds, so that no client can make the server grow without end. */
constexpr int32_t MSGSERVER_OPENS_MAX = 32;     /* connections of one client socket */
constexpr int32_t MSGSERVER_INDEX_MAX = 32767;  /* what the header's 16 bits can say */
constexpr int32_t MSGSERVER_QUEUE_ENTRIES = 64; /* queued replies of one connection */
/* Bytes of replies that wait, half of them queued and half sent and not read, unless
 * msgserver_limit_replies says otherwise. One user other than root has three quarters of it, one
 * connection's queue a quarter. The reply that goes past a bound is still kept whole. */
constexpr int64_t MSGSERVER_REPLY_MEMORY = int64_t{64} << 20;

/* Callbacks of a service; called without the server lock. The worker makes exactly one reply call
 * for a request before its thread receives again; a CSM_PUT may instead be answered at any later
 * time by reply2. A CSM_PUTGET left without a reply is answered EIO. `connect` refuses with an
 * error number above 0; no message finds the connection then, and its record stays until the
 * client's socket ends. `disconnect` is called once for every connection, a refused one too; its
 * context is null when the client went away without closing. */
using service_worker_function = void (*)(osb*, recv_context*, service*);
using service_connect_function = int32_t (*)(osb*, recv_context*, service*);
using service_disconnect_function = void (*)(osb*, recv_context*, service*);

using reply_function = int32_t (*)(osb*, recv_context*, int32_t status, const void* data,
                                   int32_t length);
using replyv_function = int32_t (*)(osb*, recv_context*, int32_t status, const iovec* vector,
                                    int32_t count);
using reply2_function = int32_t (*)(osb*, int64_t rcvid, uint32_t tag, int32_t status,
                                    const iovec* vector, int32_t count);

struct msgserver {
    uint32_t flags; /* MSGSERVER_* */
    int32_t authman_fd;
    int32_t initial_size; /* bytes of payload area in a new receive context */
    int32_t max_size;     /* largest payload accepted, bytes */
    int32_t max_queue;    /* highest queue limit a connection may ask for */
    int32_t stop;         /* atomic operations; 1 ends msgserver_thread_loop */
    int32_t chid;         /* the channel's number */
    reply_function reply;
    replyv_function replyv;
    reply2_function reply2;
    message_channel* dispatch; /* the channel; owned */
    pthread_key_t context_key;
    void* user_data; /* the owner's */
    vel_mutex lock;
    slot_table services VEL_GUARDED_BY(lock);  /* of service */
    int64_t queued_bytes VEL_GUARDED_BY(lock); /* of all connections */
    int64_t queue_max VEL_GUARDED_BY(lock);    /* above it nothing more is queued, bytes */
};

/* The registered path of a service: who may open it. */
struct service_attr {
    mode_t mode;
    uid_t uid;
    gid_t gid;
};

struct service {
    char* name;    /* owned */
    char* options; /* owned */
    vel_mutex lock;
    int32_t connections_open; /* refused ones too; guarded by the server lock */
    service_worker_function worker;
    service_connect_function connect;
    service_disconnect_function disconnect;
    slot_table connections; /* of osb; guarded by the server lock */
    service_attr* attr;     /* owned; path-name mode, else null */
};

struct osb {
    const char* service_name; /* borrowed */
    void* user_data;          /* the service's */
    vel_mutex lock;
    int32_t in_use;
    int32_t queue_limit;
    int32_t queue_length;
    int32_t closed;
    reply_entry* queue; /* newest first; owned */
    msgserver* server;
    int32_t scoid; /* the client's connection; never reused while the server lives */
    unsigned char event[MSG_EVENT_SIZE]; /* goes to the event channel of the client's socket */
    ::service* service;
    int32_t index;

    int64_t queue_bytes;
    int32_t refused;   /* 1: `connect` refused it, no message finds it */
    uid_t uid;         /* the client's; constant */
    int32_t puts_owed; /* replies still owed to CSM_PUTs; they count against the queue limit */
    /* The open connections of one client socket, listed from the word that the platform keeps for
     * it; null and out of the list once closed. */
    void** client_word;
    osb* client_next;
    osb* client_previous;
};

struct recv_context {
    int64_t rcvid; /* 0 a pulse, -1 a failed receive; carries a generation */
    message_info info;
    unsigned char* buffer; /* 28 header bytes, then the payload area */
    unsigned char* payload;
    int32_t payload_size;
    void* resmgr_context; /* not used: there is no resource-manager layer here */

    msgserver* server;
    unsigned char* overflow; /* takes what a message has beyond the payload area; owned */
    int32_t overflow_size;
    int32_t failure; /* error number of a receive after which another would fail too, else 0 */
    int64_t held;    /* receive id to be given up before the next receive; 0: none */
    osb* owed;       /* whose reply is due; atomic, the first reply call takes it */
};

extern "C" {

/* Makes a server: `max_size` bytes of payload at most (at least 1024), `max_queue` the highest
 * queue limit. Null with errno set; EPERM: flags without MSGSERVER_NO_CAPABILITIES, and no
 * capability service answers. */
msgserver* msgserver_create(int32_t max_size, int32_t max_queue, uint32_t flags) noexcept;

/* Sets how many bytes of replies may wait, above 0. [any thread] */
void msgserver_limit_replies(msgserver* server, int64_t bytes) noexcept;

/* Frees a server that no thread uses any more, with all its connections, without callbacks. Null is
 * allowed. A process that ends need not call it. */
void msgserver_destroy(msgserver* server) noexcept;

/* Registers a service: with MSGSERVER_BY_PATH under /sys/csm/NAME/VARIANT with the access that the
 * options give ("perms=" octal, of which read and write count; "uid=", "gid=" decimal; separated by
 * commas), else in the name space, and the options are the capabilities that an open needs.
 * `variant` null: "default"; `options` null: none. `buffer_hint`: expected payload size, bytes.
 * Returns the service index, or -1 with errno set: EEXIST (another process serves it), EINVAL (a
 * name or variant that is empty, begins with a dot or has a '/'; options that are no numbers). */
int32_t msgserver_add(msgserver* server, const char* name, const char* variant, const char* options,
                      int32_t buffer_hint, service_worker_function worker,
                      service_connect_function connect,
                      service_disconnect_function disconnect) noexcept;

/* Takes the lock that decides who serves a path name, ahead of msgserver_add, so that a second
 * service is refused before it touches anything of the first. 0, or -1 with errno EEXIST (taken) or
 * another. Held until the server that adds the name withdraws it, or the process ends. */
int32_t msgserver_claim(const char* name, const char* variant) noexcept;

/* Removes the registered names, in an orderly end. No client can connect afterwards. */
void msgserver_withdraw(msgserver* server) noexcept;

/* Receives and dispatches until `stop` is set, or until the channel is not usable any more.
 * Without memory for the thread's receive context it tries again ten times a second. Any number of
 * threads may run it. Returns 0. */
int32_t msgserver_thread_loop(msgserver* server) noexcept;

/* Sets `stop` and wakes the loop. 0, or -1 when the server's channel cannot be woken (errno). Any
 * thread. */
int32_t msgserver_stop(msgserver* server) noexcept;

/* Waits for one message: its receive id, 0 for a pulse, -1 (the message, if there was one, has
 * been answered). */
int64_t msgserver_receive(msgserver* server) noexcept;

/* Handles what the calling thread received last. 0, or -1 when that receive had failed. */
int32_t msgserver_dispatch(msgserver* server) noexcept;

/* Makes the calling thread's payload area at least `size` bytes. Its size, or -1 with errno
 * EMSGSIZE (above max_size) or ENOMEM. */
int32_t msgserver_growmsg(msgserver* server, int32_t size) noexcept;

/* The service of the calling thread's current message: with scoid -1 the one of that name (an
 * open), else the one that the header's indices name together with an open connection of that
 * client. Null when there is none. */
service* lookup(msgserver* server, const char* name, int32_t scoid) noexcept
    VEL_REQUIRES(server->lock);

/* Frees a receive context: the thread-exit destructor. */
void destructer(void* context) noexcept;

/* The calling thread's receive context, or null. */
recv_context* msgserver_context(msgserver* server) noexcept;

/* Reply operations; workers call them through the server record. Each releases the reference that
 * the owed reply holds on the connection. [any thread], as long as the thread that received has not
 * received again.
 *
 * Results: what the platform's reply gave (0, or -1: the client has gone) when the client was
 * answered; ENOMEM when the reply could not be queued (a waiting client is then answered ENOMEM);
 * -1 with errno EMSGSIZE for a reply above 2 GiB, or EINVAL when this request has been answered
 * before. Status 240 is the transport's own (CSM_STATUS_QUEUED) and must not be used. */
int32_t callout_reply(osb* connection, recv_context* context, int32_t status, const void* data,
                      int32_t length) noexcept;
int32_t callout_replyv(osb* connection, recv_context* context, int32_t status, const iovec* vector,
                       int32_t count) noexcept;

/* Answers a CSM_PUT later, from any thread: queues the reply under `tag` and delivers the event to
 * the client of `rcvid`, which may have gone. 0 or ENOMEM. */
int32_t callout_reply2(osb* connection, int64_t rcvid, uint32_t tag, int32_t status,
                       const iovec* vector, int32_t count) noexcept;

/* Adds one entry at the head of the queue. 0, or ENOMEM: no memory, or a bound is reached. */
int32_t put_queue(osb* connection, int32_t status, uint32_t tag, const iovec* vector,
                  int32_t count) noexcept;

/* Gives up one reference; the last one frees a closed connection with its queue. */
void _msgserver_lock_then_decr_inuse_and_release_osb_if_closed(osb* connection) noexcept;
}

#endif
