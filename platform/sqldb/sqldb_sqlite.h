/* SQLite's handles with their owners, and its error codes as errno. */
#ifndef VELORAN_SQLDB_SQLITE_H
#define VELORAN_SQLDB_SQLITE_H

#include <cstdint>
#include <memory>
#include <string>

#include <sqlite3.h>

struct sqldb_close {
    void operator()(sqlite3* database) const noexcept { sqlite3_close_v2(database); }
};
using sqldb_handle = std::unique_ptr<sqlite3, sqldb_close>;

struct sqldb_finalize {
    void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
};
using sqldb_prepared = std::unique_ptr<sqlite3_stmt, sqldb_finalize>;

/* The errno that an error code of SQLite stands for; `database` may be null. */
int32_t sqldb_sqlite_errno(sqlite3* database, int code) noexcept;

/* Opens a database file; `flags` are SQLite's. Commits are synchronised, and others' transactions
 * waited for. Null with errno set; a file that is no database shows at the first access only. */
sqldb_handle sqldb_sqlite_open(const char* path, int flags) noexcept;

/* The same for reading and writing. Where the disk is full or nothing may be written, what is saved
 * can still be read: the database is opened for that alone, and *unwritable tells why, as an errno;
 * else it is 0. */
sqldb_handle sqldb_sqlite_open_saved(const char* path, int32_t* unwritable);

/* Whether a file begins as SQLite's do: 1, 0, or -1 with errno set. Nothing but SQLite itself may
 * open what may be open as a database: at the close the locks of the whole process on it would be
 * lost. */
int32_t sqldb_sqlite_has_header(const char* path) noexcept;

/* Runs a text of statements. 0, or -1 with errno set. */
int32_t sqldb_sqlite_run(sqlite3* database, const char* text) noexcept;

/* Runs the text of a schema file, which may make tables and indices and put plain values into them,
 * and nothing else: it is a file that somebody else may have written. 0, or -1 with errno set,
 * EACCES for anything else. The database has no authorizer afterwards. */
int32_t sqldb_sqlite_run_schema(sqlite3* database, const char* text) noexcept;

/* The text of the first column of the first row; empty without one. 0, or -1 with errno set. */
int32_t sqldb_sqlite_text(sqlite3* database, const char* statement, std::string* text);

#endif
