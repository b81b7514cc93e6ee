/* The server: making it, running its loop, ending it. */
#include "msgserver.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include <poll.h>
#include <unistd.h>

#include "msgserver_requests.h"
#include "reply.h"

namespace {

constexpr int32_t LEAST_SIZE = 1024;
constexpr int RETRY_MS = 100; /* when there is no memory for a receive context */

/* Frees what a server owns beside its services; errno stays. */
void free_server(msgserver* server) {
    const int saved = errno;
    if (server->authman_fd >= 0) {
        close(server->authman_fd);
    }
    message_channel_destroy(server->dispatch);
    vel_mutex_destroy(&server->lock);
    std::free(server);
    errno = saved;
}

bool prepare(msgserver* server) {
    if ((server->flags & MSGSERVER_NO_CAPABILITIES) == 0) {
        server->authman_fd = msgserver_open_capability_service();
        if (server->authman_fd < 0) {
            errno = EPERM;
            return false;
        }
    }
    server->dispatch = message_channel_create();
    if (server->dispatch == nullptr) {
        return false;
    }
    server->chid = message_channel_id(server->dispatch);
    const int error = pthread_key_create(&server->context_key, destructer);
    if (error != 0) {
        errno = error;
        return false;
    }
    return true;
}

bool stopped(const msgserver* server) {
    return __atomic_load_n(&server->stop, __ATOMIC_ACQUIRE) != 0;
}

void free_context(msgserver* server) {
    destructer(msgserver_context(server));
    (void)pthread_setspecific(server->context_key, nullptr);
}

void free_service(service* dropped) {
    for (int32_t i = 0; i < dropped->connections.count; ++i) {
        auto* connection = static_cast<osb*>(_array_get(&dropped->connections, i));
        if (connection != nullptr) {
            vel_lock_guard guard(connection->server->lock);
            reply_queue_clear(connection);
        }
        (void)_array_del(&dropped->connections, i);
    }
    std::free(dropped->connections.slots);
    std::free(dropped->name);
    std::free(dropped->options);
    std::free(dropped->attr);
}

} // namespace

extern "C" {

msgserver* msgserver_create(int32_t max_size, int32_t max_queue, uint32_t flags) noexcept {
    auto* server = static_cast<msgserver*>(std::calloc(1, sizeof(msgserver)));
    if (server == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    vel_mutex_init(&server->lock);
    server->flags = flags;
    if ((flags & MSGSERVER_BY_PATH) != 0) {
        server->flags |= MSGSERVER_NO_CAPABILITIES;
    }
    server->authman_fd = -1;
    server->initial_size = LEAST_SIZE;
    server->max_size = std::max(max_size, LEAST_SIZE);
    server->max_queue = max_queue;
    server->reply = callout_reply;
    server->replyv = callout_replyv;
    server->reply2 = callout_reply2;
    if (!prepare(server)) {
        free_server(server);
        return nullptr;
    }
    msgserver_limit_replies(server, MSGSERVER_REPLY_MEMORY);
    return server;
}

void msgserver_limit_replies(msgserver* server, int64_t bytes) noexcept {
    message_set_output_max(server->dispatch, static_cast<size_t>(bytes / 2));
    vel_lock_guard guard(server->lock);
    server->queue_max = bytes / 2;
}

/* No thread uses the server any more, so its lock need not be held. */
void msgserver_destroy(msgserver* server) noexcept VEL_NO_TSA {
    if (server == nullptr) {
        return;
    }
    free_context(server);
    (void)pthread_key_delete(server->context_key);
    for (int32_t i = 0; i < server->services.count; ++i) {
        auto* dropped = static_cast<service*>(_array_get(&server->services, i));
        if (dropped != nullptr) {
            free_service(dropped);
        }
        (void)_array_del(&server->services, i);
    }
    std::free(server->services.slots);
    free_server(server);
}

int32_t msgserver_thread_loop(msgserver* server) noexcept {
    while (!stopped(server)) {
        if (msgserver_receive(server) != -1) {
            (void)msgserver_dispatch(server);
            continue;
        }
        const recv_context* context = msgserver_context(server);
        if (context == nullptr) {
            /* The clients wait until there is memory again. */
            (void)poll(nullptr, 0, RETRY_MS);
        } else if (context->failure != 0) {
            /* The next receive would fail, too: better an end that can be seen than a spin. */
            break;
        }
    }
    free_context(server);
    /* One wake ends one receive: the next thread of this loop is owed one. */
    (void)message_wake(server->dispatch);
    return 0;
}

int32_t msgserver_stop(msgserver* server) noexcept {
    __atomic_store_n(&server->stop, 1, __ATOMIC_RELEASE);
    return message_wake(server->dispatch);
}
}
