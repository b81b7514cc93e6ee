/* The client's end: connecting, calling, waiting for events. Part of the client library, so it
 * stands alone: nothing of the channel's records. */
#include <veloran/message.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <veloran/handover.h>
#include <veloran/lock.h>
#include <veloran/paths.h>

#include "message_connect.h"

/* A long path goes through a descriptor of its folder. */
int message_connect_path(int fd, const char* real) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    vel_fd folder;
    if (strlen(real) < sizeof address.sun_path) {
        memcpy(address.sun_path, real, strlen(real) + 1);
    } else {
        char parent[PATH_MAX];
        const char* slash = strrchr(real, '/');
        const auto length = static_cast<size_t>(slash - real);
        memcpy(parent, real, length);
        parent[length] = '\0';
        folder.value = open(parent, O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (folder.value < 0) {
            return -1;
        }
        const int used = snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d%s",
                                  folder.value, slash);
        if (used < 0 || static_cast<size_t>(used) >= sizeof address.sun_path) {
            errno = ENAMETOOLONG;
            return -1;
        }
    }
    int result;
    do {
        result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    return result;
}

namespace {

/* Events that a client has not read yet: room for some thousands. */
constexpr int EVENT_BUFFER_SIZE = 1024 * 1024;
constexpr size_t PIECES_ON_STACK = 16;
constexpr size_t SHORT_PACKET = 512;
/* The system takes 1,024 at a time; one is the frame's. */
constexpr int32_t PIECES_MAX = 1000;

ssize_t send_looped(int fd, const msghdr* packet) {
    ssize_t sent;
    do {
        sent = sendmsg(fd, packet, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent;
}

/* Sends a short request, put together first: one plain send costs the system less than a gathered
 * one. 0, or the error number. */
int32_t send_short(int fd, const iovec* vector, int32_t count, size_t size) {
    unsigned char packet[SHORT_PACKET];
    unsigned char* end = packet;
    for (int32_t i = 0; i < count; ++i) {
        if (vector[i].iov_len > 0) {
            memcpy(end, vector[i].iov_base, vector[i].iov_len);
            end += vector[i].iov_len;
        }
    }
    ssize_t sent;
    do {
        sent = send(fd, packet, size, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent < 0 ? errno : 0;
}

size_t total_length(const iovec* vector, int32_t count) {
    size_t total = 0;
    for (int32_t i = 0; i < count; ++i) {
        total += vector[i].iov_len;
    }
    return total;
}

/* Sends the request as one packet. 0, or the error number. */
int32_t send_request(int fd, const iovec* vector, int32_t count, int32_t descriptor) {
    const size_t total = total_length(vector, count);
    if (descriptor < 0 && total <= SHORT_PACKET) {
        return send_short(fd, vector, count, total);
    }
    msghdr packet{};
    packet.msg_iov = const_cast<iovec*>(vector);
    packet.msg_iovlen = static_cast<size_t>(count);
    vel_handover handover;
    vel_handover_attach(&packet, &handover, descriptor);
    ssize_t sent = send_looped(fd, &packet);
    if (sent < 0 && errno == EMSGSIZE) {
        /* Larger than the default buffer takes: ask for as much as is needed, once. */
        const int size = total < INT_MAX / 2 ? static_cast<int>(total) : INT_MAX / 2;
        (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        sent = send_looped(fd, &packet);
    }
    return sent < 0 ? errno : 0;
}

/* Where the rest of a reply goes: the frame first, then the vector behind `offset`. */
size_t aim(iovec* out, message_frame* frame, const iovec* vector, int32_t count, size_t offset) {
    size_t used = 0;
    out[used++] = {frame, sizeof *frame};
    for (int32_t i = 0; i < count; ++i) {
        const size_t skip = offset < vector[i].iov_len ? offset : vector[i].iov_len;
        offset -= skip;
        if (vector[i].iov_len > skip) {
            out[used++] = {static_cast<unsigned char*>(vector[i].iov_base) + skip,
                           vector[i].iov_len - skip};
        }
    }
    return used;
}

/* One receive into the pieces; the whole length of the packet, which may be more than they hold, or
 * -1. A short one takes the plain call, like a short request. */
ssize_t receive_pieces(int fd, iovec* pieces, size_t count) {
    const size_t room = total_length(pieces, static_cast<int32_t>(count));
    if (room > SHORT_PACKET) {
        msghdr packet{};
        packet.msg_iov = pieces;
        packet.msg_iovlen = count;
        return recvmsg(fd, &packet, MSG_TRUNC | MSG_CMSG_CLOEXEC);
    }
    unsigned char packet[SHORT_PACKET];
    const ssize_t got = recv(fd, packet, room, MSG_TRUNC);
    size_t left = got > 0 ? std::min(static_cast<size_t>(got), room) : 0;
    const unsigned char* from = packet;
    for (size_t i = 0; left > 0; ++i) {
        const size_t part = std::min(pieces[i].iov_len, left);
        memcpy(pieces[i].iov_base, from, part);
        from += part;
        left -= part;
    }
    return got;
}

/* Receives one packet. Its bytes of data, or -1 with errno: EPROTO for what is no packet of ours.
 */
ssize_t receive_packet(int fd, iovec* pieces, size_t count) {
    ssize_t got;
    /* A server that closes with something of ours unread resets the connection, once; what it had
     * sent before is still there, and after that the end. */
    do {
        got = receive_pieces(fd, pieces, count);
    } while (got < 0 && (errno == EINTR || errno == ECONNRESET));
    if (got < 0) {
        return -1;
    }
    if (got == 0) {
        errno = ECONNRESET;
        return -1;
    }
    if (static_cast<size_t>(got) < sizeof(message_frame) ||
        static_cast<size_t>(got) > total_length(pieces, static_cast<int32_t>(count))) {
        errno = EPROTO;
        return -1;
    }
    return got - static_cast<ssize_t>(sizeof(message_frame));
}

/* Receives the reply to the packet sent last. 0 or an error number. `pieces` has room for the
 * frame and the vector. */
int32_t receive_reply(message_client* client, iovec* pieces, const iovec* vector, int32_t count,
                      message_result* result) {
    result->received = 0;
    for (;;) {
        message_frame frame;
        const size_t used = aim(pieces, &frame, vector, count, result->received);
        const ssize_t data = receive_packet(client->fd, pieces, used);
        if (data < 0) {
            client->broken = errno == EPROTO;
            return errno;
        }
        if (static_cast<int32_t>(frame.sequence - client->sequence) < 0) {
            continue; /* the reply to a call whose thread was stopped half-way */
        }
        result->received += static_cast<size_t>(data);
        const bool more = (frame.flags & MESSAGE_FRAME_MORE) != 0;
        const bool error = (frame.flags & MESSAGE_FRAME_ERROR) != 0;
        if (frame.sequence != client->sequence || result->received > frame.length ||
            (more && data == 0) || (!more && result->received != frame.length) ||
            (error && (more || frame.length != 0 || frame.status <= 0))) {
            client->broken = true;
            return EPROTO;
        }
        if (error) {
            return frame.status;
        }
        if (!more) {
            result->status = frame.status;
            return 0;
        }
    }
}

/* message_call with more pieces than the system takes: by way of one buffer for each direction. */
int32_t call_by_copy(message_client* client, const iovec* send, int32_t send_count,
                     int32_t descriptor, const iovec* receive, int32_t receive_count,
                     message_result* result) {
    const size_t request = total_length(send, send_count);
    const size_t capacity = total_length(receive, receive_count);
    const std::unique_ptr<char, vel_free> buffer(
        static_cast<char*>(std::malloc(request + capacity + 1)));
    if (buffer == nullptr) {
        return ENOMEM;
    }
    char* end = buffer.get();
    for (int32_t i = 0; i < send_count; ++i) {
        end = std::copy_n(static_cast<const char*>(send[i].iov_base), send[i].iov_len, end);
    }
    const iovec out{buffer.get(), request};
    const iovec in{end, capacity};
    const int32_t error = message_call(client, &out, 1, descriptor, &in, 1, result);
    size_t left = result->received;
    for (int32_t i = 0; left > 0; ++i) {
        const size_t part = std::min(receive[i].iov_len, left);
        std::copy_n(end, part, static_cast<char*>(receive[i].iov_base));
        end += part;
        left -= part;
    }
    return error;
}

} // namespace

extern "C" {

int32_t message_connect(message_client* client, const char* path) noexcept {
    char real[PATH_MAX];
    if (paths_resolve_existing(path, real, sizeof real) < 0) {
        return -1;
    }
    vel_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (fd.value < 0 || message_connect_path(fd.value, real) != 0) {
        return -1;
    }
    *client = message_client{fd.release(), 0, false};
    return 0;
}

void message_disconnect(message_client* client) noexcept {
    if (client->fd >= 0) {
        const int saved = errno;
        ::close(client->fd);
        errno = saved;
    }
    *client = message_client{};
}

int32_t message_call(message_client* client, const iovec* send, int32_t send_count,
                     int32_t descriptor, const iovec* receive, int32_t receive_count,
                     message_result* result) noexcept {
    *result = message_result{};
    if (client->fd < 0 || client->broken) {
        return client->broken ? EPROTO : EBADF;
    }
    if (send_count > PIECES_MAX || receive_count > PIECES_MAX) {
        return call_by_copy(client, send, send_count, descriptor, receive, receive_count, result);
    }
    iovec on_stack[1 + PIECES_ON_STACK];
    std::unique_ptr<iovec, vel_free> on_heap;
    iovec* pieces = on_stack;
    if (receive_count > static_cast<int32_t>(PIECES_ON_STACK)) {
        on_heap.reset(static_cast<iovec*>(
            std::malloc((1 + static_cast<size_t>(receive_count)) * sizeof(iovec))));
        if (on_heap == nullptr) {
            return ENOMEM;
        }
        pieces = on_heap.get();
    }
    client->sequence += 1;
    const int32_t sent = send_request(client->fd, send, send_count, descriptor);
    if (sent != 0 && sent != EPIPE && sent != ECONNRESET) {
        client->sequence -= 1;
        return sent;
    }
    /* A server that has no room for us has said so before it closed, so look even after a failed
     * send. */
    const int32_t error = receive_reply(client, pieces, receive, receive_count, result);
    return sent != 0 && error == ECONNRESET ? sent : error;
}

int32_t message_event_channel(int32_t* receive_end, int32_t* send_end) noexcept {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return -1;
    }
    const int size = EVENT_BUFFER_SIZE;
    (void)setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    *receive_end = ends[0];
    *send_end = ends[1];
    return 0;
}

int32_t message_event_wait(int32_t receive_end, int32_t server, message_event* event) noexcept {
    for (;;) {
        pollfd entries[2] = {{receive_end, POLLIN, 0}, {server, 0, 0}};
        if (poll(entries, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        if (entries[0].revents != 0) {
            const ssize_t got = recv(receive_end, event, sizeof *event, MSG_DONTWAIT | MSG_TRUNC);
            if (got == static_cast<ssize_t>(sizeof *event)) {
                return 0;
            }
            if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
                errno = got == 0 ? EPIPE : errno;
                return -1;
            }
        } else if (entries[1].revents != 0) {
            errno = EPIPE;
            return -1;
        }
    }
}
}
