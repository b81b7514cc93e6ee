/* Text from outside, made fit for a terminal.
 *
 * Names and tags may be any bytes. What a person gets to see is well-formed UTF-8 in which nothing
 * moves the cursor, changes colours or turns the reading direction round: such characters appear
 * escaped, bytes that are no UTF-8 as \xNN. Nothing here depends on the user's locale. */
#ifndef LYRACTL_TEXT_H
#define LYRACTL_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>

/* The text with control and direction characters escaped. */
std::string text_printable(std::string_view bytes);

/* A JSON document of one line, in UTF-8, with the same characters written as \uNNNN. */
std::string text_json(std::string_view document);

/* Columns that printable text takes on a terminal. */
int32_t text_width(std::string_view printable);

/* The beginning of printable text in at most `width` columns; what was cut ends in an ellipsis. */
std::string text_cut(std::string_view printable, int32_t width);

/* Printable text filled with blanks to `width` columns, on the left when `right` aligns it there.
 */
std::string text_pad(std::string_view printable, int32_t width, bool right);

/* Milliseconds as minutes and seconds, "3:07", or "1:02:03"; "-:--" below 0. */
std::string text_clock(int64_t milliseconds);

/* A time in seconds, "90", or with colons, "1:30", "1:02:03", as milliseconds; behind + or - it is
 * relative. False when it is none. */
bool text_position(std::string_view text, int64_t* milliseconds, bool* relative);

/* Whether two texts are equal, letter case of ASCII aside. */
bool text_same(std::string_view left, std::string_view right);

/* A whole decimal number, nothing around it. False when it is none or does not fit. */
bool text_number(std::string_view text, int64_t* number);

#endif
