/* Tags and length of a media file. */
#ifndef LYRANE_READER_TAGS_H
#define LYRANE_READER_TAGS_H

#include "files_reader_answer.h"
#include "reader_file.h"

/* Fills in what the file says about itself. A damaged one is one without tags. May throw
 * std::bad_alloc. */
void reader_tags(const reader_file& file, files_reader_found* found);

#endif
