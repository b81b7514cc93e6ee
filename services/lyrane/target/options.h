/* The command line. */
#ifndef LYRANE_OPTIONS_H
#define LYRANE_OPTIONS_H

#include <cstdint>

#include <sys/types.h>

#include "control.h"

extern "C" {

/* Zeroes the control block, initialises its locks, sets the defaults and then what the command
 * line says; strings of `argv` are borrowed for good. Parsing stops at the first operand, operands
 * are ignored. Ends the process with status 1 on an unknown option or a missing argument (with the
 * parser's diagnostic), and with the option's message on a bad value. [main], before any thread */
void options(int argc, char** argv, control_block* control) noexcept;

/* An unsigned 32-bit number in decimal, hexadecimal (0x) or octal (0) notation; white space and a
 * sign may stand before it, nothing behind it. errno becomes 0, EINVAL when the text is no
 * complete number, or ERANGE when it is above 32 bits or below 0; the value is then 0. */
uint32_t getval(const char* text) noexcept;

/* "user[:group,group,...]" by name or number; blanks around a field do not count. Stores the
 * user's id and up to `capacity` group ids, the primary group of a user found by name first. The
 * number of groups found, which may exceed the capacity, or -1 with errno EINVAL (a name that
 * nobody has, an id that is none), EOVERFLOW, ENOMEM or the error of the user database. */
int32_t str2ids(const char* text, uid_t* uid, gid_t* groups, int32_t capacity) noexcept;

/* The next field of *cursor up to `delimiter`, white space around it cut off in place; the field
 * may be empty. *cursor moves behind the delimiter and becomes null with the last field; null
 * when it was null. */
char* nextfield(char** cursor, char delimiter) noexcept;
}

#endif
