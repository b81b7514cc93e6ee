/* Closing what clients sent and what they can write to: all of it is the closer's. */
#include "message_channel.h"

#include <cstdlib>
#include <cstring>

#include <sys/epoll.h>
#include <sys/socket.h>

#include <veloran/process.h>

namespace {

/* The closer has closed what came with a message: the client's next one may be read. */
void discarded(closer_job* job) {
    auto* connection = static_cast<message_connection*>(job->context);
    message_channel* channel = connection->channel;
    {
        vel_lock_guard guard(channel->lock);
        connection->discards = false;
    }
    channel->unwanted.fetch_sub(1, std::memory_order_relaxed);
    message_unpin(channel, connection);
    message_channel_release(channel);
}

/* The closer has closed a connection's sockets. */
void ended(closer_job* job) {
    auto* connection = static_cast<message_connection*>(job->context);
    message_channel* channel = connection->channel;
    {
        vel_lock_guard guard(channel->lock);
        message_connection** link = &channel->closing;
        while (*link != connection) {
            link = &(*link)->next;
        }
        *link = connection->next;
        channel->closings -= 1;
        process_promise_descriptors(1);
        message_accept_resume(channel);
    }
    vel_mutex_destroy(&connection->send_lock);
    delete connection;
    message_channel_release(channel);
}

/* Descriptors without a connection. */
struct discard_job {
    closer_job job;
    message_channel* channel;
    int fds[MESSAGE_GIFTS_MAX];
};

void gifts_closed(closer_job* job) {
    auto* discard = static_cast<discard_job*>(job->context);
    message_channel* channel = discard->channel;
    std::free(discard);
    channel->unwanted.fetch_sub(1, std::memory_order_relaxed);
    message_channel_release(channel);
}

void refer(message_channel* channel) {
    channel->references.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

void message_discard(message_channel* channel, uid_t user, const int* fds, int32_t count) noexcept {
    auto* discard = static_cast<discard_job*>(std::malloc(sizeof(discard_job)));
    if (discard == nullptr) {
        /* They stay open: this thread must not close them, and nobody remembers them. */
        channel->is_short.store(true, std::memory_order_relaxed);
        return;
    }
    memcpy(discard->fds, fds, static_cast<size_t>(count) * sizeof *fds);
    discard->channel = channel;
    discard->job = {nullptr, closer_gifts_of(user), discard->fds, count, gifts_closed, discard};
    channel->unwanted.fetch_add(1, std::memory_order_relaxed);
    refer(channel);
    closer_submit(&discard->job);
}

void message_discard_offered(message_channel* channel, message_connection* connection) noexcept {
    if (connection->offered < 0) {
        return;
    }
    connection->unwanted = connection->offered;
    connection->offered = -1;
    connection->discards = true;
    connection->pins += 1;
    connection->job = {
        nullptr, closer_gifts_of(connection->uid), &connection->unwanted, 1, discarded, connection};
    channel->unwanted.fetch_add(1, std::memory_order_relaxed);
    refer(channel);
    closer_submit(&connection->job);
}

/* Nobody can reach the connection any more, so its send lock need not be held. */
void message_connection_end(message_channel* channel,
                            message_connection* connection) noexcept VEL_NO_TSA {
    message_output_drop(channel, connection);
    /* A child that some library forked may hold a copy of the socket. Closing ours would then
     * neither tell the client nor take it out of the epoll set. */
    (void)shutdown(connection->fd, SHUT_RDWR);
    if (connection->interest != 0) {
        (void)epoll_ctl(channel->epoll_fd, EPOLL_CTL_DEL, connection->fd, nullptr);
    }
    if (connection->offered >= 0) {
        message_discard(channel, connection->uid, &connection->offered, 1);
    }
    connection->sockets[0] = connection->fd;
    connection->sockets[1] = connection->event_fd;
    connection->job = {nullptr,   closer_sockets_of(connection->uid), connection->sockets, 2, ended,
                       connection};
    {
        vel_lock_guard guard(channel->lock);
        connection->next = channel->closing;
        channel->closing = connection;
        channel->closings += 1;
    }
    refer(channel);
    closer_submit(&connection->job);
}
