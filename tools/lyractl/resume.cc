#include "resume.h"

#include <lyrane/client.h>

namespace {

/* What is left of the last track when it counts as played. Positions are told in steps, so the
 * last one told is somewhat before the end. */
constexpr int32_t NEARLY_OVER = 1500; /* ms */

bool is_over(const request_session& session, const request_track& track,
             const lyr_state_reply& state, int32_t position) {
    return state.status != LYR_STATUS_PLAYING && state.repeat_mode == LYR_REPEAT_OFF &&
           state.shuffle_mode == LYR_SHUFFLE_OFF && track.index == session.length - 1 &&
           track.metadata.duration > 0 && position >= track.metadata.duration - NEARLY_OVER;
}

} // namespace

bool resume_session(connection* to, int32_t source, bool* resumed) {
    request_session session;
    request_track track;
    lyr_state_reply state = {};
    int32_t position = 0;
    *resumed = false;
    /* This, whatever it says, is answered when nobody is at work on the player: whoever brings its
     * session back, for as long as that takes, has done it then. */
    request_metadata ignored;
    bool described = false;
    (void)request_describe(to, source, "/", &described, &ignored);
    if (!request_get_session(to, &session)) {
        return false;
    }
    if (!session.exists || !request_current(to, &track)) {
        return true;
    }
    if (!request_state(to, &state) || !request_position(to, &position)) {
        return false;
    }
    *resumed = track.node.source == source && !is_over(session, track, state, position);
    return true;
}
