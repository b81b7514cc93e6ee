/* Text from outside, made safe to show in a log and on a terminal.
 *
 * Shown escaped: control characters (bytes below 0x20, 0x7F, and U+0080 to U+009F), the line and
 * paragraph separators, the byte order mark, and the marks that turn the reading direction. The
 * forms are \n, \r, \t, \xNN for other ASCII characters and for bytes that are no UTF-8, and
 * \u{NNNN}. A backslash stays as it is, so text that was escaped once does not change again.
 *
 * Nothing here allocates, takes a lock or depends on the locale: callable from a signal handler. */
#ifndef VELORAN_ESCAPE_H
#define VELORAN_ESCAPE_H

#include <cstddef>
#include <cstdint>

constexpr uint32_t ESCAPE_INVALID = 0xFFFFFFFF; /* a byte that is no UTF-8 */

struct escape_character {
    uint32_t code; /* Unicode code point, or ESCAPE_INVALID */
    size_t length; /* bytes it takes; 1 for ESCAPE_INVALID */
};

/* Options of escape_text. */
constexpr uint32_t ESCAPE_KEEP_LINES = 0x1; /* line feeds stay */
constexpr uint32_t ESCAPE_KEEP_BYTES = 0x2; /* bytes from 0xA0 that are no UTF-8 stay */

constexpr size_t ESCAPE_GROWTH = 4; /* escaped text is at most this many times as long */

extern "C" {

/* The first character of a text of at least one byte. Only the shortest form of a character that
 * exists is accepted. */
escape_character escape_first(const char* text, size_t length) noexcept;

/* True for the characters that are shown escaped. */
bool escape_needed(uint32_t code) noexcept;

/* Writes the text as it is to be shown into `room` bytes, without a NUL; stops before the first
 * character that does not fit. Returns the bytes written. */
size_t escape_text(char* shown, size_t room, const char* text, size_t length,
                   uint32_t options) noexcept;
}

#endif
