/* The client half of the transport.
 *
 * One connection is one conversation: a call holds the call lock from its send to the end of its
 * reply, so that no thread can take another's. The pulses come on a channel of their own, whose
 * state lock is held for a look only, never while somebody waits. */
#include <lyrane/client.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <veloran/lock.h>
#include <veloran/message.h>

#include "msg_header.h"

struct msgclient_internal {
    vel_mutex call_lock; /* taken before the state lock */
    message_client connection VEL_GUARDED_BY(call_lock);

    vel_mutex state_lock;
    pthread_cond_t left;                        /* a waiter or a caller has gone */
    int32_t waiters VEL_GUARDED_BY(state_lock); /* threads waiting for a pulse */
    /* Threads inside any call but the close. A mutex does not serve them in the order in which they
     * came, so the close cannot be the last one by waiting for it. */
    int32_t callers VEL_GUARDED_BY(state_lock);
    bool closing VEL_GUARDED_BY(state_lock);
};

static_assert(sizeof(msgclient_event) == MSG_EVENT_SIZE);
static_assert(sizeof(msgclient_event) == sizeof(message_event));
static_assert(MSGCLIENT_EVENT_PULSE == MESSAGE_EVENT_PULSE);
static_assert(LYR_STATUS_QUEUED == CSM_STATUS_QUEUED);
static_assert(sizeof(lyr_request) == 16);
static_assert(sizeof(lyr_state_reply) == 20);
static_assert(offsetof(msgclient_t, name) == 20);
static_assert(offsetof(msgclient_t, by_path) == 52);

