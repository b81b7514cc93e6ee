/* The drives of the mount table.
 *
 * A drive is a file system on a block device, mounted at a configured place or anywhere below one.
 * The file system that the system itself stands on is none, nor is a part of a file system that is
 * mounted somewhere as a whole (a bind mount of a folder). */
#ifndef LYRANE_FILES_MOUNTS_H
#define LYRANE_FILES_MOUNTS_H

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

/* The table of the mounts that this process sees. */
constexpr const char* FILES_MOUNTS_TABLE = "/proc/self/mountinfo";

struct files_mount {
    std::string root;   /* where it is mounted: an absolute path without symbolic links */
    std::string device; /* what the table has as its device */
    std::string type;   /* of the file system */
    dev_t file_system;  /* the number under which the table has the file system */
    uint64_t id;        /* of the mount; see files_place_table_id */
    bool whole;         /* its top is the file system's top */
};

/* The drives of the table in a file, whole ones first, else in the order of the table. A file
 * system that is mounted twice is there twice, and so is one that another mount covers. False when
 * the table cannot be read. May throw std::bad_alloc. [any thread] */
bool files_mounts_read(const char* table, const std::vector<std::string>& places,
                       std::vector<files_mount>* drives);

/* What the system mounts by itself, if it is told in the usual place. */
constexpr const char* FILES_MOUNTS_PLAN = "/etc/fstab";

/* True when a folder, or one above it, is the place of a mount that is planned and not there: what
 * is found at its path now is not what is meant by it. False when a file cannot be read. May throw
 * std::bad_alloc. [any thread] */
bool files_mounts_awaited(const char* plan, const char* table, const std::string& folder);

#endif
