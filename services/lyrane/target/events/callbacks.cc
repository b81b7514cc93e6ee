/* The table of callbacks that every plug-in gets. */
#include <lyrane/plugin.h>

#include "mediasource_events.h"
#include "playback_events.h"

extern "C" {

const lyrane_internal_callbacks_table lyrane_internal_callbacks = {
    lyrane_internal_mediasource_connected,
    lyrane_internal_mediasource_disconnected,
    lyrane_internal_mediasource_status_changed,
    lyrane_internal_mediasource_capability_changed,
    lyrane_internal_position_updated,
    lyrane_internal_track_finished,
    lyrane_internal_track_changed,
    lyrane_internal_state_updated,
    lyrane_internal_play_error_occurred,
    lyrane_internal_browse_error_occurred,
};
}
