/* Replies: sent at once as far as the client takes them, the rest as it reads. */
#include "message_channel.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>

namespace {

/* Pieces that are gathered without an allocation; workers use a handful. */
constexpr uid_t ROOT = 0;
constexpr int32_t PIECES_MAX = 16;
/* A reply is a header and a body of at most INT32_MAX bytes. */
constexpr size_t REPLY_MAX = size_t{INT32_MAX} + 28;

/* A short reply is put together first, on the stack: one plain send costs the system less than a
 * gathered one. Frame included. */
constexpr size_t SHORT_PACKET = 512;

/* Sends one packet. True when it has gone; false with errno. */
bool send_packet(int fd, iovec* pieces, size_t count) {
    msghdr packet{};
    packet.msg_iov = pieces;
    packet.msg_iovlen = count;
    ssize_t sent;
    do {
        sent = sendmsg(fd, &packet, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0;
}

size_t data_per_packet(const message_connection* connection) {
    return connection->packet_size - sizeof(message_frame);
}

/* Gathers bytes from..from+size of a vector into `out` (PIECES_MAX entries). The number of pieces,
 * or 0 when there are too many. */
size_t gather(const iovec* vector, int32_t count, size_t from, size_t size, iovec* out) {
    size_t used = 0;
    for (int32_t i = 0; i < count && size > 0; ++i) {
        if (from >= vector[i].iov_len) {
            from -= vector[i].iov_len;
            continue;
        }
        if (used == PIECES_MAX) {
            return 0;
        }
        const size_t part = std::min(vector[i].iov_len - from, size);
        out[used++] = {static_cast<unsigned char*>(vector[i].iov_base) + from, part};
        size -= part;
        from = 0;
    }
    return used;
}

/* Copies the bytes of a vector behind `from` to `out`. */
void copy_tail(const iovec* vector, int32_t count, size_t from, unsigned char* out) {
    for (int32_t i = 0; i < count; ++i) {
        const size_t skip = std::min(from, vector[i].iov_len);
        from -= skip;
        if (vector[i].iov_len > skip) {
            memcpy(out, static_cast<unsigned char*>(vector[i].iov_base) + skip,
                   vector[i].iov_len - skip);
            out += vector[i].iov_len - skip;
        }
    }
}

/* Ends a connection to which a reply could not be given whole: a part of one is worse than none.
 * Its receiver then finds the end. */
void give_up(message_channel* channel, message_connection* connection)
    VEL_REQUIRES(connection->send_lock) {
    message_output_drop(channel, connection);
    connection->failed = true;
    (void)shutdown(connection->fd, SHUT_RDWR);
}

unsigned char* output_data(message_output* output) {
    return reinterpret_cast<unsigned char*>(output + 1);
}

/* Keeps what is left of a reply. 0, or the error number. */
int32_t keep_output(message_channel* channel, message_connection* connection,
                    const message_frame& frame, const iovec* vector, int32_t count, size_t sent)
    VEL_REQUIRES(connection->send_lock) {
    const size_t size = frame.length - sent;
    if (connection->over_share) {
        return ENOMEM;
    }
    auto* output = static_cast<message_output*>(std::malloc(sizeof(message_output) + size));
    if (output == nullptr) {
        return ENOMEM;
    }
    *output = message_output{frame, size, 0};
    copy_tail(vector, count, sent, output_data(output));
    connection->output = output;
    connection->output_size.store(size, std::memory_order_relaxed);
    connection->output_pending.store(true, std::memory_order_release);
    channel->output_bytes.fetch_add(size, std::memory_order_relaxed);
    return 0;
}

/* Sends a reply that fits into one short packet. True when it has gone; false with errno. */
bool send_short(const message_connection* connection, const message_frame& frame,
                const iovec* vector, int32_t count) {
    unsigned char packet[SHORT_PACKET];
    memcpy(packet, &frame, sizeof frame);
    copy_tail(vector, count, 0, packet + sizeof frame);
    ssize_t sent;
    do {
        sent =
            send(connection->fd, packet, sizeof frame + frame.length, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0;
}

/* Sends the next packet of a longer one. True when it has gone, with its bytes in *part; false with
 * errno, E2BIG when the pieces are too many. */
bool send_part(const message_connection* connection, const message_frame& frame,
               const iovec* vector, int32_t count, size_t sent, size_t* part) {
    *part = std::min(frame.length - sent, data_per_packet(connection));
    message_frame head = frame;
    head.flags |= sent + *part == frame.length ? 0 : MESSAGE_FRAME_MORE;
    iovec pieces[1 + PIECES_MAX];
    pieces[0] = {&head, sizeof head};
    const size_t used = gather(vector, count, sent, *part, pieces + 1);
    if (used == 0 && *part > 0) {
        errno = E2BIG;
        return false;
    }
    return send_packet(connection->fd, pieces, 1 + used);
}

/* Sends a reply as far as it goes and keeps the rest. 0, or the error number. */
int32_t send_reply(message_channel* channel, message_connection* connection,
                   const message_frame& frame, const iovec* vector, int32_t count)
    VEL_REQUIRES(connection->send_lock) {
    if (connection->failed || connection->output != nullptr) {
        return EPIPE;
    }
    const bool is_short = sizeof frame + frame.length <= SHORT_PACKET;
    size_t sent = 0;
    do {
        size_t part = frame.length;
        if (is_short ? !send_short(connection, frame, vector, count)
                     : !send_part(connection, frame, vector, count, sent, &part)) {
            /* Too many small pieces become one that goes out the usual way. */
            const int32_t error = errno == EAGAIN || errno == E2BIG
                                      ? keep_output(channel, connection, frame, vector, count, sent)
                                      : errno;
            if (error != 0) {
                give_up(channel, connection);
            }
            return error;
        }
        sent += part;
    } while (sent < frame.length);
    return 0;
}

/* Answers that there is no room. The error number. Not inlined: it would cost every answer. */
[[gnu::noinline]] int32_t refuse_reply(message_channel* channel, message_connection* connection,
                                       uint32_t sequence) VEL_REQUIRES(connection->send_lock) {
    const message_frame refusal{sequence, ENOMEM, MESSAGE_FRAME_ERROR, 0};
    const int32_t error = send_reply(channel, connection, refusal, nullptr, 0);
    return error != 0 ? error : ENOBUFS;
}

/* Whether as much is unread as may be, of all or of the user, when anything is. Only when there is
 * as much as a user may have the connections are gone through. */
bool is_over_share(message_channel* channel, size_t unread, uid_t user)
    VEL_REQUIRES(channel->lock) {
    const size_t most = channel->output_max.load(std::memory_order_relaxed);
    const size_t most_of_user = most / 4 * 3;
    if (unread > most || user == ROOT || unread <= most_of_user) {
        return unread > most;
    }
    size_t of_user = 0;
    for (const message_connection* bucket : channel->buckets) {
        for (; bucket != nullptr; bucket = bucket->next) {
            of_user +=
                bucket->uid == user ? bucket->output_size.load(std::memory_order_relaxed) : 0;
        }
    }
    return of_user > most_of_user;
}

/* Finds the message of a receive id, marks it as answered and pins its connection. */
message_connection* claim_answer(message_channel* channel, int64_t rcvid) {
    vel_lock_guard guard(channel->lock);
    message_connection* connection = message_find(channel, message_rcvid_scoid(rcvid));
    if (connection == nullptr || connection->answered || !connection->busy ||
        connection->sequence != static_cast<uint32_t>(rcvid)) {
        return nullptr;
    }
    connection->answered = true;
    const size_t unread = channel->output_bytes.load(std::memory_order_relaxed);
    connection->over_share = unread > 0 && is_over_share(channel, unread, connection->uid);
    connection->pins += 1;
    return connection;
}

int32_t answer(message_channel* channel, int64_t rcvid, int32_t status, uint32_t flags,
               const iovec* vector, int32_t count, size_t length) {
    message_connection* connection = claim_answer(channel, rcvid);
    if (connection == nullptr) {
        errno = ESRCH;
        return -1;
    }
    const message_frame frame{static_cast<uint32_t>(rcvid), status, flags,
                              static_cast<uint32_t>(length)};
    int32_t error;
    {
        vel_lock_guard guard(connection->send_lock);
        /* What is begun must be kept whole, so a long one is not begun. */
        error = connection->over_share && length > MESSAGE_OUTPUT_SMALL
                    ? refuse_reply(channel, connection, frame.sequence)
                    : send_reply(channel, connection, frame, vector, count);
    }
    if (connection->output_pending.load(std::memory_order_relaxed)) {
        message_flush(channel, connection);
    }
    message_unpin(channel, connection);
    if (error != 0) {
        errno = error;
        return -1;
    }
    return 0;
}

} // namespace

void message_output_drop(message_channel* channel, message_connection* connection) noexcept {
    if (connection->output != nullptr) {
        channel->output_bytes.fetch_sub(connection->output->size, std::memory_order_relaxed);
        std::free(connection->output);
        connection->output = nullptr;
        connection->output_size.store(0, std::memory_order_relaxed);
        connection->output_pending.store(false, std::memory_order_release);
    }
}

void message_flush(message_channel* channel, message_connection* connection) noexcept {
    vel_lock_guard guard(connection->send_lock);
    message_output* output = connection->output;
    if (output == nullptr) {
        return;
    }
    do { /* a reply without data is a packet, too */
        const size_t part = std::min(output->size - output->sent, data_per_packet(connection));
        message_frame head = output->frame;
        head.flags |= output->sent + part < output->size ? MESSAGE_FRAME_MORE : 0;
        iovec pieces[2] = {{&head, sizeof head}, {output_data(output) + output->sent, part}};
        if (!send_packet(connection->fd, pieces, 2)) {
            if (errno != EAGAIN) {
                give_up(channel, connection);
            }
            return;
        }
        output->sent += part;
    } while (output->sent < output->size);
    message_output_drop(channel, connection);
}

extern "C" {

int32_t message_reply(message_channel* channel, int64_t rcvid, int32_t status, const iovec* vector,
                      int32_t count) noexcept {
    size_t length = 0;
    for (int32_t i = 0; i < count; ++i) {
        length += std::min(vector[i].iov_len, REPLY_MAX + 1);
        if (length > REPLY_MAX) {
            errno = EMSGSIZE;
            return -1;
        }
    }
    return answer(channel, rcvid, status, 0, vector, count, length);
}

int32_t message_error(message_channel* channel, int64_t rcvid, int32_t error) noexcept {
    return answer(channel, rcvid, error, MESSAGE_FRAME_ERROR, nullptr, 0, 0);
}
}
