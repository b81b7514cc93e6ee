/* Files that are not read again as long as they do not change, because reading them has killed or
 * stalled the reader. They are listed and played like others.
 *
 * What is a file's own fault stands in the index, too, where the scan writes it; what may have been
 * the drive's is forgotten with the process. */
#ifndef LYRANE_FILES_UNREAD_H
#define LYRANE_FILES_UNREAD_H

#include <cstdint>
#include <string>
#include <vector>

#include "files_index.h"
#include "files_source.h"

/* So many are remembered, here and in each index; then the oldest is forgotten. */
constexpr size_t FILES_UNREAD_MOST = 1000;

enum class files_unread_state { readable, for_now, lasting };

/* A file as it was when it was not read. */
struct files_unread_file {
    std::string id;
    int64_t size;    /* bytes */
    int64_t changed; /* files_index_time */
};

/* Takes over what the index of a source has, once; waits for the database. May throw
 * std::bad_alloc, as the others. [any thread] */
void files_unread_load(files_index* index);

/* What is known of a file that has this size and time of change. [any thread] */
files_unread_state files_unread_find(const files_source& source, const files_unread_file& file);

/* Remembers a file; `lasting` if that is its own fault. */
void files_unread_add(const files_source& source, const files_unread_file& file, bool lasting);

/* True when there are lasting ones of a source to be written to its index. */
bool files_unread_waiting(const files_source& source);

/* The lasting ones of a source that were not handed out so before: to be written to the index. */
std::vector<files_unread_file> files_unread_take(const files_source& source);

/* Forgets everything that is not in an index. */
void files_unread_forget() noexcept;

#endif
