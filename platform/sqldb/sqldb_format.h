/* Formatting the text of a statement. */
#ifndef VELORAN_SQLDB_FORMAT_H
#define VELORAN_SQLDB_FORMAT_H

#include <cstdarg>
#include <cstdint>
#include <string>

/* Stores the text that `format` (the directives of sqldb_statement) makes of the arguments. 0, or
 * -1 with errno EINVAL for a directive that is none and a number that is none. */
int32_t sqldb_format(std::string* text, const char* format, va_list arguments);

/* Makes a template of a format: "?" for each directive, whose letters ('q', 'u' for %llu, 'd', 'f')
 * are stored in *kinds. A template is compiled once and takes the values as they are, which is
 * several times as fast. False, with *text in any state, when the format is not plainly one that
 * means the same this way: INSERT with each directive a value of its own, and no other literals. */
bool sqldb_format_template(std::string* text, std::string* kinds, const char* format);

#endif
