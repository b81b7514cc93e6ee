/* Pictures inside of media files. */
#ifndef LYRANE_READER_PICTURE_H
#define LYRANE_READER_PICTURE_H

#include <string>

#include <tfile.h>

/* The bytes of a file's front cover, else of its first picture that has FILES_PICTURE_MOST bytes at
 * most; empty: it has none. What kind of picture it says that it is counts for nothing. May throw
 * std::bad_alloc. */
std::string reader_picture(TagLib::File* file);

#endif
