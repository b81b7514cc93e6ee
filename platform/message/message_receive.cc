/* Receiving: one message of one client at a time, clients in turn.
 *
 * A message may bring descriptors. Those that are given no number here are dropped by whoever takes
 * the message out of the queue, and that may wait (closer.h). So there are two ways to receive. As
 * a rule there is room for all that a message can bring, and numbers for them: one call takes the
 * message, and the closer gets what is not wanted. While numbers may be short, or the closer is at
 * work on such descriptors, the message is looked at first, with one descriptor: what is looked at
 * stays in the queue, so nothing is dropped. If that was all that it brings it can be taken out,
 * else it stays in the queue, and the closer closes both. */
#include "message_channel.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/* While accepting is paused for want of descriptors it is tried again after this time: another
 * part of the process may have given some back. */
constexpr int ACCEPT_RETRY_MS = 1000;

enum class outcome { message, end, nothing };

/* Keeps the descriptor that came with a packet. False when there were more, or no numbers for all:
 * the client broke the protocol, or there is no room for it here. */
bool take_descriptor(message_channel* channel, msghdr* packet, message_connection* connection) {
    int fds[MESSAGE_GIFTS_MAX];
    size_t bytes = 0;
    for (cmsghdr* part = CMSG_FIRSTHDR(packet); part != nullptr; part = CMSG_NXTHDR(packet, part)) {
        if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_RIGHTS) {
            bytes = std::min(part->cmsg_len - CMSG_LEN(0), sizeof fds);
            memcpy(fds, CMSG_DATA(part), bytes);
        }
    }
    const auto count = static_cast<int32_t>(bytes / sizeof(int));
    const bool is_whole = (packet->msg_flags & MSG_CTRUNC) == 0;
    if (count <= 1 && is_whole) {
        connection->offered = count == 1 ? fds[0] : -1;
        return true;
    }
    if (count > 0) {
        message_discard(channel, connection->uid, fds, count);
    }
    return false;
}

/* Whether the descriptors of a message may find no free numbers. */
bool is_short(const message_channel* channel) {
    return channel->is_short.load(std::memory_order_relaxed) ||
           channel->unwanted.load(std::memory_order_relaxed) > 0;
}

/* One message, as described above. Its length, or -1 with errno set; EPROTO when the connection is
 * to be ended. */
ssize_t take_message(message_channel* channel, message_connection* connection, const iovec* vector,
                     int32_t count) {
    alignas(cmsghdr) unsigned char control[CMSG_LEN(MESSAGE_GIFTS_MAX * sizeof(int))];
    const bool looks_first = is_short(channel);
    msghdr packet{};
    packet.msg_iov = const_cast<iovec*>(vector);
    packet.msg_iovlen = static_cast<size_t>(count);
    packet.msg_control = control;
    packet.msg_controllen = looks_first ? CMSG_LEN(sizeof(int)) : sizeof control;
    const ssize_t length =
        recvmsg(connection->fd, &packet,
                MSG_DONTWAIT | MSG_TRUNC | MSG_CMSG_CLOEXEC | (looks_first ? MSG_PEEK : 0));
    if (length < 0) {
        return -1;
    }
    if (!take_descriptor(channel, &packet, connection)) {
        /* With room for all some found no number: it must not happen twice. */
        if (!looks_first && (packet.msg_flags & MSG_CTRUNC) != 0) {
            channel->is_short.store(true, std::memory_order_relaxed);
        }
        errno = EPROTO;
        return -1;
    }
    if (looks_first) {
        char none;
        (void)recv(connection->fd, &none, 0, MSG_DONTWAIT);
    }
    return length;
}

/* After a read of no bytes: has the client ended its sending, with nothing more to read? */
bool sending_has_ended(int fd) {
    pollfd entry{fd, POLLRDHUP, 0};
    if (poll(&entry, 1, 0) < 1 || (entry.revents & (POLLRDHUP | POLLHUP | POLLERR)) == 0) {
        return false;
    }
    int waiting = 0;
    return ioctl(fd, FIONREAD, &waiting) != 0 || waiting == 0;
}

