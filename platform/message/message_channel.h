/* The records behind a channel, shared by the files of this folder.
 *
 * Life of a connection: made by accept, found by its id in the channel's table, taken out of the
 * table by message_detach, over when the last pin on it goes, freed when the closer has closed its
 * sockets. `busy` hands it to one receiving thread at a time: from the moment that thread picks it
 * up until message_done or message_detach.
 *
 * No thread that serves drops the last reference of a client's file (closer.h says why). So it
 * closes neither descriptors that clients sent nor sockets that they can write to, and takes no
 * message out of a queue whose descriptors it does not hold (message_receive.cc).
 *
 * Locks: the channel lock guards the table and the state of hand-over; a connection's send lock
 * guards what is sent to it. They are never held together. */
#ifndef VELORAN_MESSAGE_CHANNEL_H
#define VELORAN_MESSAGE_CHANNEL_H

#include <atomic>
#include <cstdint>

#include <veloran/closer.h>
#include <veloran/lock.h>
#include <veloran/message.h>

/* A reply that the client did not take at once; one allocation, the data behind it. */
struct message_output {
    message_frame frame; /* of all its packets, flags aside */
    size_t size;         /* bytes of data */
    size_t sent;
};

struct message_connection {
    /* Constant. */
    int32_t scoid = 0;
    int fd = -1; /* non-blocking */
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    size_t packet_size = 0; /* most bytes of one packet to this client */

    /* Guarded by the channel lock. */
    message_connection* next = nullptr; /* in its bucket */
    int32_t pins = 0;                   /* users outside the channel lock */
    bool busy = false;     /* one of its messages, or its end, is in a receiver's hands */
    bool detached = false; /* out of the table */
    bool answered = true;  /* the message in hand, or the last one, is */
    bool discards = false; /* `unwanted` is being closed; nothing is read meanwhile */
    uint32_t sequence = 0; /* of that message */
    uint32_t interest = 0; /* present epoll events; 0: not in the set */

    bool over_share = false; /* it may leave no more unread; who answers, for that answer */

    /* The busy receiver's. */
    int offered = -1;     /* descriptor that came with the message in hand, or -1 */
    void* user = nullptr; /* message_info::user points here */

    /* The closer's while it has the job: first `unwanted`, when it is over its sockets. */
    message_channel* channel = nullptr; /* constant */
    closer_job job;
    int unwanted = -1;         /* a descriptor that came and was not taken */
    int sockets[2] = {-1, -1}; /* its own, the event channel */

    vel_mutex send_lock;
    message_output* output VEL_GUARDED_BY(send_lock) = nullptr; /* owned */
    int event_fd VEL_GUARDED_BY(send_lock) = -1;                /* -1: none */
    bool failed VEL_GUARDED_BY(send_lock) = false;              /* nothing more can be sent */
    std::atomic<bool> output_pending{false};                    /* output is not null */
    std::atomic<size_t> output_size{0};                         /* bytes of its data */
};

/* Bytes of a name's last part: with the longest prefix, dot and suffix it still fits into a socket
 * address. */
constexpr size_t MESSAGE_LEAF_MAX = 72;

struct message_name {
    int listen_fd = -1; /* -1: free entry */
    int dir_fd = -1;
    int lock_fd = -1;
    dev_t device = 0; /* of the socket file */
    ino_t inode = 0;
    char leaf[MESSAGE_LEAF_MAX + 1] = "";
};

constexpr int32_t MESSAGE_BUCKETS = 1024;
constexpr int32_t MESSAGE_DESCRIPTORS_EACH = 2; /* of a connection: its socket, its event channel */
constexpr int32_t MESSAGE_GIFTS_MAX =
    253; /* descriptors that one message may bring: the system's */

struct message_channel {
    int epoll_fd = -1;
    int wake_fd = -1;
    int32_t limit = 0; /* connections */
    std::atomic<size_t> output_bytes{0};
    std::atomic<size_t> output_max{MESSAGE_OUTPUT_MAX};
    std::atomic<bool> accept_paused{false}; /* written under lock */
    std::atomic<int32_t> references{1};     /* its maker's, and one of each job of the closer */
    std::atomic<int32_t> unwanted{0};       /* jobs that close descriptors that clients sent */
    /* Descriptors of a message may find no free number: the process may have few, or it happened.
     */
    std::atomic<bool> is_short{false};

