/* Tags and length of media files. */
#ifndef LYRANE_FILES_TAGS_H
#define LYRANE_FILES_TAGS_H

#include <string>

#include <lyrane/records.h>

/* Longest text taken from a tag, in bytes; a longer one is cut between two characters. */
constexpr size_t FILES_TAG_MOST = 4096;

/* Reads what a file says about itself; the title of one that says nothing is its name without the
 * ending. A record that the caller frees. May throw std::bad_alloc; a damaged file is one without
 * tags. */
metadata* files_tags_read(const std::string& path);

#endif
