/* Where a folder stands: in which mount of which file system.
 *
 * A path says little about that. When a drive has been pulled out, its path leads to the empty
 * folder below or to the next drive; who remembers the place of a path notices. */
#ifndef LYRANE_FILES_PLACE_H
#define LYRANE_FILES_PLACE_H

#include <cstdint>

#include <sys/types.h>

struct files_place {
    uint64_t mount = 0;  /* the kernel's number of the mount; 0: it does not tell */
    bool unique = false; /* the number is never given to another mount */
    dev_t device = 0;
};

/* Finds out where an open folder stands; O_PATH suffices. False with errno set. [any thread] */
bool files_place_of(int fd, files_place* place) noexcept;

bool files_place_same(const files_place& left, const files_place& right) noexcept;

/* The number that the mount table has for the mount of an open folder; 0: the kernel does not tell.
 * It may be given to another mount later. */
uint64_t files_place_table_id(int fd) noexcept;

#endif
