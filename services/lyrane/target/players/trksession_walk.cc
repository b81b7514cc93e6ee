#include "trksession_walk.h"

#include <cerrno>

#include "msglog.h"
#include "plugin_call.h"

/* The playback position of a track, and the track at a position. Without shuffle, and for numbers
 * that name no track (a session may be empty), they are the number itself. */
static int32_t position_of(const player* player, const trksession* session, int32_t track) noexcept
    VEL_REQUIRES(session->lock) {
    const bool mapped =
        player->shuffle_mode == LYR_SHUFFLE_ON && track >= 0 && track < session->length;
    return mapped ? session->inverse_order[track] : track;
}

static int32_t track_at(const player* player, const trksession* session, int32_t position) noexcept
    VEL_REQUIRES(session->lock) {
    const bool mapped =
        player->shuffle_mode == LYR_SHUFFLE_ON && position >= 0 && position < session->length;
    return mapped ? session->order[position] : position;
}

/* The track one step (1 or -1) on in playback order. */
static int32_t step_by_mode(player* player, int32_t repeat_mode, int32_t step,
                            int32_t* track) noexcept VEL_REQUIRES(player->lock) {
    trksession* session = player->trksession;
    vel_lock_guard guard(session->lock);
    const int32_t position = position_of(player, session, session->trk_id);
    const bool is_end = step > 0 ? position >= session->length - 1 : position <= 0;
    const int32_t other_end = step > 0 ? 0 : session->length - 1;
    switch (repeat_mode) {
    case LYR_REPEAT_ALL:
        *track = track_at(player, session, is_end ? other_end : position + step);
        return 0;
    case LYR_REPEAT_OFF:
        if (is_end) {
            return -1;
        }
        *track = track_at(player, session, position + step);
        return 0;
    case LYR_REPEAT_ONE:
        *track = track_at(player, session, position);
        return 0;
    default:
        return -1;
    }
}

int32_t trksession_next_by_mode(player* player, int32_t repeat_mode, int32_t* next) noexcept {
    return step_by_mode(player, repeat_mode, 1, next);
}

int32_t trksession_previous_by_mode(player* player, int32_t repeat_mode, int32_t* prev) noexcept {
    return step_by_mode(player, repeat_mode, -1, prev);
}

int32_t trksession_length(trksession* session) noexcept {
    vel_lock_guard guard(session->lock);
    return session->length;
}

trksession_place trksession_current(trksession* session) noexcept {
    vel_lock_guard guard(session->lock);
    return {session->trk_id, session->cli_index, session->trk_pos};
}

void trksession_set_current(trksession* session, trksession_place place) noexcept {
    vel_lock_guard guard(session->lock);
    session->trk_id = place.trk_id;
    session->cli_index = place.cli_index;
    session->trk_pos = place.trk_pos;
}

void trksession_set_track(trksession* session, int32_t index) noexcept {
    vel_lock_guard guard(session->lock);
    session->trk_id = index;
}

void trksession_set_cli_index(trksession* session, int32_t index) noexcept {
    vel_lock_guard guard(session->lock);
    session->cli_index = index;
}

void trksession_set_position(trksession* session, int32_t position) noexcept {
    vel_lock_guard guard(session->lock);
    session->trk_pos = position;
}

int32_t trksession_copy_track(trksession* session, int32_t index, medianode* copy) noexcept {
    vel_lock_guard guard(session->lock);
    if (index < 0 || index >= session->length) {
        errno = EINVAL;
        return -1;
    }
    *copy = session->tracks[index];
    return 0;
}

metadata* trksession_fetch_metadata(const trksession* session, const char* node_id) noexcept {
    metadata* data = nullptr;
    if ((mediasource_capabilities(session->mediasource) & LYR_CAP_METADATA) != 0 &&
        plugin_call_get_metadata(session->ms_session, node_id, &data) != 0) {
        free_metadata(&data);
    }
    return data;
}

extern "C" {

int32_t trksession_internal_next_index(player* player, int32_t* next) noexcept {
    return trksession_next_by_mode(player, player->repeat_mode, next);
}

int32_t trksession_internal_prev_index(player* player, int32_t* prev) noexcept {
    return trksession_previous_by_mode(player, player->repeat_mode, prev);
}

medianode* trksession_internal_get_track(player* player, int32_t index) noexcept {
    trksession* session = player->trksession;
    vel_lock_guard guard(session->lock);
    if (index < 0 || index >= session->length) {
        errno = EINVAL;
        return nullptr;
    }
    return &session->tracks[index];
}

int32_t convert_cli_index_2_internal_index(player* player, int32_t cli,
                                           int32_t* internal) noexcept {
    if (cli < 0 || cli >= trksession_length(player->trksession)) {
        return -1;
    }
    *internal = cli;
    return 0;
}

int32_t convert_internal_index_2_cli_index(player* player, int32_t internal,
                                           int32_t* cli) noexcept {
    return convert_cli_index_2_internal_index(player, internal, cli);
}

int32_t trksession_get_tracks(trksession* session, uint64_t ts_id, int32_t offset, int32_t* limit,
                              medianode** tracks) noexcept {
    (void)ts_id;
    if (session == nullptr) {
        msglog(3, "The trksession is NULL");
        return -1;
    }
    if (*limit == 0) {
        return 0;
    }
    if (*limit < -1) {
        msglog(3, "Invalid limit");
        errno = EINVAL;
        return -1;
    }
    if (offset < 0 || offset >= session->length) {
        msglog(3, "Invalid offset");
        errno = EINVAL;
        return -1;
    }
    *tracks = &session->tracks[offset];
    const int32_t rest = session->length - offset;
    if (*limit == -1 || *limit > rest) {
        *limit = rest;
    }
    return 0;
}
}
