/* An opened media file. */
#ifndef LYRANE_READER_FILE_H
#define LYRANE_READER_FILE_H

#include <string>

#include <fileref.h>
#include <tpropertymap.h>

#include "reader_stream.h"

/* What TagLib knows of a file. */
struct reader_file {
    reader_stream stream; /* stands before what reads it, and goes after it */
    TagLib::FileRef tags; /* null: nothing can be read */
    TagLib::PropertyMap properties;
};

#endif
