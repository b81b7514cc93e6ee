/* The media sources of the plug-in: what they are, and the list of those that are connected. */
#ifndef LYRANE_FILES_SOURCE_H
#define LYRANE_FILES_SOURCE_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <lyrane/plugin.h>

#include "files_place.h"
#include "files_settings.h"

/* A configured folder, or a drive that is plugged in. Immutable once it is in the list, but for
 * `ms_id` and `gone`; sessions share it, so it outlives its list. When a drive comes back, or a
 * folder, it is a new record with the same ms_id. */
struct files_source {
    mutable std::atomic<int32_t> ms_id = -1; /* known when a session exists */
    int32_t plugin_id = -1;
    int32_t type = LYR_MS_TYPE_HDD; /* a folder; a drive is LYR_MS_TYPE_USB */
    std::string uid;   /* of a folder's path, or of a drive's file system: the same in every run */
    std::string root;  /* absolute path; of a drive: where it is mounted */
    std::string name;  /* a drive's label, else the last part of the path */
    files_place place; /* of the root, when it was connected */
    dev_t file_system = 0; /* a drive's, as the mount table numbers it */
    std::string drive;     /* a drive's uid before it was told from another drive's */
    std::shared_ptr<const files_settings> settings;
    mutable std::atomic<bool> gone = false; /* nothing on it works any more */
};

using files_source_ref = std::shared_ptr<const files_source>;

/* What can be asked of every source of this plug-in. */
constexpr uint64_t FILES_CAPABILITIES = LYR_CAP_PLAY | LYR_CAP_PAUSE | LYR_CAP_SEEK | LYR_CAP_STOP |
                                        LYR_CAP_METADATA | LYR_CAP_BROWSE |
                                        LYR_CAP_EXTENDED_METADATA | LYR_CAP_SEARCH;

/* The library may be configured under several names; it is initialised once for each, with other
 * settings, and cleaned up as often. */
struct files_plugin {
    int32_t plugin_id;
    std::shared_ptr<const files_settings> settings;
};

/* Takes up the settings of one more plug-in. May throw std::bad_alloc. */
void files_source_add_plugin(int32_t plugin_id, files_settings settings);
/* Forgets the plug-in that was added last, with its sources; true when it was the only one.
 * Detection is off. */
bool files_source_drop_plugin() noexcept;
/* A copy of the list. May throw std::bad_alloc. */
std::vector<files_plugin> files_source_plugins();

/* True when a source is connected. [any thread] */
bool files_source_any() noexcept;

/* The source with that id, or null: of another plug-in, or gone. [any thread] */
files_source_ref files_source_find(int32_t ms_id) noexcept;
/* The same for an id that is known to be one of this plug-in's. It may be asked for before the
 * call that reports the source, and learns the id, has returned: the first to use a drive that was
 * waited for comes at that moment. [any thread] */
files_source_ref files_source_find_own(int32_t ms_id) noexcept;

/* The connected sources of a plug-in that have this type. May throw std::bad_alloc. */
std::vector<files_source_ref> files_source_list(int32_t plugin_id, int32_t type);

/* Reports a source and enters it into the list under the id that it gets. No lock held; sessions
 * may be made from inside. One after the other, whatever thread it is on. May throw
 * std::bad_alloc. */
void files_source_connect(const lyrane_internal_callbacks_table* callbacks,
                          const files_source_ref& source);
/* Makes everything on a source fail and reports that it has gone. No lock held; its sessions are
 * destroyed from inside. */
void files_source_disconnect(const lyrane_internal_callbacks_table* callbacks,
                             const files_source_ref& source) noexcept;
/* Reports a source anew if that was not done since detection was switched on. No lock held. */
void files_source_confirm(const lyrane_internal_callbacks_table* callbacks,
                          const files_source_ref& source) noexcept;
/* Detection was switched off: the next one reports all sources anew. */
void files_source_detection_off() noexcept;

/* 16 hexadecimal digits that are the same for a text in every run. For uids, in which letter case
 * may not count. */
std::string files_source_hash(const std::string& text);

/* The last part of a path. */
std::string files_source_last_part(const std::string& path);

#endif
