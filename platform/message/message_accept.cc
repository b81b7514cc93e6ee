/* Accepting clients: bounds, refusals, and what happens when descriptors run out. */
#include "message_channel.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/* Each connection may come with an event channel. */
constexpr int32_t DESCRIPTORS_PER_CONNECTION = 2;
/* Kept for the rest of the process: objects, databases, media files. */
constexpr int32_t DESCRIPTOR_RESERVE = 1024;
constexpr int SEND_BUFFER_SIZE = 256 * 1024;
constexpr uid_t ROOT = 0;

int32_t share_of_process(int32_t limit) {
    return std::max(limit / 4, std::min(limit, 8));
}
int32_t share_of_user(int32_t limit) {
    return std::max(limit - limit / 4, 1);
}

/* Tells a newcomer why it is not served. It has sent nothing yet that was read, so its first
 * packet is the one to answer. */
void refuse(int fd) {
    message_frame frame{1, ENOMEM, MESSAGE_FRAME_ERROR, 0};
    (void)::send(fd, &frame, sizeof frame, MSG_DONTWAIT | MSG_NOSIGNAL);
}

/* The size of packets that the socket takes: the system may allow less than we ask for. */
size_t prepare_sending(int fd) {
    int size = SEND_BUFFER_SIZE;
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    socklen_t length = sizeof size;
    if (getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, &length) != 0) {
        return 2048;
    }
    return std::min<size_t>(MESSAGE_PACKET_SIZE, static_cast<size_t>(size) / 2);
}

bool room_for(message_channel* channel, const ucred& client) VEL_REQUIRES(channel->lock) {
    if (channel->connections >= channel->limit) {
        return false;
    }
    int32_t of_process = 0;
    int32_t of_user = 0;
    for (const message_connection* bucket : channel->buckets) {
        for (; bucket != nullptr; bucket = bucket->next) {
            of_process += bucket->pid == client.pid ? 1 : 0;
            of_user += bucket->uid == client.uid ? 1 : 0;
        }
    }
    /* Process 0 stands for all that cannot be seen from here (another process name space). */
    return (client.pid == 0 || of_process < share_of_process(channel->limit)) &&
           (client.uid == ROOT || of_user < share_of_user(channel->limit));
}

/* Makes a connection of an accepted socket. False: not taken. */
bool admit(message_channel* channel, int fd) VEL_REQUIRES(channel->lock) {
    ucred client{};
    socklen_t length = sizeof client;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &client, &length) != 0 ||
        !room_for(channel, client)) {
        return false;
    }
    message_connection* connection = new (std::nothrow) message_connection{};
    if (connection == nullptr) {
        return false;
    }
    connection->fd = fd;
    connection->pid = client.pid;
    connection->uid = client.uid;
    connection->gid = client.gid;
    connection->packet_size = prepare_sending(fd);
    vel_mutex_init(&connection->send_lock);
    if (!message_enter(channel, connection)) {
        vel_mutex_destroy(&connection->send_lock);
        delete connection;
        return false;
    }
    return true;
}

void set_accepting(message_channel* channel, bool accepting) VEL_REQUIRES(channel->lock) {
    for (uint32_t i = 0; i < MESSAGE_NAMES_MAX; ++i) {
        if (channel->names[i].listen_fd >= 0) {
            epoll_event entry{};
            entry.events = accepting ? uint32_t{EPOLLIN} : 0;
            entry.data.u64 = MESSAGE_ENTRY_NAME | i;
            (void)epoll_ctl(channel->epoll_fd, EPOLL_CTL_MOD, channel->names[i].listen_fd, &entry);
        }
    }
    channel->accept_paused.store(!accepting, std::memory_order_release);
}

} // namespace

int32_t message_connection_limit(void) noexcept {
    constexpr rlim_t WANTED =
        rlim_t{MESSAGE_CONNECTIONS_MAX} * DESCRIPTORS_PER_CONNECTION + DESCRIPTOR_RESERVE;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return share_of_process(MESSAGE_CONNECTIONS_MAX);
    }
    if (limit.rlim_cur < WANTED && limit.rlim_cur < limit.rlim_max) {
        rlimit raised = limit;
        raised.rlim_cur = std::min(WANTED, limit.rlim_max);
        if (setrlimit(RLIMIT_NOFILE, &raised) == 0) {
            limit = raised;
        }
    }
    const auto usable = static_cast<int32_t>(std::min(limit.rlim_cur, WANTED));
    const int32_t reserve = std::min(DESCRIPTOR_RESERVE, usable / 2);
    return std::max((usable - reserve) / DESCRIPTORS_PER_CONNECTION, 1);
}

void message_accept_resume(message_channel* channel) noexcept {
    if (channel->accept_paused.load(std::memory_order_relaxed)) {
        set_accepting(channel, true);
    }
}

void message_accept(message_channel* channel, uint32_t name) noexcept {
    vel_lock_guard guard(channel->lock);
    if (name >= MESSAGE_NAMES_MAX || channel->names[name].listen_fd < 0) {
        return;
    }
    int fd =
        accept4(channel->names[name].listen_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
            set_accepting(channel, false);
        }
        return;
    }
    if (!admit(channel, fd)) {
        refuse(fd);
        message_close(&fd);
    }
}
