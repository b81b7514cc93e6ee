/* The folders that are media sources. */
#ifndef LYRANE_FILES_SOURCE_H
#define LYRANE_FILES_SOURCE_H

#include <cstdint>
#include <memory>
#include <string>

#include <lyrane/plugin.h>

#include "files_settings.h"

/* One folder. Immutable once it is in the list; sessions share it, so it outlives its list. */
struct files_source {
    int32_t ms_id = -1;
    int32_t plugin_id = -1;
    std::string uid;  /* of the configured path: the same folder is the same source in every run */
    std::string root; /* absolute path */
    std::string name; /* last part of the path */
    std::shared_ptr<const files_settings> settings;
};

using files_source_ref = std::shared_ptr<const files_source>;

/* What can be asked of every source of this plug-in. */
constexpr uint64_t FILES_CAPABILITIES =
    LYR_CAP_PLAY | LYR_CAP_PAUSE | LYR_CAP_SEEK | LYR_CAP_STOP | LYR_CAP_METADATA | LYR_CAP_BROWSE;

/* The library may be configured under several names; it is initialised once for each, with other
 * settings, and cleaned up as often. */

/* Takes up the settings of one more plug-in. May throw std::bad_alloc. */
void files_source_add_plugin(int32_t plugin_id, files_settings settings);
/* Forgets the plug-in that was added last, with its sources; true when it was the only one. */
bool files_source_drop_plugin() noexcept;

/* Reports every configured folder that exists and was not reported since detection was switched
 * on. May throw std::bad_alloc. No lock held; sessions may be made from inside. */
void files_source_detect(const lyrane_internal_callbacks_table* callbacks);
/* Detection was switched off: the next one reports all folders anew. */
void files_source_detection_off() noexcept;

/* The source with that id, or null: of another plug-in, or not yet known here because the call
 * that reports it has not returned. [any thread] */
files_source_ref files_source_find(int32_t ms_id) noexcept;

#endif
