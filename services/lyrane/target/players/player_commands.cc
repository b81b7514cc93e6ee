/* Play, pause, stop, rate and position. */
#include "player_commands.h"

#include <cerrno>
#include <cmath>

#include "media.h"
#include "msglog.h"
#include "nowplaying.h"
#include "player_check.h"
#include "player_publish.h"
#include "plugin_call.h"
#include "trksession.h"

/* What the "state" object says; the fields are changed here and nowhere else in the commands. */
static void show_status(player* player, int32_t status) noexcept VEL_REQUIRES(player->lock) {
    player->status = status;
    player_publish_state_status(player);
}

void player_show_stopped(player* player) noexcept {
    show_status(player, LYR_STATUS_STOPPED);
}

/* The focus messages that follow a pause or stop, unless the arbiter itself took the focus. */
static bool focus_is_ours(const player* player) noexcept {
    return player->np_state != NOWPLAYING_REVOKED;
}

extern "C" {

int32_t player_play(player* player) noexcept {
    if (nowplaying_acquire(player) == 0) {
        msglog(4,
               "Player:%s not allowed to play. A higher priority client (phone or mediaplayer) "
               "already running",
               player->name);
        return -1;
    }
    trksession* session = player->trksession;
    if (session == nullptr) {
        return player_refuse(EINVAL, "There is no trksession to be played");
    }
    if (player->status == LYR_STATUS_PLAYING) {
        msglog(3, "The current trksession is already playing");
        return 0;
    }
    if (!plugin_call_can_play(session->ms_session)) {
        return player_refuse(ENOTSUP, "There is no valid ms_session to play the trksession");
    }
    const bool walks = session->ms_session->player_mode == 1;
    if (!walks && !player_can(session, LYR_CAP_PLAY)) {
        return player_refuse(ENOTSUP, nullptr);
    }
    const int32_t result = plugin_call_play(session->ms_session);
    if (walks) {
        msglog(6, "call plugin play: %d", result);
    }
    if (result == 0) {
        show_status(player, LYR_STATUS_PLAYING);
    }
    nowplaying_state(player, "playing");
    return result;
}

int32_t player_pause(player* player) noexcept {
    trksession* session = player->trksession;
    if (session == nullptr) {
        return player_refuse(EINVAL, "There is no trksession to be paused");
    }
    if (player->status == LYR_STATUS_PAUSED) {
        return 0;
    }
    if (!plugin_call_can_play(session->ms_session)) {
        return player_refuse(ENOTSUP, nullptr);
    }
    int32_t result = -1;
    if (player_can(session, LYR_CAP_PAUSE)) {
        result = plugin_call_pause(session->ms_session);
        if (result == 0) {
            show_status(player, LYR_STATUS_PAUSED);
        }
    }
    if (focus_is_ours(player)) {
        nowplaying_state(player, "paused");
    }
    return result;
}

int32_t player_stop(player* player) noexcept {
    msglog(7, "player_stop()");
    trksession* session = player->trksession;
    if (session == nullptr) {
        return player_refuse(EINVAL, "There is no active trksession");
    }
    if (!plugin_call_can_play(session->ms_session)) {
        return player_refuse(ENOTSUP, nullptr);
    }
    if (player->status == LYR_STATUS_STOPPED) {
        msglog(3, "The player was already stopped");
        return 0;
    }
    int32_t result = -1;
    if (player_can(session, LYR_CAP_STOP)) {
        msglog(7, "Calling plugin stop");
        result = plugin_call_stop(session->ms_session);
        if (result == 0) {
            show_status(player, LYR_STATUS_STOPPED);
        }
    }
    if (focus_is_ours(player)) {
        nowplaying_state(player, "stopped");
        nowplaying_release(player);
    }
    return result;
}

int32_t player_set_playback_rate(player* player, float rate) noexcept {
    trksession* session = nullptr;
    if (player_usable_session(player, &session) != 0) {
        return -1;
    }
    if (!std::isfinite(rate)) {
        return player_refuse(EINVAL, "The requested playback rate is not a number");
    }
    if (!player_can(session, LYR_CAP_STOP)) {
        return -1;
    }
    const int32_t result = plugin_call_set_rate(session->ms_session, rate);
    if (result == 0) {
        player->playback_rate = rate;
        player_publish_state_rate(player);
    }
    return result;
}

int32_t player_seek(player* player, int32_t position) noexcept {
    trksession* session = nullptr;
    if (player_usable_session(player, &session) != 0) {
        return -1;
    }
    if (!player_can(session, LYR_CAP_SEEK)) {
        return -1;
    }
    return plugin_call_seek(session->ms_session, position);
}
}
