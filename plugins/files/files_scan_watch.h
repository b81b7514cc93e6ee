/* Folders that the system tells changes of. */
#ifndef LYRANE_FILES_SCAN_WATCH_H
#define LYRANE_FILES_SCAN_WATCH_H

#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "files_source.h"

/* Folders that are watched at most, of all sources; the others are not. */
constexpr size_t FILES_SCAN_WATCHES = 8192;

struct files_scan_watched {
    files_source_ref source;
    std::string id;
};

/* Belongs to one thread. */
struct files_scan_watch {
    int fd = -1; /* readable when something has changed; -1: there is no watching */
    std::unordered_map<int, files_scan_watched> folders; /* by the number of the watch */
};

void files_scan_watch_open(files_scan_watch* watch) noexcept;
void files_scan_watch_close(files_scan_watch* watch) noexcept;

/* Watches an open folder, if there is room. May throw std::bad_alloc. */
void files_scan_watch_add(files_scan_watch* watch, const files_source_ref& source,
                          const std::string& id, int folder);
/* Watches nothing of sources that have gone. */
void files_scan_watch_purge(files_scan_watch* watch) noexcept;

/* The folders that have changed since the last call; *lost: and others that are not known. May
 * throw std::bad_alloc. */
std::vector<files_scan_watched> files_scan_watch_read(files_scan_watch* watch, bool* lost);

#endif
