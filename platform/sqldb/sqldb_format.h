/* Formatting the text of a statement. */
#ifndef VELORAN_SQLDB_FORMAT_H
#define VELORAN_SQLDB_FORMAT_H

#include <cstdarg>
#include <cstdint>
#include <string>

/* Stores the text that `format` (the directives of sqldb_statement) makes of the arguments. 0, or
 * -1 with errno EINVAL for a directive that is none and a number that is none. */
int32_t sqldb_format(std::string* text, const char* format, va_list arguments);

#endif
