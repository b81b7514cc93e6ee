/* Making, ending and waking channels. */
#include "message_channel.h"

#include <cerrno>
#include <new>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <veloran/process.h>

void message_close(int* fd) noexcept {
    if (*fd >= 0) {
        const int saved = errno;
        ::close(*fd);
        errno = saved;
        *fd = -1;
    }
}

void message_channel_release(message_channel* channel) noexcept {
    if (channel->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        vel_mutex_destroy(&channel->lock);
        delete channel;
    }
}

extern "C" {

message_channel* message_channel_create(void) noexcept {
    message_channel* channel = new (std::nothrow) message_channel;
    if (channel == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    vel_mutex_init(&channel->lock);
    message_set_connection_limit(channel);
    process_promise_descriptors(channel->limit * MESSAGE_DESCRIPTORS_EACH);
    channel->epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    /* As a semaphore, so that each wake completes one receive and none is lost between them. */
    channel->wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE);
    epoll_event entry{};
    entry.events = EPOLLIN;
    entry.data.u64 = MESSAGE_ENTRY_WAKE;
    if (channel->epoll_fd < 0 || channel->wake_fd < 0 ||
        epoll_ctl(channel->epoll_fd, EPOLL_CTL_ADD, channel->wake_fd, &entry) != 0) {
        const int error = errno;
        message_channel_destroy(channel);
        errno = error;
        return nullptr;
    }
    return channel;
}

void message_channel_destroy(message_channel* channel) noexcept {
    if (channel == nullptr) {
        return;
    }
    message_name_detach_all(channel);
    message_connection* ending = nullptr;
    {
        vel_lock_guard guard(channel->lock);
        for (message_connection*& bucket : channel->buckets) {
            while (message_connection* connection = bucket) {
                bucket = connection->next;
                message_park(channel, connection); /* the closer outlives the epoll set */
                connection->detached = true;
                if (connection->pins == 0) {
                    connection->next = ending;
                    ending = connection;
                }
            }
        }
        channel->connections = 0;
    }
    while (message_connection* connection = ending) {
        ending = connection->next;
        message_connection_end(channel, connection);
    }
    message_close(&channel->wake_fd);
    message_close(&channel->epoll_fd);
    process_promise_descriptors(-channel->limit * MESSAGE_DESCRIPTORS_EACH);
    message_channel_release(channel);
}

void message_set_output_max(message_channel* channel, size_t bytes) noexcept {
    channel->output_max.store(bytes, std::memory_order_relaxed);
}

int32_t message_channel_id(const message_channel* channel) noexcept {
    return channel->epoll_fd;
}

int32_t message_channel_connections(message_channel* channel) noexcept {
    vel_lock_guard guard(channel->lock);
    return channel->connections;
}

int32_t message_wake(message_channel* channel) noexcept {
    const uint64_t one = 1;
    ssize_t written;
    do {
        written = ::write(channel->wake_fd, &one, sizeof one);
    } while (written < 0 && errno == EINTR);
    /* EAGAIN: the counter is full, so receivers are woken anyway. */
    return written < 0 && errno != EAGAIN ? -1 : 0;
}
}
