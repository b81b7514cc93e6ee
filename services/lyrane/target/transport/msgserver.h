/* The message server: receives clients' messages on one channel, keeps a record per client
 * connection, and hands each request to the service's worker; the worker answers through the
 * server's reply operations, at once or by way of the connection's queue.
 *
 * Locks: the server lock guards the service table, the connection tables and, of each connection,
 * in_use, closed, queue_limit, queue and queue_length. It is never held while a callback runs or a
 * reply is sent. */
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

/* Callbacks of a service; called without the server lock. The worker makes exactly one reply call
 * before its thread receives again. `connect` refuses with a non-zero error number. `disconnect`
 * is called once for a connection that was accepted; its context is null when the client went
 * away without closing. */
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
    int32_t chid;
    reply_function reply;
    replyv_function replyv;
    reply2_function reply2;
    void* dispatch; /* not used on this platform */
    pthread_key_t context_key;
    void* user_data; /* the owner's */
    vel_mutex lock;
    slot_table services VEL_GUARDED_BY(lock); /* of service */
};

struct service {
    char* name;    /* owned */
    char* options; /* owned */
    vel_mutex lock;
    int32_t connections_open; /* guarded by the server lock */
    service_worker_function worker;
    service_connect_function connect;
    service_disconnect_function disconnect;
    slot_table connections; /* of osb; guarded by the server lock */
    void* attr;             /* the registered path, path-name mode */
};

struct osb {
    const char* service_name; /* borrowed */
    void* user_data;          /* the service's */
    vel_mutex lock;
    int32_t in_use;
    int32_t queue_limit;
    int32_t queue_length;
    int32_t closed;
    reply_entry* queue; /* newest first */
    msgserver* server;
    int32_t scoid; /* the client's connection; never reused while the server lives */
    unsigned char event[MSG_EVENT_SIZE];
    ::service* service;
    int32_t index;
};

struct recv_context {
    int64_t rcvid; /* 0 a pulse, -1 a failed receive; carries a generation */
    message_info info;
    unsigned char* buffer; /* 28 header bytes, then the payload area */
    unsigned char* payload;
    int32_t payload_size;
    void* resmgr_context; /* not used on this platform */
};

extern "C" {

/* Makes a server. Null with errno set. */
msgserver* msgserver_create(int32_t max_size, int32_t max_queue, uint32_t flags) noexcept;

/* Registers a service. `variant` null: "default"; `options` null: none. `buffer_hint`: expected
 * payload size. The service index, or -1 with errno set (EEXIST: another process serves it). */
int32_t msgserver_add(msgserver* server, const char* name, const char* variant,
                      const char* options, int32_t buffer_hint, service_worker_function worker,
                      service_connect_function connect,
                      service_disconnect_function disconnect) noexcept;

/* Takes the lock that decides who serves a name, ahead of msgserver_add, so that a second service
 * is refused before it touches anything of the first. 0, or -1 with errno EEXIST (taken) or
 * another. Held until the process ends. */
int32_t msgserver_claim(const char* name, const char* variant) noexcept;

/* Removes the registered paths, in an orderly end. No client can connect afterwards. */
void msgserver_withdraw(msgserver* server) noexcept;

/* Receives and dispatches until `stop` is set. Returns 0. */
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

/* The service of the calling thread's current message, or null. The server lock is held. */
service* lookup(msgserver* server, const char* name, int32_t scoid) noexcept;

/* Frees a receive context: the thread-exit destructor. */
void destructer(void* context) noexcept;

/* The calling thread's receive context, or null. */
recv_context* msgserver_context(msgserver* server) noexcept;

/* Reply operations. See reply.h. */
int32_t callout_reply(osb* connection, recv_context* context, int32_t status, const void* data,
                      int32_t length) noexcept;
int32_t callout_replyv(osb* connection, recv_context* context, int32_t status,
                       const iovec* vector, int32_t count) noexcept;
int32_t callout_reply2(osb* connection, int64_t rcvid, uint32_t tag, int32_t status,
                       const iovec* vector, int32_t count) noexcept;
int32_t put_queue(osb* connection, int32_t status, uint32_t tag, const iovec* vector,
                  int32_t count) noexcept;
void _msgserver_lock_then_decr_inuse_and_release_osb_if_closed(osb* connection) noexcept;
}

#endif
