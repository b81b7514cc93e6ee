/* Receiving: the thread's context, and payloads of any size up to the limit. */
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "msgserver_requests.h"
#include "reply.h"

namespace {

constexpr int64_t STEP = 1024;

/* Rounded up to whole steps, never above the largest payload. */
int32_t rounded(const msgserver* server, int64_t size) {
    const int64_t whole = (size + STEP - 1) / STEP * STEP;
    return static_cast<int32_t>(std::min<int64_t>(whole, server->max_size));
}

recv_context* make_context(msgserver* server) {
    auto* context = static_cast<recv_context*>(std::calloc(1, sizeof(recv_context)));
    if (context == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    context->server = server;
    context->rcvid = -1;
    {
        vel_lock_guard guard(server->lock); /* msgserver_add may be raising the size */
        context->payload_size = rounded(server, server->initial_size);
    }
    context->overflow_size = server->max_size - context->payload_size;
    /* Zeroed, so that no byte is ever read that was not received or written before. */
    context->buffer = static_cast<unsigned char*>(
        std::calloc(1, static_cast<size_t>(MSG_HEADER_SIZE) + context->payload_size));
    context->overflow =
        static_cast<unsigned char*>(std::malloc(static_cast<size_t>(context->overflow_size) + 1));
    if (context->buffer == nullptr || context->overflow == nullptr ||
        pthread_setspecific(server->context_key, context) != 0) {
        destructer(context);
        errno = ENOMEM;
        return nullptr;
    }
    context->payload = context->buffer + MSG_HEADER_SIZE;
    return context;
}

/* Ends the handling of the message that this thread received before. */
void finish(recv_context* context) {
    reply_settle(context);
    if (context->held > 0) {
        message_done(context->server->dispatch, context->held);
        context->held = 0;
    }
    if (context->info.pulse == MESSAGE_PULSE_DISCONNECT && context->info.user != nullptr) {
        /* Received but not dispatched. It will not be reported again. */
        msgserver_client_gone(context->server, context);
    }
}

/* Refuses the message in the context. */
int64_t refuse(recv_context* context, int32_t error) {
    (void)message_error(context->server->dispatch, context->rcvid, error);
    context->rcvid = -1;
    errno = error;
    return -1;
}

/* Brings the whole payload of a request into the payload area. 0, or the error number. */
int32_t complete_payload(msgserver* server, recv_context* context) {
    const msg_header* header = reinterpret_cast<const msg_header*>(context->buffer);
    const int32_t length = header->length;
    if (length > server->max_size) {
        return EMSGSIZE;
    }
    if (length < 0 || length > context->info.msglen - MSG_HEADER_SIZE) {
        return EIO;
    }
    const int32_t before = context->payload_size;
    if (length <= before) {
        return 0;
    }
    if (msgserver_growmsg(server, rounded(server, length)) < 0) {
        return errno;
    }
    memcpy(context->payload + before, context->overflow, static_cast<size_t>(length - before));
    return 0;
}

bool has_payload(const recv_context* context) {
    if (context->info.msglen < MSG_HEADER_SIZE) {
        return false;
    }
    const int16_t type = reinterpret_cast<const msg_header*>(context->buffer)->type;
    return type == CSM_PUTGET || type == CSM_PUT;
}

} // namespace

extern "C" {

recv_context* msgserver_context(msgserver* server) noexcept {
    return static_cast<recv_context*>(pthread_getspecific(server->context_key));
}

void destructer(void* memory) noexcept {
    auto* context = static_cast<recv_context*>(memory);
    if (context == nullptr) {
        return;
    }
    finish(context);
    std::free(context->buffer);
    std::free(context->overflow);
    std::free(context);
}

int64_t msgserver_receive(msgserver* server) noexcept {
    recv_context* context = msgserver_context(server);
    if (context == nullptr) {
        context = make_context(server);
        if (context == nullptr) {
            return -1;
        }
    }
    finish(context);
    const iovec areas[2] = {
        {context->buffer, static_cast<size_t>(MSG_HEADER_SIZE + context->payload_size)},
        {context->overflow, static_cast<size_t>(context->overflow_size)}};
    context->info = message_info{};
    context->rcvid = message_receive(server->dispatch, areas, 2, &context->info);
    if (context->rcvid < 0) {
        context->failure = errno;
        return -1;
    }
    context->held = context->rcvid;
    if (context->rcvid > 0 && has_payload(context)) {
        const int32_t error = complete_payload(server, context);
        if (error != 0) {
            return refuse(context, error);
        }
    }
    return context->rcvid;
}

int32_t msgserver_growmsg(msgserver* server, int32_t size) noexcept {
    recv_context* context = msgserver_context(server);
    if (context == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (size <= context->payload_size) {
        return context->payload_size;
    }
    if (size > server->max_size) {
        errno = EMSGSIZE;
        return -1;
    }
    const size_t before = static_cast<size_t>(MSG_HEADER_SIZE) + context->payload_size;
    const size_t after = static_cast<size_t>(MSG_HEADER_SIZE) + size;
    auto* grown = static_cast<unsigned char*>(std::realloc(context->buffer, after));
    if (grown == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    memset(grown + before, 0, after - before);
    context->buffer = grown;
    context->payload = grown + MSG_HEADER_SIZE;
    context->payload_size = size;
    return size;
}
}
