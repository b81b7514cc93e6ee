/* Loading and unloading of plug-ins, and look-ups in their list. */
#ifndef LYRANE_PLUGIN_LOAD_H
#define LYRANE_PLUGIN_LOAD_H

#include <cstdint>

#include <veloran/dict.h>

#include "control.h"
#include "media.h"

extern "C" {

/* Loads one library and calls its init. Every failure ends the process; returns 0. [main] */
int32_t plugin_load(control_block* control, const char* name, const strm_dict* settings) noexcept;

/* Cleans one plug-in up and closes its library. 0, or -1 when anything failed. Frees the record's
 * text and forgets it; the record itself stays with the caller. A plug-in that a call does not
 * return from is left as it is, its record with it: the caller must not free that, since the thread
 * inside and who looks after it read it. [main] */
int32_t plugin_unload(control_block* control, plugin* record) noexcept;

/* Unloads every plug-in, the last one first, and frees the records but for those of plug-ins that
 * are left as they are. [main] */
void plugins_unload(control_block* control) noexcept;

/* Positions in a plug-in list, -1 when there is none: by id; the first whose types share a bit
 * with mask. The list must not grow meanwhile (registry_leaf). */
int32_t plugins_find_by_id(int32_t ignored, const pointer_array* list, int32_t id) noexcept;
int32_t plugins_find_by_type(int32_t ignored, const pointer_array* list, uint32_t mask) noexcept;

/* Switches detection on (1) or off (0) in every plug-in that knows it. [main], no lock held */
void plugins_set_mediasource_detection(control_block* control, int32_t enable) noexcept;
}

/* The plug-in of an id, or null; takes registry_leaf. */
plugin* plugin_by_id(control_block* control, int32_t id) noexcept;

#endif
