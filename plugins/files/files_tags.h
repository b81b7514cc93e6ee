/* Tags and length of media files. */
#ifndef LYRANE_FILES_TAGS_H
#define LYRANE_FILES_TAGS_H

#include <string>

#include <lyrane/records.h>

#include "files_reader_answer.h"

/* A record of what was found in a file; the title of one that says nothing is its name without the
 * ending. The caller frees it. May throw std::bad_alloc. */
metadata* files_tags_record(const files_reader_found& found, const std::string& path);

/* Name of a file without its ending. */
std::string files_tags_stem(const std::string& path);

#endif