/* Reads the next message of a connection that the calling thread has made busy. */
outcome read_message(message_channel* channel, message_connection* connection, const iovec* vector,
                     int32_t count, ssize_t* length) {
    for (;;) {
        *length = take_message(channel, connection, vector, count);
        if (*length > 0) {
            return outcome::message;
        }
        if (*length == 0) {
            return sending_has_ended(connection->fd) ? outcome::end : outcome::message;
        }
        if (errno == EAGAIN) {
            return outcome::nothing;
        }
        /* A client that went away with replies unread resets the connection, once; what it had
         * sent is still there to be read. */
        if (errno != EINTR && errno != ECONNRESET) {
            return outcome::end;
        }
    }
}

void describe(message_connection* connection, message_info* info) {
    *info = message_info{};
    info->scoid = connection->scoid;
    info->pid = connection->pid;
    info->uid = connection->uid;
    info->gid = connection->gid;
    info->user = &connection->user;
}

/* Makes a connection busy for the calling thread, and counts the message that it will most likely
 * read; null when there is nothing to do with it. */
message_connection* pick_up(message_channel* channel, int32_t scoid) {
    vel_lock_guard guard(channel->lock);
    message_connection* connection = message_find(channel, scoid);
    if (connection == nullptr) {
        return nullptr;
    }
    if (connection->busy ||
        (connection->discards && !connection->output_pending.load(std::memory_order_acquire))) {
        /* It has more to say while an earlier message, or what came with it, is in other hands:
         * who is done with that puts it back into the set, which would otherwise report it over and
         * over. */
        message_park(channel, connection);
        return nullptr;
    }
    connection->busy = true;
    connection->sequence += 1;
    connection->answered = false;
    return connection;
}

/* There was no message after all. */
void forget_message(message_channel* channel, message_connection* connection, bool still_busy) {
    vel_lock_guard guard(channel->lock);
    connection->sequence -= 1;
    connection->answered = true;
    connection->busy = still_busy;
    message_update_interest(channel, connection);
}

/* Handles a ready connection: sends on, or reads. False when nothing came of it. */
bool serve(message_channel* channel, int32_t scoid, const iovec* vector, int32_t count,
           message_info* info, int64_t* rcvid) {
    message_connection* connection = pick_up(channel, scoid);
    if (connection == nullptr) {
        return false;
    }
    if (connection->output_pending.load(std::memory_order_acquire)) {
        message_flush(channel, connection);
        forget_message(channel, connection, false);
        return false;
    }
    ssize_t length;
    const outcome result = read_message(channel, connection, vector, count, &length);
    if (result == outcome::nothing) {
        forget_message(channel, connection, false);
        return false;
    }
    describe(connection, info);
    if (result == outcome::end) {
        forget_message(channel, connection, true);
        info->pulse = MESSAGE_PULSE_DISCONNECT;
        *rcvid = 0;
        return true;
    }
    info->msglen = static_cast<int32_t>(length > INT32_MAX ? INT32_MAX : length);
    *rcvid = message_rcvid(scoid, connection->sequence); /* nobody else writes it while busy */
    return true;
}

/* Takes one wake. False when another thread was faster. */
bool take_wake(message_channel* channel, message_info* info) {
    uint64_t value;
    if (::read(channel->wake_fd, &value, sizeof value) != sizeof value) {
        return false;
    }
    *info = message_info{};
    info->pulse = MESSAGE_PULSE_WAKE;
    return true;
}

} // namespace

extern "C" int64_t message_receive(message_channel* channel, const iovec* vector, int32_t count,
                                   message_info* info) noexcept {
    for (;;) {
        const bool paused = channel->accept_paused.load(std::memory_order_acquire);
        epoll_event entry;
        const int ready = epoll_wait(channel->epoll_fd, &entry, 1, paused ? ACCEPT_RETRY_MS : -1);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        if (ready == 0) {
            vel_lock_guard guard(channel->lock);
            message_accept_resume(channel);
            continue;
        }
        const uint64_t kind = entry.data.u64 & MESSAGE_ENTRY_KIND;
        const uint32_t id = static_cast<uint32_t>(entry.data.u64);
        int64_t rcvid = 0;
        if (kind == MESSAGE_ENTRY_NAME) {
            message_accept(channel, id);
        } else if (kind == MESSAGE_ENTRY_WAKE) {
            if (take_wake(channel, info)) {
                return 0;
            }
        } else if (serve(channel, static_cast<int32_t>(id), vector, count, info, &rcvid)) {
            return rcvid;
        }
    }
}
