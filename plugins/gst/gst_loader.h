/* Fetches the playing module that stands beside the plug-in, at its first use. */
#ifndef LYRANE_GST_LOADER_H
#define LYRANE_GST_LOADER_H

#include "gst_player.h"

/* The module's table, or null when it cannot be loaded; `log` then hears why, once. The module
 * stays loaded. [any thread] */
const gst_player_api* gst_loader_get(void (*log)(int32_t level,
                                                 const char* text) noexcept) noexcept;

/* The table when somebody has fetched it, else null: for clean-up. [any thread] */
const gst_player_api* gst_loader_loaded() noexcept;

#endif
