/* Playlists: which files of a source they name. */
#ifndef LYRANE_FILES_PLAYLIST_H
#define LYRANE_FILES_PLAYLIST_H

#include <cstdint>
#include <string>
#include <vector>

#include "files_listing.h"
#include "files_source.h"

/* True for the name of a playlist, by its ending: M3U, M3U8, PLS or XSPF. */
bool files_playlist_is(const char* name) noexcept;

struct files_playlist_track {
    std::string id;
    int32_t type; /* LYR_NODE_AUDIO or LYR_NODE_VIDEO */
};

/* The tracks that the locations of the playlist at an id lead to, within the source, each once.
 * False with ECANCELED when it was cancelled. May throw std::bad_alloc. */
bool files_playlist_find(const files_source& source, const std::string& id,
                         const std::vector<std::string>& locations, const files_cancel& cancel,
                         std::vector<files_playlist_track>* tracks);

#endif
