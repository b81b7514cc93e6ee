#include "reply.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr int32_t PIECES_ON_STACK = 16;

msg_header* header_of(recv_context* context) {
    return reinterpret_cast<msg_header*>(context->buffer);
}

/* Bytes of a vector; INT64_MAX when it is longer than can be counted. */
int64_t total_length(const iovec* vector, int32_t count) {
    int64_t total = 0;
    for (int32_t i = 0; i < count; ++i) {
        if (vector[i].iov_len > static_cast<size_t>(INT64_MAX - total)) {
            return INT64_MAX;
        }
        total += static_cast<int64_t>(vector[i].iov_len);
    }
    return total;
}

/* Sends header and body. The platform's result. */
int32_t send_body(recv_context* context, int32_t status, const iovec* vector, int32_t count) {
    iovec on_stack[1 + PIECES_ON_STACK];
    std::unique_ptr<iovec, vel_free> on_heap;
    iovec* pieces = on_stack;
    if (count > PIECES_ON_STACK) {
        const size_t wanted = 1 + static_cast<size_t>(count);
        on_heap.reset(static_cast<iovec*>(reallocarray(nullptr, wanted, sizeof(iovec))));
        if (on_heap == nullptr) {
            (void)message_error(context->server->dispatch, context->rcvid, ENOMEM);
            return ENOMEM;
        }
        pieces = on_heap.get();
    }
    pieces[0] = {context->buffer, static_cast<size_t>(MSG_HEADER_SIZE)};
    std::copy_n(vector, count, pieces + 1);
    return message_reply(context->server->dispatch, context->rcvid, status, pieces, 1 + count);
}

/* The event for a tag, to the client of a receive id, who may have gone. */
void deliver_event(osb* connection, int64_t rcvid, uint32_t tag) {
    msgserver* server = connection->server;
    message_event event;
    {
        vel_lock_guard guard(server->lock);
        memcpy(&event, connection->event, sizeof event);
    }
    event.value = tag;
    (void)message_deliver_event(server->dispatch, rcvid, &event);
}

void put_answered(osb* connection) {
    vel_lock_guard guard(connection->server->lock);
    connection->puts_owed -= connection->puts_owed > 0 ? 1 : 0;
}

/* The reply to a CSM_PUT: entry first, event second, so that whoever sees the event finds it. */
int32_t reply_put(osb* connection, int64_t rcvid, uint32_t tag, int32_t status, const iovec* vector,
                  int32_t count) {
    const int32_t result = put_queue(connection, status, tag, vector, count);
    put_answered(connection);
    deliver_event(connection, rcvid, tag);
    return result;
}

/* The reply to a CSM_PUTGET. `capacity`: what the client can take, `length`: what there is. */
int32_t reply_putget(osb* connection, recv_context* context, int32_t status, const iovec* vector,
                     int32_t count, int32_t capacity, int64_t length) {
    msgserver* server = context->server;
    if (length <= std::max(capacity, 0)) {
        return send_body(context, status, vector, count);
    }
    if (put_queue(connection, status, header_of(context)->tag, vector, count) != 0) {
        (void)message_error(server->dispatch, context->rcvid, ENOMEM);
        return ENOMEM;
    }
    const iovec header{context->buffer, static_cast<size_t>(MSG_HEADER_SIZE)};
    return message_reply(server->dispatch, context->rcvid, CSM_STATUS_QUEUED, &header, 1);
}

/* Takes the entry of a tag out of the queue when it fits. Null otherwise, with its length in
 * *length (-1: there is none). */
reply_entry* take_entry(osb* connection, uint32_t tag, int32_t capacity, int32_t* length) {
    vel_lock_guard guard(connection->server->lock);
    reply_entry** link = &connection->queue;
    while (*link != nullptr && (*link)->tag != tag) {
        link = &(*link)->next;
    }
    reply_entry* entry = *link;
    *length = entry != nullptr ? entry->length : -1;
    if (entry == nullptr || entry->length > capacity) {
        return nullptr;
    }
    *link = entry->next;
    connection->queue_length -= 1;
    connection->queue_bytes -= entry->length;
    connection->server->queued_bytes -= entry->length;
    return entry;
}

/* Makes an entry the newest one. */
void put_newest(osb* connection, reply_entry* entry) {
    vel_lock_guard guard(connection->server->lock);
    entry->next = connection->queue;
    connection->queue = entry;
    connection->queue_length += 1;
    connection->queue_bytes += entry->length;
    connection->server->queued_bytes += entry->length;
}

bool has_room(osb* connection) {
    vel_lock_guard guard(connection->server->lock);
    return reply_queue_has_room(connection);
}

} // namespace

