/* Next, previous and jump: another track of the session becomes the current one. */
#include "player_commands.h"

#include <cerrno>

#include "msglog.h"
#include "player_check.h"
#include "plugin_call.h"
#include "plugin_opening.h"
#include "trksession_walk.h"

static constexpr char NO_SESSION[] = "There is no trksession to be played";

/* The repeat mode by which a skip walks: repeating one track must not hold a listener who asked
 * for the next. The player's own mode is not touched: others read it meanwhile. */
static int32_t skip_mode(const player* player) noexcept {
    const int32_t mode = player->repeat_mode;
    return mode == LYR_REPEAT_ONE ? LYR_REPEAT_OFF : mode;
}

/* The session that next and previous walk in. 0, or -1 with errno EINVAL or ENOTSUP. */
static int32_t session_to_skip_in(player* player, trksession** session) noexcept
    VEL_REQUIRES(player->lock) {
    *session = player->trksession;
    if (*session == nullptr) {
        return player_refuse(EINVAL, NO_SESSION);
    }
    return plugin_call_can_play((*session)->ms_session) ? 0 : player_refuse(ENOTSUP, nullptr);
}

static int32_t end_of_session(void) noexcept {
    msglog(3, "We are at the end of the trksession");
    return 0;
}

/* Stops a playing track if the source can, attaches the new one and lets it play on. */
static int32_t skip_to(player* player, trksession* session, int32_t track) noexcept
    VEL_REQUIRES(player->lock) {
    if (player->status == LYR_STATUS_PLAYING && player_can(session, LYR_CAP_STOP)) {
        const int32_t stopped = plugin_call_stop(session->ms_session);
        if (stopped != 0) {
            msglog(3, "The current trksession is playing but cannot be stopped");
            return stopped;
        }
    }
    const int32_t attached =
        player_attach_walking(player, track, trksession_length(session), skip_mode(player));
    if (attached == 0 && player->status == LYR_STATUS_PLAYING) {
        const int32_t played = plugin_call_play(session->ms_session);
        if (played != 0) {
            msglog(3, "The new track cannot be played");
            return played;
        }
    }
    return attached;
}

/* Device mode: the device finds the track. */
static int32_t forward(const trksession* session, uint64_t capability,
                       int32_t (*entry)(const mediasource_session*) noexcept) noexcept {
    if (!player_can(session, capability)) {
        return player_refuse(ENOTSUP, "The device does not support play next");
    }
    return entry(session->ms_session);
}

extern "C" {

int32_t player_next(player* player) noexcept {
    trksession* session = nullptr;
    if (session_to_skip_in(player, &session) != 0) {
        return -1;
    }
    if (session->ms_session->player_mode == 0) {
        return forward(session, LYR_CAP_NEXT, plugin_call_next);
    }
    int32_t track = 0;
    if (trksession_next_by_mode(player, skip_mode(player), &track) != 0) {
        return end_of_session();
    }
    return skip_to(player, session, track);
}

int32_t player_previous(player* player) noexcept {
    trksession* session = nullptr;
    if (session_to_skip_in(player, &session) != 0) {
        return -1;
    }
    if (session->ms_session->player_mode == 0) {
        return forward(session, LYR_CAP_PREVIOUS, plugin_call_previous);
    }
    const trksession_place place = trksession_current(session);
    int32_t track = place.trk_id;
    if (place.trk_pos < PLAYER_PREVIOUS_RESTARTS_FROM &&
        trksession_previous_by_mode(player, skip_mode(player), &track) != 0) {
        return end_of_session();
    }
    return skip_to(player, session, track);
}

int32_t player_jump(player* player, int32_t index) noexcept {
    trksession* session = player->trksession;
    if (session == nullptr) {
        return player_refuse(EINVAL, NO_SESSION);
    }
    const int32_t length = trksession_length(session);
    if (index >= length) {
        return player_refuse(EINVAL, "The specified index is out of range");
    }
    if (!plugin_call_can_play(session->ms_session)) {
        return player_refuse(ENOTSUP, "There is no valid ms_session to play the trksession");
    }
    if (session->ms_session->player_mode == 0) {
        return player_refuse(ENOTSUP, nullptr);
    }
    int32_t track = 0;
    if (convert_cli_index_2_internal_index(player, index, &track) != 0) {
        return player_refuse(EINVAL, "Invalid track index");
    }
    if (player->status == LYR_STATUS_PLAYING && plugin_call_stop(session->ms_session) != 0) {
        msglog(3, "The current trksession is playing but cannot be stopped");
        return -1;
    }
    medianode wanted = {};
    if (trksession_copy_track(session, track, &wanted) == 0) {
        plugin_opening_trust(session->ms_session, &wanted);
    }
    if (player_internal_attach_medianode(player, track, length) != 0) {
        return -1;
    }
    if (player->status == LYR_STATUS_PLAYING) {
        const int32_t played = plugin_call_play(session->ms_session);
        if (played != 0) {
            msglog(3, "Failed to play");
            return played;
        }
    }
    return 0;
}
}
