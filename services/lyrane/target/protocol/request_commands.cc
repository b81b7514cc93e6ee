/* The playback commands. */
#include "msglog.h"
#include "player_commands.h"
#include "request_call.h"

/* Runs a command under the player lock and answers its result. A player that another client has
 * closed under this connection answers -1. */
static void run(request_call* call, int32_t (*command)(player*)) noexcept {
    int32_t result = -1;
    {
        vel_lock_guard guard(call->player->lock);
        if (call->player->closed == 0) {
            result = command(call->player);
        }
    }
    request_reply(call, result);
}

/* The same for a command with a number, which is logged first. */
static void run_number(request_call* call, const char* name,
                       int32_t (*command)(player*, int32_t)) noexcept {
    const int32_t number = request_read_i32(&call->reader);
    msglog(7, "%s: %d", name, number);
    int32_t result = -1;
    {
        vel_lock_guard guard(call->player->lock);
        if (call->player->closed == 0) {
            result = command(call->player, number);
        }
    }
    request_reply(call, result);
}

void handle_play(request_call* call) noexcept {
    run(call, player_play);
}
void handle_stop(request_call* call) noexcept {
    run(call, player_stop);
}
void handle_pause(request_call* call) noexcept {
    run(call, player_pause);
}
void handle_next(request_call* call) noexcept {
    run(call, player_next);
}
void handle_previous(request_call* call) noexcept {
    run(call, player_previous);
}
void handle_jump(request_call* call) noexcept {
    run_number(call, "index", player_jump);
}
void handle_seek(request_call* call) noexcept {
    run_number(call, "position", player_seek);
}
void handle_shuffle(request_call* call) noexcept {
    run_number(call, "shuffle", player_shuffle);
}
void handle_repeat(request_call* call) noexcept {
    run_number(call, "repeat", player_repeat);
}

void handle_set_speed(request_call* call) noexcept {
    const float rate = request_read_f32(&call->reader);
    if (msglog_level() >= 7) {
        char rate_text[RATE_TEXT_SIZE];
        request_rate_text(rate, rate_text);
        msglog(7, "rate: %s", rate_text);
    }
    int32_t result = -1;
    {
        vel_lock_guard guard(call->player->lock);
        if (call->player->closed == 0) {
            result = player_set_playback_rate(call->player, rate);
        }
    }
    request_reply(call, result);
}