    vel_mutex lock;
    message_connection* buckets[MESSAGE_BUCKETS] VEL_GUARDED_BY(lock) = {};
    int32_t connections VEL_GUARDED_BY(lock) = 0;               /* in the table */
    message_connection* closing VEL_GUARDED_BY(lock) = nullptr; /* those over, by `next` */
    int32_t closings VEL_GUARDED_BY(lock) = 0;                  /* of them */
    int64_t dead_ended VEL_GUARDED_BY(lock) = 0;                /* s of the monotonic clock */
    int32_t last_scoid VEL_GUARDED_BY(lock) = 0;
    message_name names[MESSAGE_NAMES_MAX] VEL_GUARDED_BY(lock);
};

/* What an epoll entry stands for: the kind in the upper half, an id or an index in the lower. */
constexpr uint64_t MESSAGE_ENTRY_CONNECTION = 0;
constexpr uint64_t MESSAGE_ENTRY_WAKE = uint64_t{1} << 32;
constexpr uint64_t MESSAGE_ENTRY_NAME = uint64_t{2} << 32;
constexpr uint64_t MESSAGE_ENTRY_KIND = ~uint64_t{0} << 32;

constexpr int64_t message_rcvid(int32_t scoid, uint32_t sequence) {
    return (int64_t{scoid} << 32) | sequence;
}

/* Connections (message_connection.cc). */

message_connection* message_find(message_channel* channel, int32_t scoid) noexcept
    VEL_REQUIRES(channel->lock);
/* Enters a new connection into table and epoll set and gives it its id. False with errno set. */
bool message_enter(message_channel* channel, message_connection* connection) noexcept
    VEL_REQUIRES(channel->lock);
/* Makes the epoll set wait for what the connection can go on with: room for its pending output,
 * else its next message. Nothing while it is busy. */
void message_update_interest(message_channel* channel, message_connection* connection) noexcept
    VEL_REQUIRES(channel->lock);
/* Takes it out of the epoll set until message_update_interest. */
void message_park(message_channel* channel, message_connection* connection) noexcept
    VEL_REQUIRES(channel->lock);
/* Lets go of a pin that the caller took under the lock. */
void message_unpin(message_channel* channel, message_connection* connection) noexcept
    VEL_EXCLUDES(channel->lock);
/* Gives up a reference of the channel; the last one frees it. */
void message_channel_release(message_channel* channel) noexcept VEL_EXCLUDES(channel->lock);

/* Closing (message_close.cc). */

/* Ends a connection that nobody can reach. It counts until it is closed. */
void message_connection_end(message_channel* channel, message_connection* connection) noexcept
    VEL_EXCLUDES(channel->lock);
/* Has the descriptor closed that came with the message in hand and was not taken. Until then no
 * further message is read, so that nobody can send them faster than they go. */
void message_discard_offered(message_channel* channel, message_connection* connection) noexcept
    VEL_REQUIRES(channel->lock);
/* Has MESSAGE_GIFTS_MAX descriptors of a user closed at the most. */
void message_discard(message_channel* channel, uid_t user, const int* fds, int32_t count) noexcept;

/* Names (message_name.cc). */

/* Serves a name whose lock the caller has claimed, and hands over, with success or without. False
 * with errno set; *name is to be removed in either case. */
bool message_name_listen(message_name* name, const char* path, int lock, mode_t mode, uid_t uid,
                         gid_t gid) noexcept;
/* Removes the files that are still ours and closes everything. */
void message_name_remove(message_name* name) noexcept;

/* Accepting (message_accept.cc). */

/* Sets how many connections the process's descriptor limit allows, and whether descriptors are
 * short; raises the soft limit first. */
void message_set_connection_limit(message_channel* channel) noexcept;
/* Takes one newcomer from a name, or refuses it, or pauses accepting when descriptors ran out. */
void message_accept(message_channel* channel, uint32_t name) noexcept VEL_EXCLUDES(channel->lock);
void message_accept_resume(message_channel* channel) noexcept VEL_REQUIRES(channel->lock);

/* Sending (message_reply.cc). Goes on with pending output. */
void message_flush(message_channel* channel, message_connection* connection) noexcept
    VEL_EXCLUDES(channel->lock);
/* Drops pending output. */
void message_output_drop(message_channel* channel, message_connection* connection) noexcept
    VEL_REQUIRES(connection->send_lock);

/* Closes a descriptor of our own making, if there is one, and forgets it. errno stays. */
void message_close(int* fd) noexcept;

#endif
