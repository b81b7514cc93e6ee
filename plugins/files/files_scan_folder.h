/* What a folder has for the index. */
#ifndef LYRANE_FILES_SCAN_FOLDER_H
#define LYRANE_FILES_SCAN_FOLDER_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "files_index_write.h"
#include "files_listing.h"
#include "files_scan_watch.h"
#include "files_source.h"

/* Tracks and playlists by their names, and the folders by their ids, both in the order of
 * listings. */
struct files_scan_found {
    std::vector<std::pair<std::string, files_index_file>> files;
    std::vector<std::string> folders;
    int64_t changed = 0; /* when the folder had last changed; see files_index_time */
};

/* `unclear`: the folder may be there, but what it has could not be found out. */
enum class files_scan_state { read, gone, unclear };

/* Reads a folder, and watches it from then on. May throw std::bad_alloc. */
files_scan_state files_scan_folder(const files_source_ref& of, const std::string& id,
                                   const files_cancel& cancel, files_scan_watch* watch,
                                   files_scan_found* found);

#endif