namespace {

constexpr int32_t PIECES_ON_STACK = 8;
constexpr size_t VARIANT_ROOM = 64; /* for name and variant together */
constexpr size_t PATH_SIZE = 128;
constexpr const char* DEFAULT_VARIANT = "default";
constexpr int16_t PULSE_PRIORITY = 10;

struct client_deleter {
    void operator()(msgclient_t* client) const noexcept;
};
using client_owner = std::unique_ptr<msgclient_t, client_deleter>;

/* What one call sends and where its reply goes. */
struct call {
    int16_t type;
    int16_t code = 0;
    uint32_t tag = 0;
    int32_t length = 0; /* the header's field */
    int32_t size = 0;   /* the header's field */
    const iovec* request = nullptr;
    int32_t request_count = 0;
    const iovec* reply = nullptr;
    int32_t reply_count = 0;
    bool reply_has_header = false;
    int32_t descriptor = -1;
};

/* Bytes of a vector, or -1 when it is not a vector for one call. */
int32_t vector_length(const iovec* vector, int32_t count) {
    if (count < 0 || (vector == nullptr && count > 0)) {
        return -1;
    }
    size_t total = 0;
    for (int32_t i = 0; i < count; ++i) {
        if (vector[i].iov_len > INT32_MAX - total) {
            return -1;
        }
        total += vector[i].iov_len;
    }
    return static_cast<int32_t>(total);
}

/* The header in front of a vector; `room` is used when it suffices. Null without memory. */
iovec* with_header(msg_header* header, const iovec* vector, int32_t count, iovec* room,
                   std::unique_ptr<iovec, vel_free>* heap) {
    iovec* pieces = room;
    if (count > PIECES_ON_STACK) {
        heap->reset(
            static_cast<iovec*>(std::malloc((1 + static_cast<size_t>(count)) * sizeof(iovec))));
        pieces = heap->get();
    }
    if (pieces != nullptr) {
        pieces[0] = {header, sizeof *header};
        for (int32_t i = 0; i < count; ++i) {
            pieces[1 + i] = vector[i];
        }
    }
    return pieces;
}

/* Is there a header, and does it tell the length of the body that came with it? Callers read as
 * many bytes of their buffer as it says. The one that answers an open is the client's own again. */
bool header_is_true(int16_t type, const msg_header& header, const message_result& result) {
    if (result.received < sizeof header || type == CSM_OPEN) {
        return result.received >= sizeof header;
    }
    const size_t body = result.received - sizeof header;
    return header.size >= 0 &&
           (result.status == CSM_STATUS_QUEUED ? body == 0
                                               : body == static_cast<size_t>(header.size));
}

/* Sends and waits; the header in `header` is sent and received over. Status or error number. */
int32_t exchange(msgclient_t* client, const call& what, msg_header* header)
    VEL_REQUIRES(client->internal->call_lock) {
    iovec request_room[1 + PIECES_ON_STACK];
    iovec reply_room[1 + PIECES_ON_STACK];
    std::unique_ptr<iovec, vel_free> request_heap;
    std::unique_ptr<iovec, vel_free> reply_heap;
    const iovec* request =
        with_header(header, what.request, what.request_count, request_room, &request_heap);
    const iovec* reply = with_header(header, what.reply, what.reply_count, reply_room, &reply_heap);
    if (request == nullptr || reply == nullptr) {
        return ENOMEM;
    }
    message_result result;
    int32_t error = message_call(&client->internal->connection, request, 1 + what.request_count,
                                 what.descriptor, reply,
                                 what.reply_has_header ? 1 + what.reply_count : 0, &result);
    if (error == 0 && what.reply_has_header && !header_is_true(what.type, *header, result)) {
        client->internal->connection.broken = true;
        error = EPROTO;
    }
    if (error != 0) {
        header->size = what.size; /* a part of a reply may have been stored over it */
        return error;
    }
    return result.status;
}

int32_t perform_locked(msgclient_t* client, const call& what, int32_t* reply_length)
    VEL_REQUIRES(client->internal->call_lock) {
    msg_header header{};
    header.type = what.type;
    header.code = what.code;
    header.service_index = static_cast<int16_t>(client->service_index);
    header.connection_index = static_cast<int16_t>(client->connection_index);
    header.tag = what.tag;
    header.length = what.length;
    header.size = what.size;
    const int32_t result = exchange(client, what, &header);
    if (reply_length != nullptr) {
        *reply_length = header.size;
    }
    return result;
}

/* Around every call: the record lives until the last one has left. */
class caller {
public:
    explicit caller(msgclient_internal* of) noexcept : internal(of) {
        vel_lock_guard guard(internal->state_lock);
        internal->callers += 1;
    }
    ~caller() {
        vel_lock_guard guard(internal->state_lock);
        internal->callers -= 1;
        if (internal->closing) {
            pthread_cond_broadcast(&internal->left);
        }
    }
    caller(const caller&) = delete;
    caller& operator=(const caller&) = delete;

private:
    msgclient_internal* internal;
};

int32_t perform(msgclient_t* client, const call& what, int32_t* reply_length) {
    const caller entered(client->internal);
    vel_lock_guard guard(client->internal->call_lock);
    return perform_locked(client, what, reply_length);
}

/* The result of a call that is refused before anything is sent. */
int32_t refused(int32_t* reply_length) {
    if (reply_length != nullptr) {
        *reply_length = 0;
    }
    return EINVAL;
}

/* --- Opening and closing ------------------------------------------------------------------------
 */

/* 0, or the error number. */
int32_t check_names(const char* name, const char* variant) {
    if (name == nullptr) {
        return EINVAL;
    }
    const size_t length = strlen(name);
    if (length >= MSGCLIENT_NAME_SIZE || strlen(variant) > VARIANT_ROOM - length) {
        return ENAMETOOLONG;
    }
    for (const char* text : {name, variant}) {
        if (text[0] == '\0' || text[0] == '.' || strchr(text, '/') != nullptr) {
            return EINVAL;
        }
    }
    return 0;
}

/* Nobody else knows the record yet, so its locks need not be held. From calloc(), as all of this
 * library: a C program that links it needs no C++ run time. */
client_owner make_client(const char* name) VEL_NO_TSA {
    client_owner client(static_cast<msgclient_t*>(std::calloc(1, sizeof(msgclient_t))));
    if (client == nullptr) {
        return nullptr;
    }
    client->coid = -1;
    client->notify_chid = -1;
    client->notify_coid = -1;
    memcpy(client->name, name, strlen(name) + 1);
    client->internal = static_cast<msgclient_internal*>(std::calloc(1, sizeof(msgclient_internal)));
    if (client->internal == nullptr) {
        return nullptr;
    }
    client->internal->connection = message_client{};
    vel_mutex_init(&client->internal->call_lock);
    vel_mutex_init(&client->internal->state_lock);
    pthread_cond_init(&client->internal->left, nullptr);
    return client;
}

/* Connects by the path, else by the name space. 0, or the error number: that of the path unless it
 * says no more than that there is none. */
int32_t connect_client(msgclient_t* client, const char* name, const char* variant) {
    char path[PATH_SIZE];
    vel_lock_guard guard(client->internal->call_lock);
    message_client* connection = &client->internal->connection;
    (void)snprintf(path, sizeof path, "/sys/csm/%s/%s", name, variant);
    client->by_path = 1;
    if (message_connect(connection, path) == 0) {
        return 0;
    }
    const int32_t by_path = errno;
    (void)snprintf(path, sizeof path, "/sys/csm/.names/%s/%s", name, variant);
    client->by_path = 0;
    if (message_connect(connection, path) == 0) {
        return 0;
    }
    return errno == ENOENT ? by_path : errno;
}

/* Sends CSM_OPEN and keeps the indices. 0, or what the open was refused with. */
int32_t open_service(msgclient_t* client, int16_t code) {
    const iovec name{client->name, strlen(client->name) + 1};
    call open{.type = CSM_OPEN, .code = code};
    open.length = static_cast<int32_t>(name.iov_len);
    open.size = MSG_HEADER_SIZE;
    open.request = &name;
    open.request_count = 1;
    open.reply_has_header = true;
    msg_header header{};
    header.type = open.type;
    header.code = open.code;
    header.length = open.length;
    header.size = open.size;
    vel_lock_guard guard(client->internal->call_lock);
    const int32_t result = exchange(client, open, &header);
    client->service_index = header.service_index;
    client->connection_index = header.connection_index;
    return result;
}

/* Wakes the threads that wait for a pulse, waits until they have left, closes the channel. */
void drop_channel(msgclient_t* client, msgclient_internal* internal)
    VEL_REQUIRES(internal->state_lock) {
    if (client->notify_chid >= 0) {
        (void)shutdown(client->notify_chid, SHUT_RDWR);
        while (internal->waiters > 0) {
            pthread_cond_wait(&internal->left, &internal->state_lock.native);
        }
        close(client->notify_chid);
        client->notify_chid = -1;
    }
    if (client->notify_coid >= 0) {
        close(client->notify_coid);
        client->notify_coid = -1;
    }
}

/* Lets no new channel be made, wakes the threads that wait for a pulse, and waits until every
 * thread has left its call. */
void await_callers(msgclient_t* client, msgclient_internal* internal)
    VEL_REQUIRES(internal->state_lock) {
    internal->closing = true;
    if (client->notify_chid >= 0) {
        (void)shutdown(client->notify_chid, SHUT_RDWR);
    }
    while (internal->callers > 0) {
        pthread_cond_wait(&internal->left, &internal->state_lock.native);
    }
}

/* A new private channel in the place of an earlier one, and the event for it. 0, or -1 with errno
 * set. */
int32_t make_channel(msgclient_t* client, msgclient_event* event) {
    vel_lock_guard guard(client->internal->state_lock);
    drop_channel(client, client->internal);
    if (client->internal->closing) {
        errno = EBADF;
        return -1;
    }
    if (message_event_channel(&client->notify_chid, &client->notify_coid) != 0) {
        return -1;
    }
    event->kind = MSGCLIENT_EVENT_PULSE;
    event->coid = client->notify_coid;
    event->priority = PULSE_PRIORITY;
    return 0;
}

int32_t register_event(msgclient_t* client, int32_t depth, const msgclient_event& event)
    VEL_REQUIRES(client->internal->call_lock) {
    msgclient_event copy = event;
    const iovec payload{&copy, sizeof copy};
    const call what{.type = CSM_NOTIFY,
                    .length = MSG_EVENT_SIZE,
                    .size = depth,
                    .request = &payload,
                    .request_count = 1,
                    .descriptor = copy.kind == MSGCLIENT_EVENT_PULSE ? copy.coid : -1};
    return perform_locked(client, what, nullptr);
}

/* Frees a record that no other thread uses any more. */
void client_deleter::operator()(msgclient_t* client) const noexcept {
    msgclient_internal* internal = client->internal;
    if (internal != nullptr) {
        {
            vel_lock_guard guard(internal->call_lock);
            message_disconnect(&internal->connection);
        }
        pthread_cond_destroy(&internal->left);
        vel_mutex_destroy(&internal->state_lock);
        vel_mutex_destroy(&internal->call_lock);
        std::free(internal);
    }
    std::free(client);
}

} // namespace