extern "C" {

int32_t callout_reply(osb* connection, recv_context* context, int32_t status, const void* data,
                      int32_t length) noexcept {
    const iovec body{const_cast<void*>(data), static_cast<size_t>(std::max(length, 0))};
    return callout_replyv(connection, context, status, &body, body.iov_len > 0 ? 1 : 0);
}

int32_t callout_replyv(osb* connection, recv_context* context, int32_t status, const iovec* vector,
                       int32_t count) noexcept {
    osb* owed = __atomic_exchange_n(&context->owed, nullptr, __ATOMIC_ACQ_REL);
    if (owed == nullptr || owed != connection) {
        errno = EINVAL;
        return -1;
    }
    count = std::max(count, 0);
    const int64_t length = total_length(vector, count);
    msg_header* header = header_of(context);
    int32_t result;
    int32_t error = 0;
    if (header->type == CSM_PUT) {
        result = reply_put(connection, context->rcvid, header->tag, status, vector, count);
    } else if (length > INT32_MAX) {
        (void)message_error(context->server->dispatch, context->rcvid, EMSGSIZE);
        result = -1;
        error = EMSGSIZE;
    } else {
        const int32_t capacity = header->size;
        header->size = static_cast<int32_t>(length);
        result = reply_putget(connection, context, status, vector, count, capacity, length);
        error = errno;
    }
    _msgserver_lock_then_decr_inuse_and_release_osb_if_closed(connection);
    if (error != 0) {
        errno = error;
    }
    return result;
}

int32_t callout_reply2(osb* connection, int64_t rcvid, uint32_t tag, int32_t status,
                       const iovec* vector, int32_t count) noexcept {
    const int32_t result = reply_put(connection, rcvid, tag, status, vector, std::max(count, 0));
    _msgserver_lock_then_decr_inuse_and_release_osb_if_closed(connection);
    return result;
}

int32_t put_queue(osb* connection, int32_t status, uint32_t tag, const iovec* vector,
                  int32_t count) noexcept {
    const int64_t length = total_length(vector, count);
    if (length > INT32_MAX || !has_room(connection)) {
        return ENOMEM;
    }
    auto* entry =
        static_cast<reply_entry*>(std::malloc(sizeof(reply_entry) + static_cast<size_t>(length)));
    if (entry == nullptr) {
        return ENOMEM;
    }
    *entry = reply_entry{nullptr, tag, static_cast<int32_t>(length), status};
    unsigned char* out = reply_entry_data(entry);
    for (int32_t i = 0; i < count; ++i) {
        if (vector[i].iov_len > 0) {
            memcpy(out, vector[i].iov_base, vector[i].iov_len);
            out += vector[i].iov_len;
        }
    }
    put_newest(connection, entry);
    return 0;
}

/* Only when there is as much as one user may have queued, the connections are gone through. */
static bool user_has_room(const osb* connection) noexcept VEL_REQUIRES(connection->server->lock) {
    constexpr uid_t root = 0;
    const int64_t most = connection->server->queue_max / 4 * 3;
    if (connection->uid == root || connection->server->queued_bytes < most) {
        return true;
    }
    int64_t of_user = 0;
    for (int32_t i = 0; i < connection->server->services.count; ++i) {
        const auto* offered =
            static_cast<const service*>(_array_get(&connection->server->services, i));
        for (int32_t k = 0; offered != nullptr && k < offered->connections.count; ++k) {
            const auto* other = static_cast<const osb*>(_array_get(&offered->connections, k));
            of_user += other != nullptr && other->uid == connection->uid ? other->queue_bytes : 0;
        }
    }
    return of_user < most;
}

bool reply_queue_has_room(const osb* connection) noexcept {
    const int64_t most = connection->server->queue_max;
    return connection->queue_length < MSGSERVER_QUEUE_ENTRIES &&
           connection->queue_bytes < most / 4 && connection->server->queued_bytes < most &&
           user_has_room(connection);
}

void reply_queue_clear(osb* connection) noexcept {
    while (connection->queue != nullptr) {
        reply_entry* entry = connection->queue;
        connection->queue = entry->next;
        std::free(entry);
    }
    connection->server->queued_bytes -= connection->queue_bytes;
    connection->queue_bytes = 0;
    connection->queue_length = 0;
}

void reply_fetch(osb* connection, recv_context* context) noexcept {
    message_channel* channel = connection->server->dispatch;
    const msg_header* request = header_of(context);
    int32_t length;
    reply_entry* entry = take_entry(connection, request->tag, std::max(request->size, 0), &length);
    if (length < 0) {
        (void)message_error(channel, context->rcvid, ENOMSG);
        return;
    }
    msg_header header{};
    header.size = length;
    iovec pieces[2] = {{&header, sizeof header}, {nullptr, 0}};
    if (entry == nullptr) {
        (void)message_reply(channel, context->rcvid, CSM_STATUS_QUEUED, pieces, 1);
        return;
    }
    pieces[1] = {reply_entry_data(entry), static_cast<size_t>(length)};
    if (message_reply(channel, context->rcvid, entry->status, pieces, 2) != 0 && errno == ENOBUFS) {
        put_newest(connection, entry); /* the client was told that there is no room now */
        return;
    }
    std::free(entry);
}

void reply_settle(recv_context* context) noexcept {
    osb* owed = __atomic_exchange_n(&context->owed, nullptr, __ATOMIC_ACQ_REL);
    if (owed == nullptr || header_of(context)->type == CSM_PUT) {
        return;
    }
    (void)message_error(context->server->dispatch, context->rcvid, EIO);
    _msgserver_lock_then_decr_inuse_and_release_osb_if_closed(owed);
}
}
