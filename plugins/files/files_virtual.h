/* Folders that are made from the index: by artist, album and genre, and the playlists.
 *
 *   /.by                       the four below
 *   /.by/artist                artists; in one, the albums, then the tracks that are of no album
 *   /.by/artist/A/B            tracks of an album, in its order
 *   /.by/album                 albums; one is /.by/album/B, or /.by/album/B/A with an album artist
 *   /.by/genre                 genres; in one, its tracks
 *   /.by/playlist              playlists; in one, its tracks that are there, each once
 *
 * In names in these ids '/', '%' and what is not seen are written as %XX. No file has an id that
 * begins so. "/.by" is no child of "/": whoever collects all tracks below "/" gets each of them
 * once. Tracks have the ids that they have in the plain tree. */
#ifndef LYRANE_FILES_VIRTUAL_H
#define LYRANE_FILES_VIRTUAL_H

#include <memory>
#include <string>
#include <vector>

#include "files_index.h"
#include "files_listing.h"
#include "files_source.h"

/* True for an id of such a folder, whether it is there or not. Accepts null. */
bool files_virtual_is(const char* id) noexcept;

struct files_virtual_node {
    std::string id;
    std::string name;
    int32_t type;  /* LYR_NODE_* */
    int32_t count; /* children of a folder, 0: not counted */
};

/* Immutable once it is read. */
using files_virtual_listing = std::shared_ptr<const std::vector<files_virtual_node>>;

/* The children of such a folder. Null when there is none of that id, or the call was cancelled.
 * May throw std::bad_alloc. */
files_virtual_listing files_virtual_read(const files_source& source, files_index* index,
                                         const std::string& id, const files_cancel& cancel);

#endif
