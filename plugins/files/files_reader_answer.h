/* What the reader found in a file, and how it is written down for the way to the plug-in. */
#ifndef LYRANE_FILES_READER_ANSWER_H
#define LYRANE_FILES_READER_ANSWER_H

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "files_reader_message.h"

/* What is asked of a file. */
struct files_reader_wish {
    uint32_t wanted; /* FILES_READ_* */
    uint32_t keys;   /* of FILES_READER_KEYS, with FILES_READ_KEYS */
};

struct files_reader_found {
    int32_t duration = 0; /* ms */
    int32_t disc = 0;
    int32_t track = 0;
    std::string title, artist, album, genre, year, album_artist; /* FILES_TAG_MOST at most */
    std::string picture;                                         /* FILES_PICTURE_MOST at most */
    std::array<std::string, FILES_READER_KEY_COUNT> values;      /* FILES_TAG_EXTENDED_MOST */
    std::vector<std::string> locations;
};

/* [reader] Writes down what was wished for. May throw std::bad_alloc. */
std::string files_reader_answer_write(const files_reader_wish& wish,
                                      const files_reader_found& found);

/* [plug-in] Takes apart bytes that may be anything; false when they are no answer to the wish. No
 * text of `found` is longer than it may be or has a NUL, and no number is negative. May throw
 * std::bad_alloc. */
bool files_reader_answer_take(std::string_view bytes, const files_reader_wish& wish,
                              files_reader_found* found);

#endif
