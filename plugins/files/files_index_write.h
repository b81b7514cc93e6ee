/* Bringing the index up to date, from one thread. */
#ifndef LYRANE_FILES_INDEX_WRITE_H
#define LYRANE_FILES_INDEX_WRITE_H

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "files_index.h"
#include "files_reader_answer.h"

/* How many files that have gone are remembered. */
constexpr int32_t FILES_INDEX_GONE = 20000;

/* A file as the index has it. */
struct files_index_file {
    int64_t row = 0; /* 0: not yet */
    int32_t type = 0;
    int64_t size = 0;
    int64_t changed = 0;
};

/* An open index. Everything it does fails once `code` is not SQLITE_OK. */
struct files_index_writer {
    files_index_database database;
    files_index_statement list, insert, remove, remember, forget;
    int code = SQLITE_OK; /* the first failure */
    int32_t changes = 0;  /* since the last commit */
};

/* Opens the index and begins a change. False when it cannot be written, which has been logged. May
 * throw std::bad_alloc, as the others. */
bool files_index_write_begin(files_index* index, files_index_writer* writer);
/* Makes visible what was changed, and begins the next change. */
bool files_index_write_commit(files_index_writer* writer);

/* The files of a folder that the index has, by name. */
bool files_index_write_list(files_index_writer* writer, const std::string& folder,
                            std::map<std::string, files_index_file>* files);
/* Adds the folders below one that have files in the index; below "/": all. */
bool files_index_write_folders(files_index_writer* writer, const std::string& above,
                               std::set<std::string>* folders);

/* Enters a file in the place of what is there of it. */
bool files_index_write_put(files_index_writer* writer, const std::string& folder,
                           const std::string& name, const files_index_file& file,
                           const files_reader_found& found);
/* Removes a file, and remembers what it was like if it has gone. */
bool files_index_write_remove(files_index_writer* writer, int64_t row, bool gone);
/* Remembers a file that is not to be read while it is like that. */
bool files_index_write_unread(files_index_writer* writer, const std::string& folder,
                              const std::string& name, int64_t size, int64_t changed);
/* Forgets the oldest of those that have gone, or are not read, if they are too many. */
bool files_index_write_trim(files_index_writer* writer);

#endif
