/* What a file says about itself beside its tags. */
#ifndef LYRANE_READER_KEYS_H
#define LYRANE_READER_KEYS_H

#include <string>

#include "reader_file.h"

/* The value of one of FILES_READER_KEYS, by its place in there; empty: there is none. May throw
 * std::bad_alloc. */
std::string reader_key(const reader_file& file, size_t key);

#endif
