/* Accepting clients: bounds, refusals, and what happens when descriptors run out. */
#include "message_channel.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <new>

#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/* Kept for the rest of the process: objects, databases, media files. */
constexpr int32_t DESCRIPTOR_RESERVE = 1024;
constexpr int SEND_BUFFER_SIZE = 256 * 1024;
/* Refused newcomers that are not closed yet, in all; who comes then waits at the door. */
constexpr int32_t REFUSED_MAX = 256;
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

/* Adds up which connections of a list are of the client's process and of its user. */
void count_shares(const message_connection* list, const ucred& client, int32_t* of_process,
                  int32_t* of_user) {
    for (; list != nullptr; list = list->next) {
        *of_process += list->pid == client.pid ? 1 : 0;
        *of_user += list->uid == client.uid ? 1 : 0;
    }
}

bool room_for(message_channel* channel, const ucred& client) VEL_REQUIRES(channel->lock) {
    if (channel->connections + channel->closings >= channel->limit) {
        return false;
    }
    int32_t of_process = 0;
    int32_t of_user = 0;
    for (const message_connection* bucket : channel->buckets) {
        count_shares(bucket, client, &of_process, &of_user);
    }
    count_shares(channel->closing, client, &of_process, &of_user);
    /* Process 0 stands for all that cannot be seen from here (another process name space). */
    return (client.pid == 0 || of_process < share_of_process(channel->limit)) &&
           (client.uid == ROOT || of_user < share_of_user(channel->limit));
}

/* Without room: ends the connections of processes that have died. The system ends them by itself,
 * unless the process put its end of the socket into a message that is never read because a reply
 * to an earlier one waits. Once a second at the most. */
void end_dead(message_channel* channel) VEL_REQUIRES(channel->lock) {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec == channel->dead_ended) {
        return;
    }
    channel->dead_ended = now.tv_sec;
    for (const message_connection* bucket : channel->buckets) {
        for (; bucket != nullptr; bucket = bucket->next) {
            if (bucket->output_pending.load(std::memory_order_relaxed) && bucket->pid != 0 &&
                kill(bucket->pid, 0) != 0 && errno == ESRCH) {
                (void)shutdown(bucket->fd, SHUT_RDWR);
            }
        }
    }
}

/* Makes a connection of an accepted socket. False: not taken. */
bool admit(message_channel* channel, int fd, const ucred& client) VEL_REQUIRES(channel->lock) {
    if (!room_for(channel, client)) {
        end_dead(channel);
        return false;
    }
    message_connection* connection = new (std::nothrow) message_connection{};
    if (connection == nullptr) {
        return false;
    }
    connection->channel = channel;
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

void message_set_connection_limit(message_channel* channel) noexcept {
    constexpr rlim_t WANTED =
        rlim_t{MESSAGE_CONNECTIONS_MAX} * MESSAGE_DESCRIPTORS_EACH + DESCRIPTOR_RESERVE;
    constexpr rlim_t PLENTY = 3 * WANTED; /* no use of the rest of the process comes near */
    rlimit limit{};
    channel->limit = share_of_process(MESSAGE_CONNECTIONS_MAX);
    channel->is_short = true;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
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
    channel->limit = std::max((usable - reserve) / MESSAGE_DESCRIPTORS_EACH, 1);
    channel->is_short = limit.rlim_cur < PLENTY;
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
    const int fd =
        accept4(channel->names[name].listen_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
            set_accepting(channel, false);
        }
        return;
    }
    ucred client{};
    client.uid = static_cast<uid_t>(-1);
    socklen_t length = sizeof client;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &client, &length) != 0 ||
        !admit(channel, fd, client)) {
        refuse(fd);
        if (closer_close(fd, closer_sockets_of(client.uid)) > REFUSED_MAX) {
            set_accepting(channel, false);
        }
    }
}
