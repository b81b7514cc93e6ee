/* Copies of a database that are proved whole before they count. */
#ifndef VELORAN_SQLDB_COPY_H
#define VELORAN_SQLDB_COPY_H

#include <cstdint>
#include <string>

#include "sqldb_sqlite.h"

/* Checks the structure of an open database. 0, or -1 with errno set, EBADMSG when it is damaged. */
int32_t sqldb_copy_check(sqlite3* database);

/* Makes a file durable; it must not be open
 * as a database in this process, whose locks on it would be lost. 0, or -1 with errno set. */
int32_t sqldb_copy_settle(const std::string& path);

/* Removes an unfinished file with what SQLite keeps beside it. errno stays. */
void sqldb_copy_discard(const std::string& path);

/* Copies what is committed in a database into the file `path`, whatever unfinished file is there,
 * checks and synchronises it. 0, or -1 with errno set; then no file is left. */
int32_t sqldb_copy_make(sqlite3* database, const std::string& path);

/* The file name of the backup of a database in a directory. */
std::string sqldb_copy_backup_path(const std::string& directory, const std::string& name);

/* Puts a new backup into a directory. 0, or -1 with errno set; then the older one is untouched. */
int32_t sqldb_copy_backup(sqlite3* database, const std::string& directory, const std::string& name);

#endif
