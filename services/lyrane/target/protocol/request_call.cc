#include "request_call.h"

#include <charconv>
#include <cstring>

#include "msglog.h"
#include "player_pin.h"
#include "request_log.h"

static constexpr int32_t PIECES_MAX = 8;

request_call request_call_make(osb* connection, recv_context* context, int64_t at) noexcept {
    msg_header header;
    memcpy(&header, context->buffer, sizeof header);
    return {static_cast<control_block*>(connection->server->user_data),
            connection,
            context,
            request_slot(connection),
            {context->payload, header.length, at, false},
            request_log_wanted()};
}

player* request_slot(const osb* connection) noexcept {
    return static_cast<player*>(connection->user_data);
}

void request_set_slot(osb* connection, player* player) noexcept {
    ::player* earlier = request_slot(connection);
    connection->user_data = player;
    player_unpin(earlier);
}

void request_reply(request_call* call, int32_t result) noexcept {
    request_reply_body(call, &result, sizeof result);
}

void request_reply_body(request_call* call, const void* body, int32_t size) noexcept {
    if (call->is_logged) {
        int32_t result = 0;
        memcpy(&result, body, sizeof result);
        request_log_answer(call, 0, result, size);
    }
    (void)call->connection->server->reply(call->connection, call->context, 0, body, size);
}

void request_replyv(request_call* call, int32_t result, const iovec* pieces,
                    int32_t count) noexcept {
    iovec all[PIECES_MAX] = {{&result, sizeof result}};
    size_t size = sizeof result;
    for (int32_t i = 0; i < count && i + 1 < PIECES_MAX; ++i) {
        all[i + 1] = pieces[i];
        size += pieces[i].iov_len;
    }
    if (call->is_logged) {
        request_log_answer(call, 0, result, static_cast<int64_t>(size));
    }
    (void)call->connection->server->replyv(call->connection, call->context, 0, all, count + 1);
}

void request_reply_status(request_call* call, int32_t status) noexcept {
    if (call->is_logged) {
        request_log_answer(call, status, 0, 0);
    }
    (void)call->connection->server->reply(call->connection, call->context, status, nullptr, 0);
}

bool request_malformed(request_call* call) noexcept {
    if (!call->reader.malformed) {
        return false;
    }
    msglog(6, "malformed request: a field at offset %lld does not fit its %lld bytes",
           static_cast<long long>(call->reader.at), static_cast<long long>(call->reader.size));
    request_reply(call, -1);
    return true;
}

void request_rate_text(float rate, char* text) noexcept {
    const std::to_chars_result end = std::to_chars(
        text, text + RATE_TEXT_SIZE - 1, static_cast<double>(rate), std::chars_format::fixed, 6);
    *(end.ec == std::errc() ? end.ptr : text) = '\0';
}
