/* What a drive is called, and what tells it from all others.
 *
 * The UUID of a file system is asked for in several places, because some are closed to a service
 * that is not root or missing on a small system; all of them give the same text. */
#ifndef LYRANE_FILES_MOUNTS_IDENTITY_H
#define LYRANE_FILES_MOUNTS_IDENTITY_H

#include <string>

#include "files_mounts.h"

struct files_identity {
    std::string uid;  /* the same wherever and whenever the drive is plugged in */
    std::string name; /* its label, else the last part of the path where it is mounted */
};

/* Reads from the drive, so it takes the drive's time. May throw std::bad_alloc. */
files_identity files_mounts_identify(const files_mount& mount);

#endif
