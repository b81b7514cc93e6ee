#include "playback_events.h"

#include <cerrno>
#include <cmath>

#include "control.h"
#include "media.h"
#include "msglog.h"
#include "play_error.h"
#include "player_commands.h"
#include "player_pin.h"
#include "player_publish.h"
#include "plugin_call.h"
#include "plugin_opening.h"
#include "trksession.h"
#include "trksession_walk.h"

static int32_t invalid_data(void) noexcept {
    msglog(3, "Invalid callback_data passed in by Plug-in");
    errno = EINVAL;
    return -1;
}

/* The player that an event is for, pinned; null when the event is refused. *began receives its
 * number of changes. */
static player* event_player(const void* callback_data, const char* event,
                            uint32_t* began = nullptr) noexcept {
    if (plugin_call_inside() != 0) {
        msglog(3, "Plug-in reports '%s' from inside a call made into it; refused", event);
        return nullptr;
    }
    player* found = player_pin_registered(&mmcontrol, callback_data, began);
    if (found == nullptr) {
        (void)invalid_data();
    }
    return found;
}

/* False for an event of an earlier session or of another media source. */
static bool concerns(const player* player, const void* handle) noexcept VEL_REQUIRES(player->lock) {
    const trksession* session = player->trksession;
    return session != nullptr && handle != nullptr && session->ms_session != nullptr &&
           session->ms_session->play_session == handle;
}

/* True when a stop, an attach or another session came between the beginning of an event and its
 * turn: it tells of a node that is not played any more. */
static bool overtaken(const player* player, uint32_t began) noexcept VEL_REQUIRES(player->lock) {
    return player->changes != began;
}

/* The same for an error. One that began while a node was being attached may be that node's. */
static bool error_overtaken(const player* player, uint32_t began) noexcept
    VEL_REQUIRES(player->lock) {
    return player->changes != began + began % 2;
}

static int32_t stale(const char* text) noexcept {
    msglog(3, "%s", text);
    return -1;
}

static int32_t position_updated(player* player, const void* handle, uint32_t began,
                                int32_t position) noexcept {
    vel_lock_guard guard(player->lock);
    if (player->closed != 0) {
        return invalid_data();
    }
    if (!concerns(player, handle) || overtaken(player, began)) {
        return stale("Invalid position updates callback");
    }
    if (position > 0) {
        player->error_run = 0;
    }
    /* A plug-in may report a seek that waits for the play; only what moves on is heard. */
    if (position != trksession_current(player->trksession).trk_pos) {
        plugin_opening_heard(player->trksession->ms_session);
    }
    trksession_set_position(player->trksession, position);
    player_publish_status(player, position);
    return 0;
}

/* Player mode: the session goes on by itself. */
static int32_t advance(player* player, trksession* session) noexcept VEL_REQUIRES(player->lock) {
    int32_t next = 0;
    if (trksession_internal_next_index(player, &next) != 0) {
        msglog(6, "The trksession finished its playing in player mode");
        player_show_stopped(player);
        return 0;
    }
    if (player_internal_attach_medianode(player, next, trksession_length(session)) != 0) {
        return -1;
    }
    const int32_t played = plugin_call_play(session->ms_session);
    if (played != 0) {
        msglog(3, "Failed to play a new track");
    }
    return played;
}

static int32_t track_finished(player* player, const void* handle, uint32_t began) noexcept {
    vel_lock_guard guard(player->lock);
    if (player->closed != 0) {
        return invalid_data();
    }
    if (!concerns(player, handle) || overtaken(player, began)) {
        return stale("Invalid track finished callback");
    }
    player->error_run = 0;
    trksession* session = player->trksession;
    plugin_opening_over(session->ms_session);
    if (session->ms_session->player_mode == 0) {
        msglog(6, "The trksession finished its playing in device mode");
        player_show_stopped(player);
        return 0;
    }
    return advance(player, session);
}

