/* The table of connections, and the hand-over of a connection between receivers. */
#include "message_channel.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <veloran/process.h>

namespace {

uint32_t bucket_of(int32_t scoid) {
    return static_cast<uint32_t>(scoid) % MESSAGE_BUCKETS;
}

bool set_interest(message_channel* channel, message_connection* connection, uint32_t events) {
    epoll_event entry{};
    entry.events = events;
    entry.data.u64 = MESSAGE_ENTRY_CONNECTION | static_cast<uint32_t>(connection->scoid);
    const int operation = events == 0                 ? EPOLL_CTL_DEL
                          : connection->interest == 0 ? EPOLL_CTL_ADD
                                                      : EPOLL_CTL_MOD;
    if (epoll_ctl(channel->epoll_fd, operation, connection->fd, &entry) != 0) {
        return false;
    }
    connection->interest = events;
    return true;
}

void leave_table(message_channel* channel, message_connection* connection)
    VEL_REQUIRES(channel->lock) {
    message_connection** link = &channel->buckets[bucket_of(connection->scoid)];
    while (*link != connection) {
        link = &(*link)->next;
    }
    *link = connection->next;
    channel->connections -= 1;
    connection->detached = true;
}

/* The client's supplementary groups; null without any. Owned by the caller. */
using group_list = std::unique_ptr<gid_t, vel_free>;
group_list groups_of(int fd, size_t* count) {
    socklen_t size = 0;
    *count = 0;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, nullptr, &size) == 0 || errno != ERANGE) {
        return nullptr;
    }
    group_list groups(static_cast<gid_t*>(std::malloc(size)));
    if (groups == nullptr || getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.get(), &size) != 0) {
        return nullptr;
    }
    *count = size / sizeof(gid_t);
    return groups;
}

bool in_group(const message_connection* connection, gid_t gid) {
    if (connection->gid == gid) {
        return true;
    }
    size_t count;
    const group_list groups = groups_of(connection->fd, &count);
    for (size_t i = 0; i < count; ++i) {
        if (groups.get()[i] == gid) {
            return true;
        }
    }
    return false;
}

/* Gives an answered message up. False: it is not answered yet. */
bool finish(message_channel* channel, int64_t rcvid) {
    vel_lock_guard guard(channel->lock);
    message_connection* connection = message_find(channel, message_rcvid_scoid(rcvid));
    if (connection == nullptr || !connection->busy ||
        connection->sequence != static_cast<uint32_t>(rcvid)) {
        return true;
    }
    if (!connection->answered) {
        return false;
    }
    message_discard_offered(channel, connection);
    connection->busy = false;
    message_update_interest(channel, connection);
    return true;
}

} // namespace

message_connection* message_find(message_channel* channel, int32_t scoid) noexcept {
    message_connection* connection = channel->buckets[bucket_of(scoid)];
    while (connection != nullptr && connection->scoid != scoid) {
        connection = connection->next;
    }
    return connection;
}

bool message_enter(message_channel* channel, message_connection* connection) noexcept {
    /* Ids count up; after two thousand million of them the oldest come again, never one in use. */
    do {
        channel->last_scoid = channel->last_scoid == INT32_MAX ? 1 : channel->last_scoid + 1;
    } while (message_find(channel, channel->last_scoid) != nullptr);
    connection->scoid = channel->last_scoid;
    if (!set_interest(channel, connection, EPOLLIN)) {
        return false;
    }
    message_connection** bucket = &channel->buckets[bucket_of(connection->scoid)];
    connection->next = *bucket;
    *bucket = connection;
    channel->connections += 1;
    process_promise_descriptors(-1); /* there it is */
    return true;
}

void message_update_interest(message_channel* channel, message_connection* connection) noexcept {
    if (connection->busy || connection->detached) {
        return;
    }
    uint32_t wanted = connection->discards ? 0 : uint32_t{EPOLLIN};
    if (connection->output_pending.load(std::memory_order_acquire)) {
        wanted = EPOLLOUT;
    }
    if (connection->interest != wanted && !set_interest(channel, connection, wanted)) {
        /* No memory to watch it: nothing of it would ever be read again, so end it visibly. The
         * record stays until the channel goes. */
        (void)shutdown(connection->fd, SHUT_RDWR);
    }
}

void message_park(message_channel* channel, message_connection* connection) noexcept {
    if (connection->interest != 0) {
        (void)set_interest(channel, connection, 0);
    }
}

void message_unpin(message_channel* channel, message_connection* connection) noexcept {
    bool last;
    {
        vel_lock_guard guard(channel->lock);
        connection->pins -= 1;
        last = connection->pins == 0 && connection->detached;
        if (!last) {
            message_update_interest(channel, connection);
        }
    }
    if (last) {
        message_connection_end(channel, connection);
    }
}

extern "C" {

int32_t message_rcvid_scoid(int64_t rcvid) noexcept {
    return static_cast<int32_t>(rcvid >> 32);
}

void message_done(message_channel* channel, int64_t rcvid) noexcept {
    const int saved = errno;
    if (!finish(channel, rcvid)) {
        /* Nobody answered; whoever does meanwhile is as good. */
        (void)message_error(channel, rcvid, EIO);
        (void)finish(channel, rcvid);
    }
    errno = saved;
}

void message_detach(message_channel* channel, int32_t scoid) noexcept {
    message_connection* connection;
    {
        vel_lock_guard guard(channel->lock);
        connection = message_find(channel, scoid);
        if (connection == nullptr) {
            return;
        }
        leave_table(channel, connection);
        if (connection->pins != 0) {
            connection = nullptr;
        }
    }
    if (connection != nullptr) {
        message_connection_end(channel, connection);
    }
    vel_lock_guard guard(channel->lock);
    message_accept_resume(channel);
}

int32_t message_check_access(message_channel* channel, int32_t scoid, uid_t uid, gid_t gid,
                             mode_t mode) noexcept {
    vel_lock_guard guard(channel->lock);
    const message_connection* connection = message_find(channel, scoid);
    if (connection == nullptr) {
        return ESRCH;
    }
    if (connection->uid == 0) {
        return 0;
    }
    mode_t bits = mode;
    if (connection->uid == uid) {
        bits >>= 6;
    } else if (in_group(connection, gid)) {
        bits >>= 3;
    }
    return (bits & 06) == 06 ? 0 : EACCES;
}
}
