/* Reading one file. */
#ifndef LYRANE_READER_READ_H
#define LYRANE_READER_READ_H

#include <string>

#include "files_reader_answer.h"

/* Finds what is wished for in an opened plain file. Whatever is in the file, it is found, or
 * nothing is. The descriptor stays the caller's. May throw std::bad_alloc. */
files_reader_found reader_read(int fd, const files_reader_request& request);

#endif
