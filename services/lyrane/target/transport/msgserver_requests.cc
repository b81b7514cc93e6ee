#include "msgserver_requests.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "reply.h"

namespace {

msg_header* header_of(recv_context* context) {
    return reinterpret_cast<msg_header*>(context->buffer);
}

void refuse(recv_context* context, int32_t error) {
    (void)message_error(context->server->dispatch, context->rcvid, error);
}

void acknowledge(recv_context* context) {
    (void)message_reply(context->server->dispatch, context->rcvid, 0, nullptr, 0);
}

/* Puts a connection at the head of its client's list, whose word the platform keeps. */
void link_to_client(osb* connection, void** word) {
    connection->client_word = word;
    connection->client_next = static_cast<osb*>(*word);
    if (connection->client_next != nullptr) {
        connection->client_next->client_previous = connection;
    }
    *word = connection;
}

void unlink_from_client(osb* connection) {
    if (connection->client_word == nullptr) {
        return;
    }
    if (connection->client_previous != nullptr) {
        connection->client_previous->client_next = connection->client_next;
    } else {
        *connection->client_word = connection->client_next;
    }
    if (connection->client_next != nullptr) {
        connection->client_next->client_previous = connection->client_previous;
    }
    connection->client_word = nullptr;
    connection->client_next = nullptr;
    connection->client_previous = nullptr;
}

/* From now on no message finds the connection, and its client can open another. */
void mark_closed([[maybe_unused]] msgserver* server, osb* connection) VEL_REQUIRES(server->lock) {
    connection->closed = 1;
    connection->service->connections_open -= 1;
    unlink_from_client(connection);
}

int32_t opens_of(const recv_context* context) {
    int32_t count = 0;
    for (const osb* entry = static_cast<const osb*>(*context->info.user); entry != nullptr;
         entry = entry->client_next) {
        count += 1;
    }
    return count;
}

/* Is there a whole name in the payload? */
bool name_is_whole(const recv_context* context) {
    const int32_t received =
        std::min(context->info.msglen - MSG_HEADER_SIZE, context->payload_size);
    return memchr(context->payload, '\0', static_cast<size_t>(received)) != nullptr;
}

int32_t check_access(msgserver* server, const service* wanted, const recv_context* context) {
    if (wanted->attr == nullptr) {
        return 0;
    }
    return message_check_access(server->dispatch, context->info.scoid, wanted->attr->uid,
                                wanted->attr->gid, wanted->attr->mode);
}

/* Makes a connection record with one reference; null: no room. */
osb* add_connection(msgserver* server, service* wanted, recv_context* context)
    VEL_REQUIRES(server->lock) {
    if (opens_of(context) >= MSGSERVER_OPENS_MAX) {
        return nullptr;
    }
    const int32_t index = _array_add(&wanted->connections, sizeof(osb));
    if (index > MSGSERVER_INDEX_MAX) {
        (void)_array_del(&wanted->connections, index);
        return nullptr;
    }
    auto* connection = static_cast<osb*>(_array_get(&wanted->connections, index));
    if (connection == nullptr) {
        return nullptr;
    }
    wanted->connections_open += 1;
    connection->service_name = wanted->name;
    vel_mutex_init(&connection->lock);
    connection->in_use = 1;
    connection->server = server;
    connection->scoid = context->info.scoid;
    connection->uid = context->info.uid;
    connection->service = wanted;
    connection->index = index;
    link_to_client(connection, context->info.user);
    header_of(context)->connection_index = static_cast<int16_t>(index);
    return connection;
}

/* Checks and enters a newcomer. Null with the error number in *error. */
osb* enter(msgserver* server, recv_context* context, int32_t* error) {
    vel_lock_guard guard(server->lock);
    *error = ENOENT;
    service* wanted = name_is_whole(context)
                          ? lookup(server, reinterpret_cast<const char*>(context->payload), -1)
                          : nullptr;
    if (wanted == nullptr) {
        return nullptr;
    }
    *error = check_access(server, wanted, context);
    if (*error != 0) {
        return nullptr;
    }
    *error = ENOMEM;
    return add_connection(server, wanted, context);
}

/* What `connect` said, as an error number; 0: welcome. */
int32_t ask_connect(osb* connection, recv_context* context) {
    service* owner = connection->service;
    if (owner->connect == nullptr) {
        return 0;
    }
    const int32_t result = owner->connect(connection, context, owner);
    return result < 0 ? EPERM : result;
}

/* The reference and the marks of a request whose reply is due. */
void expect_reply(osb* connection, recv_context* context) {
    __atomic_store_n(&context->owed, connection, __ATOMIC_RELEASE);
}

} // namespace