static int32_t track_changed(player* player, const void* handle, const medianode* node) noexcept {
    vel_lock_guard guard(player->lock);
    if (player->closed != 0) {
        return invalid_data();
    }
    if (!concerns(player, handle)) {
        return stale("Invalid track finished callback");
    }
    trksession* session = player->trksession;
    metadata* data = trksession_fetch_metadata(session, node != nullptr ? node->id : nullptr);
    player_need_track_writer(player);
    player_publish_track(player, session->ts_id, trksession_current(session).trk_id, node, data);
    free_metadata(&data);
    return 0;
}

static int32_t state_updated(player* player, const void* handle,
                             const lyr_playback_state* state) noexcept {
    vel_lock_guard guard(player->lock);
    if (player->closed != 0) {
        return invalid_data();
    }
    if (state == nullptr || !concerns(player, handle)) {
        return stale("Invalid state update callback");
    }
    if (std::isfinite(state->playback_rate)) {
        player->playback_rate = state->playback_rate;
    } else { /* could not be saved, and the player with it */
        msglog(3, "Plug-in reports a playback rate that is no number; the old one stays");
    }
    player->status = state->status;
    player->shuffle_mode = state->shuffle_mode;
    player->repeat_mode = state->repeat_mode;
    player_publish_state(player);
    return 0;
}

static int32_t play_error_occurred(player* player, const void* handle, uint32_t began,
                                   int32_t error) noexcept {
    vel_lock_guard guard(player->lock);
    if (player->closed != 0) {
        return invalid_data();
    }
    if (!concerns(player, handle) ||
        (error == LYR_PLAY_ERROR_SKIP && error_overtaken(player, began))) {
        return stale("Invalid track finished callback");
    }
    return play_error_handle(player, error);
}

extern "C" {

int32_t lyrane_internal_position_updated(void* play_session, void* callback_data,
                                         int32_t position) noexcept {
    uint32_t began = 0;
    player* player = event_player(callback_data, "position", &began);
    if (player == nullptr) {
        return -1;
    }
    const int32_t result = position_updated(player, play_session, began, position);
    player_unpin(player);
    return result;
}

int32_t lyrane_internal_track_finished(void* play_session, void* callback_data) noexcept {
    uint32_t began = 0;
    player* player = event_player(callback_data, "track finished", &began);
    if (player == nullptr) {
        return -1;
    }
    msglog(7, "Track finished callback: %s", player->name);
    const int32_t result = track_finished(player, play_session, began);
    player_unpin(player);
    return result;
}

int32_t lyrane_internal_track_changed(void* play_session, void* callback_data,
                                      const medianode* node) noexcept {
    player* player = event_player(callback_data, "track changed");
    if (player == nullptr) {
        return -1;
    }
    msglog(7, "track changed callback: %s", player->name);
    const int32_t result = track_changed(player, play_session, node);
    player_unpin(player);
    return result;
}

int32_t lyrane_internal_state_updated(void* play_session, void* callback_data,
                                      const lyr_playback_state* state) noexcept {
    player* player = event_player(callback_data, "state");
    if (player == nullptr) {
        return -1;
    }
    msglog(7, "playback state update callback: %s", player->name);
    const int32_t result = state_updated(player, play_session, state);
    player_unpin(player);
    return result;
}

int32_t lyrane_internal_play_error_occurred(void* play_session, void* callback_data,
                                            int32_t error) noexcept {
    uint32_t began = 0;
    player* player = event_player(callback_data, "play error", &began);
    if (player == nullptr) {
        return -1;
    }
    msglog(3, "playback error callback: %s", player->name);
    const int32_t result = play_error_occurred(player, play_session, began, error);
    player_unpin(player);
    return result;
}

int32_t lyrane_internal_browse_error_occurred(void* browse_session, void* callback_data) noexcept {
    (void)browse_session;
    player* player = event_player(callback_data, "browse error");
    if (player == nullptr) {
        return -1;
    }
    msglog(3, "Browsing error callback: %s", player->name);
    player_unpin(player);
    return 0;
}
}
