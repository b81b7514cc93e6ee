/* Playlists: the locations that they name. */
#ifndef LYRANE_READER_PLAYLIST_H
#define LYRANE_READER_PLAYLIST_H

#include <string>
#include <vector>

/* The locations that a playlist's text names, in its order. `name` tells the kind. They may be
 * anything. May throw std::bad_alloc. */
std::vector<std::string> reader_playlist(const std::string& name, const std::string& text);

#endif
