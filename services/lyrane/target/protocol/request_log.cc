#include "request_log.h"

#include <algorithm>

#include "msglog.h"

static constexpr int32_t LEVEL = 7;
static constexpr int64_t LINE_BYTES = 256;

static void log_bytes(int32_t connection, const unsigned char* bytes, int64_t size) noexcept {
    static constexpr char DIGITS[] = "0123456789abcdef";
    char digits[2 * LINE_BYTES + 1];
    for (int64_t at = 0; at < size; at += LINE_BYTES) {
        const int64_t end = std::min(at + LINE_BYTES, size);
        char* digit = digits;
        for (int64_t i = at; i < end; ++i) {
            *digit++ = DIGITS[bytes[i] >> 4];
            *digit++ = DIGITS[bytes[i] & 15];
        }
        *digit = '\0';
        msglog(LEVEL, "connection %d: bytes from %lld: %s", connection, static_cast<long long>(at),
               digits);
    }
}

bool request_log_wanted(void) noexcept {
    return msglog_level() >= LEVEL;
}

void request_log_arrival(const request_call* call) noexcept {
    const message_info& info = call->context->info;
    const int64_t size = call->reader.size;
    const int64_t shown = std::min(size, REQUEST_LOG_MOST);
    msglog(LEVEL, "connection %d: process %d of user %u, player %s, sends %lld bytes%s", info.scoid,
           static_cast<int32_t>(info.pid), static_cast<uint32_t>(info.uid),
           call->player != nullptr ? call->player->name : "none", static_cast<long long>(size),
           shown < size ? ", not all of them shown" : "");
    log_bytes(info.scoid, call->reader.data, shown);
}

void request_log_answer(const request_call* call, int32_t status, int32_t result,
                        int64_t size) noexcept {
    msglog(LEVEL, "connection %d: answered with status %d, result %d, %lld bytes",
           call->context->info.scoid, status, result, static_cast<long long>(size));
}
