/* Looking something up in the index. */
#ifndef LYRANE_FILES_INDEX_SEARCH_H
#define LYRANE_FILES_INDEX_SEARCH_H

#include <cstdint>
#include <string>
#include <vector>

#include "files_index.h"
#include "files_listing.h"

/* Longest text that is searched for, in bytes, and how many words it may have. */
constexpr size_t FILES_SEARCH_MOST = 1024;
constexpr size_t FILES_SEARCH_WORDS = 32;

struct files_index_hit {
    std::string id;
    int32_t type; /* LYR_NODE_* */
};

/* Finds the tracks that have a word beginning with each of the text's words, without regard to case
 * and accents; `filter` says where: "name" (of the file), "title", "artist", "album", "genre", or
 * null or empty for any of these. Appends at most `most` tracks, beginning with that of number
 * `offset`, in the order in which the scan found them. False for another filter, a text that is too
 * long, and when it was cancelled. An index that is not there has no tracks. May throw
 * std::bad_alloc. */
bool files_index_search(files_index* index, const char* filter, const std::string& text,
                        int32_t offset, int32_t most, const files_cancel& cancel,
                        std::vector<files_index_hit>* hits);

/* True when the index knows of a file at an id, be it that it was there. May throw
 * std::bad_alloc. [any thread] */
bool files_index_remembers(const files_source& source, const std::string& id);

/* Finds where the file is that was at an id when the source was last looked through, by its size
 * and tags; one of the same name comes first. False when there is none. May throw std::bad_alloc.
 * [any thread] */
bool files_index_find_moved(const files_source& source, const std::string& id, std::string* now);

/* Calls for each row of a statement, with `read_lock` held by this; false when it was cancelled or
 * cannot be done. The values are bound to the statement's places in turn. May throw
 * std::bad_alloc. */
bool files_index_select(files_index* index, const char* text,
                        const std::vector<std::string>& values, const files_cancel& cancel,
                        void (*row)(sqlite3_stmt* statement, void* data), void* data);

#endif
