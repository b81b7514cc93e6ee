/* Event channels: how a server tells a client something that it did not just ask for. */
#include "message_channel.h"

#include <cerrno>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>

namespace {

using socket_name = int (*)(int, sockaddr*, socklen_t*) noexcept;

bool is_unnamed(int fd, socket_name name_of) {
    sockaddr_un name{};
    socklen_t size = sizeof name;
    return name_of(fd, reinterpret_cast<sockaddr*>(&name), &size) == 0 &&
           size <= sizeof name.sun_family;
}

/* Lets nobody write to the socket any more. False when something was written before. A client could
 * put its own socket there, and its connection would never end, for we would keep both ends. */
bool end_reading(int fd) {
    /* With credentials asked for, a message that is looked at without room for them is marked, and
     * so an empty one differs from the end. */
    const int on = 1;
    msghdr packet{};
    return setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == 0 &&
           shutdown(fd, SHUT_RD) == 0 && recvmsg(fd, &packet, MSG_PEEK | MSG_DONTWAIT) == 0 &&
           (packet.msg_flags & (MSG_CTRUNC | MSG_TRUNC)) == 0;
}

/* Is this one end of a pair of sockets that the client's user made? Anything else could block us,
 * or make us speak with our rights to somebody who only listens to us because of them. A pair has
 * no names; of a client's own end of a connection the other one has the service's. */
bool is_event_channel(int fd, uid_t client) {
    int domain = 0;
    int type = 0;
    int listening = 0;
    ucred maker{};
    socklen_t size = sizeof(int);
    socklen_t maker_size = sizeof maker;
    return getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_UNIX &&
           getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_SEQPACKET &&
           getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 && listening == 0 &&
           getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &maker, &maker_size) == 0 &&
           maker.uid == client && is_unnamed(fd, getsockname) && is_unnamed(fd, getpeername) &&
           end_reading(fd);
}

/* The connection of a receive id, pinned; null when it has gone. `in_hand`: only while the message
 * is being handled. */
message_connection* pin(message_channel* channel, int64_t rcvid, bool in_hand) {
    vel_lock_guard guard(channel->lock);
    message_connection* connection = message_find(channel, message_rcvid_scoid(rcvid));
    if (connection == nullptr ||
        (in_hand && (!connection->busy || connection->sequence != static_cast<uint32_t>(rcvid)))) {
        return nullptr;
    }
    connection->pins += 1;
    return connection;
}

} // namespace

extern "C" {

int32_t message_take_event_channel(message_channel* channel, int64_t rcvid) noexcept {
    message_connection* connection = pin(channel, rcvid, true);
    if (connection == nullptr) {
        errno = EBADF;
        return -1;
    }
    const bool good =
        connection->offered < 0 || is_event_channel(connection->offered, connection->uid);
    if (good) {
        /* The earlier one is closed when the message is done with. */
        vel_lock_guard guard(connection->send_lock);
        std::swap(connection->event_fd, connection->offered);
    }
    message_unpin(channel, connection);
    if (!good) {
        errno = EINVAL;
        return -1;
    }
    return 0;
}

int32_t message_deliver_event(message_channel* channel, int64_t rcvid, const void* event) noexcept {
    message_connection* connection = pin(channel, rcvid, false);
    if (connection == nullptr) {
        errno = ESRCH;
        return -1;
    }
    int error = ENXIO;
    {
        vel_lock_guard guard(connection->send_lock);
        if (connection->event_fd >= 0) {
            ssize_t sent;
            do {
                sent = ::send(connection->event_fd, event, MESSAGE_EVENT_SIZE,
                              MSG_DONTWAIT | MSG_NOSIGNAL);
            } while (sent < 0 && errno == EINTR);
            error = sent < 0 ? errno : 0;
        }
    }
    message_unpin(channel, connection);
    if (error != 0) {
        errno = error;
        return -1;
    }
    return 0;
}
}