extern "C" {

msgclient_t* msgclient_open(const char* name, const char* variant, int16_t code) noexcept {
    if (variant == nullptr) {
        variant = DEFAULT_VARIANT;
    }
    int32_t error = check_names(name, variant);
    if (error != 0) {
        errno = error;
        return nullptr;
    }
    client_owner client = make_client(name);
    error = client == nullptr ? ENOMEM : connect_client(client.get(), name, variant);
    if (error == 0) {
        error = open_service(client.get(), code);
    }
    if (error != 0) {
        client.reset();
        errno = error;
        return nullptr;
    }
    vel_lock_guard guard(client->internal->call_lock);
    client->coid = client->internal->connection.fd;
    return client.release();
}

int32_t msgclient_close(msgclient_t* client) noexcept {
    const client_owner owner(client);
    if (client == nullptr) {
        return 0;
    }
    {
        vel_lock_guard guard(client->internal->state_lock);
        await_callers(client, client->internal);
        drop_channel(client, client->internal);
    }
    call close_call{.type = CSM_CLOSE};
    close_call.length = MSG_HEADER_SIZE;
    (void)perform(client, close_call, nullptr);
    return 0;
}

/* --- Requests -----------------------------------------------------------------------------------
 */

int32_t msgclient_putgetv(msgclient_t* client, const iovec* request, int32_t request_count,
                          const iovec* reply, int32_t reply_count, int32_t* reply_length,
                          int16_t code) noexcept {
    const int32_t length = vector_length(request, request_count);
    const int32_t capacity = vector_length(reply, reply_count);
    if (client == nullptr || length < 0 || capacity < 0) {
        return refused(reply_length);
    }
    const call what{.type = CSM_PUTGET,
                    .code = code,
                    .length = length,
                    .size = capacity,
                    .request = request,
                    .request_count = request_count,
                    .reply = reply,
                    .reply_count = reply_count,
                    .reply_has_header = true};
    return perform(client, what, reply_length);
}

int32_t msgclient_putget(msgclient_t* client, const void* request, int32_t request_length,
                         void* reply, int32_t capacity, int32_t* reply_length,
                         int16_t code) noexcept {
    if (request_length < 0 || capacity < 0) {
        return refused(reply_length);
    }
    const iovec out{const_cast<void*>(request), static_cast<size_t>(request_length)};
    const iovec in{reply, static_cast<size_t>(capacity)};
    return msgclient_putgetv(client, &out, 1, &in, 1, reply_length, code);
}

int32_t msgclient_putv(msgclient_t* client, uint32_t tag, const iovec* request, int32_t count,
                       int16_t code) noexcept {
    const int32_t length = vector_length(request, count);
    if (client == nullptr || length < 0) {
        return EINVAL;
    }
    const call what{.type = CSM_PUT,
                    .code = code,
                    .tag = tag,
                    .length = length,
                    .size = INT32_MAX,
                    .request = request,
                    .request_count = count};
    return perform(client, what, nullptr);
}

int32_t msgclient_put(msgclient_t* client, uint32_t tag, const void* request, int32_t length,
                      int16_t code) noexcept {
    if (length < 0) {
        return EINVAL;
    }
    const iovec out{const_cast<void*>(request), static_cast<size_t>(length)};
    return msgclient_putv(client, tag, &out, 1, code);
}

int32_t msgclient_getv(msgclient_t* client, uint32_t tag, const iovec* reply, int32_t count,
                       int32_t* reply_length, int16_t code) noexcept {
    const int32_t capacity = vector_length(reply, count);
    if (client == nullptr || capacity < 0) {
        return refused(reply_length);
    }
    const call what{.type = CSM_GET,
                    .code = code,
                    .tag = tag,
                    .size = capacity,
                    .reply = reply,
                    .reply_count = count,
                    .reply_has_header = true};
    return perform(client, what, reply_length);
}

int32_t msgclient_get(msgclient_t* client, uint32_t tag, void* reply, int32_t capacity,
                      int32_t* reply_length, int16_t code) noexcept {
    if (capacity < 0) {
        return refused(reply_length);
    }
    const iovec in{reply, static_cast<size_t>(capacity)};
    return msgclient_getv(client, tag, &in, 1, reply_length, code);
}

/* --- Notification -------------------------------------------------------------------------------
 */

int32_t msgclient_notify(msgclient_t* client, int32_t depth,
                         const msgclient_event* event) noexcept {
    if (client == nullptr || event == nullptr) {
        return EINVAL;
    }
    const caller entered(client->internal);
    vel_lock_guard guard(client->internal->call_lock);
    return register_event(client, depth, *event);
}

/* The call lock is held from the making of the channel to its registration: another thread that
 * registers meanwhile would close it, and the service would be left with an older one. */
int32_t msgclient_notify_pulse(msgclient_t* client, int32_t depth) noexcept {
    if (client == nullptr) {
        return EINVAL;
    }
    const caller entered(client->internal);
    vel_lock_guard guard(client->internal->call_lock);
    msgclient_event event{};
    const int32_t result = make_channel(client, &event);
    return result != 0 ? result : register_event(client, depth, event);
}

uint32_t msgclient_wait_pulse(msgclient_t* client) noexcept {
    if (client == nullptr) {
        return 0;
    }
    msgclient_internal* internal = client->internal;
    int32_t channel;
    {
        vel_lock_guard guard(internal->state_lock);
        channel = client->notify_chid;
        if (channel < 0) {
            return 0;
        }
        internal->waiters += 1;
        internal->callers += 1;
    }
    message_event event;
    const int32_t result = message_event_wait(channel, client->coid, &event);
    {
        vel_lock_guard guard(internal->state_lock);
        internal->waiters -= 1;
        internal->callers -= 1;
        pthread_cond_broadcast(&internal->left);
    }
    return result == 0 ? event.value : 0;
}
}
