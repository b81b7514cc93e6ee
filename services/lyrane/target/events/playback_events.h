/* What plug-ins report of playing: positions, ends and changes of tracks, states, errors.
 *
 * [plug-in] only. The player stays pinned from the check of the callback data to the end of the
 * event, which holds the player lock. Results and arguments: <lyrane/plugin.h>. */
#ifndef LYRANE_PLAYBACK_EVENTS_H
#define LYRANE_PLAYBACK_EVENTS_H

#include <cstdint>

#include <lyrane/plugin.h>

extern "C" {

int32_t lyrane_internal_position_updated(void* play_session, void* callback_data,
                                         int32_t position) noexcept;
int32_t lyrane_internal_track_finished(void* play_session, void* callback_data) noexcept;
int32_t lyrane_internal_track_changed(void* play_session, void* callback_data,
                                      const medianode* node) noexcept;
int32_t lyrane_internal_state_updated(void* play_session, void* callback_data,
                                      const lyr_playback_state* state) noexcept;
int32_t lyrane_internal_play_error_occurred(void* play_session, void* callback_data,
                                            int32_t error) noexcept;
int32_t lyrane_internal_browse_error_occurred(void* browse_session, void* callback_data) noexcept;
}

#endif
