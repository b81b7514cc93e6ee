/* The plug-in `files`: folders on the hard drive and drives that are plugged in as media sources,
 * played by GStreamer. */
#include <lyrane/plugin.h>

#include "files_browse.h"
#include "files_play.h"
#include "files_reader.h"
#include "files_source.h"
#include "files_sources.h"

static const lyrane_internal_callbacks_table* service_callbacks; /* [main] */

static int32_t files_init(int32_t plugin_id, const strm_dict* settings,
                          const lyrane_internal_callbacks_table* callbacks,
                          uint32_t* types) noexcept {
    try {
        files_source_add_plugin(plugin_id, files_settings_read(settings));
    } catch (...) {
        return -1;
    }
    files_reader_allow();
    service_callbacks = callbacks;
    files_play_set_callbacks(callbacks);
    *types = LYR_MS_TYPE_HDD | LYR_MS_TYPE_USB;
    return 0;
}

static int32_t files_set_mediasource_detection(int32_t enable) noexcept {
    try {
        if (enable != 0) {
            files_sources_start(service_callbacks);
        } else {
            files_sources_stop();
        }
    } catch (...) {
        return -1;
    }
    return 0;
}

static int32_t files_cleanup() noexcept {
    files_sources_stop();
    if (files_source_drop_plugin()) {
        files_reader_stop();
        files_play_shutdown();
    }
    return 0;
}

extern "C" const lyrp_api lyrp = {
    .name = "files",
    .reserved = nullptr,
    .init = files_init,
    .set_mediasource_detection = files_set_mediasource_detection,
    .cleanup = files_cleanup,
    .play_api = &files_play_table,
    .browse_api = &files_browse_table,
};
