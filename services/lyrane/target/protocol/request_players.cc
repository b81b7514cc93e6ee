/* Opening and closing players, and their state. */
#include <cstring>

#include <lyrane/client.h>

#include "ascii.h"
#include "msglog.h"
#include "player_pin.h"
#include "player_registry.h"
#include "request_call.h"

/* The name of open and close: a signed byte of length, three bytes unused, the bytes. */
static vel_text read_name(request_call* call) noexcept {
    const int8_t length = request_read_i8(&call->reader);
    request_skip(&call->reader, 3);
    return request_read_text(&call->reader, length);
}

void handle_open(request_call* call) noexcept {
    const vel_text name = read_name(call);
    if (request_malformed(call)) {
        return;
    }
    msglog(5, "client tries to open Player %s", name.get());
    player* opened = player_open_pinned(call->control, name.get(), call->context->info.uid);
    if (call->player != nullptr) {
        player_lose_client(call->player);
    }
    request_set_slot(call->connection, opened);
    request_reply(call, opened == nullptr ? -1 : 0);
}

void handle_close(request_call* call) noexcept {
    const vel_text name = read_name(call);
    if (request_malformed(call)) {
        return;
    }
    const bool is_own =
        call->player != nullptr && ascii_equal_nocase(name.get(), call->player->name);
    const bool is_closed = is_own && call->player->closed != 0; /* by another client */
    if (!is_own || is_closed) {
        msglog(3, "Client tries to close a non-existed or non-owned player");
        if (is_closed) {
            request_set_slot(call->connection, nullptr);
        }
        request_reply(call, -1);
        return;
    }
    msglog(5, "client tries to close to Player %s", name.get());
    const int32_t result = player_close(call->control, name.get());
    request_set_slot(call->connection, nullptr);
    request_reply(call, result);
}

/* Answers while another thread holds the player lock, so it takes none. */
void handle_get_current_state(request_call* call) noexcept {
    if (call->player->closed != 0) {
        request_reply(call, -1);
        return;
    }
    const lyr_state_reply state = {0, call->player->shuffle_mode, call->player->repeat_mode,
                                   call->player->status, call->player->playback_rate};
    if (msglog_level() >= 7) {
        char rate_text[RATE_TEXT_SIZE];
        request_rate_text(state.playback_rate, rate_text);
        msglog(7, "repeat: %d\tshuffle: %d\tstatus: %d\trate: %s", state.repeat_mode,
               state.shuffle_mode, state.status, rate_text);
    }
    request_reply_body(call, &state, sizeof state);
}
