/* The text of the configuration file without comments and indentation, and the way back from a
 * place in it to the place in the file. */
#ifndef LYRANE_CONFIG_TEXT_H
#define LYRANE_CONFIG_TEXT_H

#include <cstddef>
#include <cstdint>

/* Where a piece of the text came from. */
struct config_piece {
    size_t offset;  /* in the text, bytes */
    int32_t line;   /* in the file, from 1 */
    int32_t column; /* bytes, from 1 */
};

struct config_text {
    char* text; /* owned, NUL-terminated */
    size_t length;
    size_t capacity;
    config_piece* pieces; /* owned, ascending */
    int32_t piece_count;
    int32_t piece_capacity;
};

/* Reads a file into a zeroed record. The file is taken in pieces: a line, or 2,048 bytes of a
 * longer one. Of each piece the leading white space is dropped, and the whole of it when nothing
 * else is left or a '#' comes first. 0, or -1 with errno set: no such file, a directory, an error
 * while reading, no memory. [main] */
int32_t config_text_read(config_text* text, const char* path) noexcept;

/* Turns line and column of the text (from 1) into those of the file. */
void config_text_locate(const config_text* text, int32_t* line, int32_t* column) noexcept;

void config_text_free(config_text* text) noexcept;

/* A decimal number at the start of a text, white space and a sign before it allowed; 0 when there
 * is none, the nearest number of 32 bits when it is out of range. */
int32_t config_number(const char* text) noexcept;

#endif