extern "C" {

void msgserver_open(msgserver* server, recv_context* context) noexcept {
    int32_t error;
    osb* connection = enter(server, context, &error);
    if (connection == nullptr) {
        refuse(context, error);
        return;
    }
    error = ask_connect(connection, context);
    if (error != 0) {
        {
            vel_lock_guard guard(server->lock);
            connection->refused = 1;
        }
        refuse(context, error);
    } else {
        const iovec header{context->buffer, static_cast<size_t>(MSG_HEADER_SIZE)};
        (void)message_reply(server->dispatch, context->rcvid, 0, &header, 1);
    }
    _msgserver_lock_then_decr_inuse_and_release_osb_if_closed(connection);
}

void msgserver_close(osb* connection, recv_context* context) noexcept {
    msgserver* server = connection->server;
    service* owner = connection->service;
    {
        vel_lock_guard guard(server->lock);
        mark_closed(server, connection);
    }
    if (owner->disconnect != nullptr) {
        owner->disconnect(connection, context, owner);
    }
    acknowledge(context);
}

void msgserver_notify(osb* connection, recv_context* context) noexcept {
    msgserver* server = connection->server;
    if (context->info.msglen < MSG_HEADER_SIZE + MSG_EVENT_SIZE ||
        message_take_event_channel(server->dispatch, context->rcvid) != 0) {
        refuse(context, EINVAL);
        return;
    }
    {
        vel_lock_guard guard(server->lock);
        connection->queue_limit =
            std::min(std::max(header_of(context)->size, 1), server->max_queue);
        memcpy(connection->event, context->payload, MSG_EVENT_SIZE);
    }
    acknowledge(context);
}

void msgserver_putget(osb* connection, recv_context* context) noexcept {
    service* owner = connection->service;
    expect_reply(connection, context);
    owner->worker(connection, context, owner);
}

void msgserver_put(osb* connection, recv_context* context) noexcept {
    service* owner = connection->service;
    int32_t error = 0;
    {
        vel_lock_guard guard(connection->server->lock);
        /* A client that has not registered has a limit of 0 and is told so first. What is accepted
         * is acted upon, so there must be room for its reply now. */
        if (connection->queue_length + connection->puts_owed >= connection->queue_limit ||
            !reply_queue_has_room(connection)) {
            error = EAGAIN;
        } else if (header_of(context)->tag == 0) {
            error = EINVAL;
        } else {
            connection->in_use += 1;
            connection->puts_owed += 1;
        }
    }
    if (error != 0) {
        refuse(context, error);
        return;
    }
    expect_reply(connection, context);
    acknowledge(context);
    owner->worker(connection, context, owner);
}

void msgserver_client_gone(msgserver* server, recv_context* context) noexcept {
    osb* left = nullptr;
    {
        vel_lock_guard guard(server->lock);
        while (auto* connection = static_cast<osb*>(*context->info.user)) {
            mark_closed(server, connection);
            connection->in_use += 1;
            connection->client_next = left;
            left = connection;
        }
    }
    while (left != nullptr) {
        osb* connection = left;
        service* owner = connection->service;
        left = connection->client_next;
        connection->client_next = nullptr;
        if (owner->disconnect != nullptr) {
            owner->disconnect(connection, nullptr, owner);
        }
        _msgserver_lock_then_decr_inuse_and_release_osb_if_closed(connection);
    }
    message_detach(server->dispatch, context->info.scoid);
    context->info.user = nullptr;
}

void _msgserver_lock_then_decr_inuse_and_release_osb_if_closed(osb* connection) noexcept {
    vel_lock_guard guard(connection->server->lock);
    connection->in_use -= connection->in_use > 0 ? 1 : 0;
    if (connection->in_use == 0 && connection->closed != 0) {
        service* owner = connection->service;
        const int32_t index = connection->index;
        reply_queue_clear(connection);
        vel_mutex_destroy(&connection->lock);
        (void)_array_del(&owner->connections, index);
    }
}
}
