/* The command line. */
#ifndef LYRANE_OPTIONS_H
#define LYRANE_OPTIONS_H

#include <cstdint>

#include <sys/types.h>

#include "control.h"

extern "C" {

/* Zeroes the control block, initialises its locks, sets the defaults and then what the command
 * line says. Ends the process with status 1 on an unknown option or a missing argument, with the
 * option's message on a bad value. */
void options(int argc, char** argv, control_block* control) noexcept;

/* An unsigned 32-bit number in decimal, hexadecimal (0x) or octal (0) notation; white space may
 * stand before it, nothing behind it. errno becomes 0, EINVAL or ERANGE. */
uint32_t getval(const char* text) noexcept;

/* "user[:group,group,...]" by name or number. Stores the user's id and up to `capacity` group ids,
 * the primary group of a user found by name first. The number of groups found, or -1 with errno
 * EINVAL, EOVERFLOW or ENOMEM. */
int32_t str2ids(const char* text, uid_t* uid, gid_t* groups, int32_t capacity) noexcept;

/* The next field of *cursor up to `delimiter`, white space around it cut off in place; null when
 * there is no more. */
char* nextfield(char** cursor, char delimiter) noexcept;
}

#endif
