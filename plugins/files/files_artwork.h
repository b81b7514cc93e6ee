/* Pictures of media files, as locations that a client can open.
 *
 * A picture inside of the file comes first: it is written into the cache. Otherwise one that stands
 * beside the file under one of the usual names counts for all files of the folder. */
#ifndef LYRANE_FILES_ARTWORK_H
#define LYRANE_FILES_ARTWORK_H

#include <string>

#include "files_source.h"

/* The file URL of a picture for a file. `picture` is what was found inside, or empty. Empty: there
 * is no picture. May throw std::bad_alloc. [any thread] */
std::string files_artwork_uri(const files_source& source, const char* id,
                              const std::string& picture);

#endif
