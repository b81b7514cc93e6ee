/* sqldb: small SQL databases under a name, kept in files of SQLite.
 *
 * The service side serves the databases that are asked for by configuration objects, the client
 * side opens one of them by its connection name "/dev/sqldb/NAME". They meet in the runtime root
 * (see <veloran/paths.h>) alone, so that they may be one process or two:
 *
 *   /pps/veloran/sqldb/config/NAME   written by who wants the database (see sqldb_service_start)
 *   /pps/veloran/sqldb/status/NAME   published by the service side: "Status::Valid" when the
 *                                    database can be opened, else "Status::Error" with "Reason::"
 *   /dev/sqldb/NAME                  written by the service side before "Status::Valid": a text
 *                                    file with the real paths, one attribute a line: "Filename::",
 *                                    "ClientSchemaFile::" and a "BackupDir::" for each directory
 *
 * A NAME is 1 to 64 bytes of letters, digits, '_', '-' and '.', and does not begin with '.'.
 *
 * Statements of one connection gather into one transaction, begun by the first one that writes,
 * committed by sqldb_commit, sqldb_backup and sqldb_disconnect, dropped by sqldb_rollback and by
 * the end of the process: what was written is there whole or not at all. The commit is synchronised
 * to the disk before it is reported. A statement that fails drops itself alone. When the system
 * lost the whole transaction (full disk, input/output error, out of memory), each further
 * statement, commit, backup and the disconnect fail with the errno of the loss until
 * sqldb_rollback, so that never a part of the statements is committed.
 *
 * Functions return 0 or what they say, or -1 (or null) with errno set: EINVAL a statement that SQL
 * or the interface refuses, EBUSY another connection writes (after SQLDB_BUSY_MS, or as
 * sqldb_set_patience says), EBADMSG a file that is damaged or no database, EROFS, ENOSPC, EEXIST a
 * constraint, EFBIG, EIO, ENOMEM, or the system's reason. [any thread]; a connection and its
 * results belong to one thread at a time. Nothing throws. All descriptors are close-on-exec. */
#ifndef VELORAN_SQLDB_H
#define VELORAN_SQLDB_H

#include <atomic>
#include <cstdint>

constexpr int32_t SQLDB_BUSY_MS = 5000;  /* how long a statement waits for another's transaction */
constexpr int32_t SQLDB_SCOPE_ALL = 2;   /* of sqldb_backup: the whole database */
constexpr int32_t SQLDB_NAME_MAX = 64;   /* bytes of a NAME */
constexpr int32_t SQLDB_PATH_MAX = 480;  /* bytes of a real path that SQLite takes */
constexpr int32_t SQLDB_SERVED_MAX = 64; /* databases of one service side */

/* An open database. */
struct sqldb_connection;
/* The rows of one statement, in the order of the database: a table of cells. */
struct sqldb_result;
/* The service side. */
struct sqldb_service;

/* How a service side is run. All null: a service side that says nothing. */
struct sqldb_service_options {
    /* Where default schema files lie, for those that are missing where the configuration says.
     * Null: the directory of the installation. $VELORAN_SQLDB_DEFAULTS goes before both. */
    const char* defaults;
    /* Told what somebody should know, one line without a line end; severities of
     * <veloran/slog.h>. [the service side's thread, and who starts or stops it] */
    void (*say)(void* user, int32_t severity, const char* text) noexcept;
    void* user;
    /* A database that this process wants for itself, and the text of its configuration: served from
     * the start to the end, whatever the object of that name holds. Null: none. */
    const char* own_name;
    const char* own_text;
    /* What its SchemaFile begins with when it is missing, among the defaults too. Null: nothing. */
    const char* own_schema;
};

extern "C" {

/* Opens a database by its connection name. `flags` must be 0 (EINVAL). ENOENT when no service side
 * serves the name. Where the disk is full or may not be written, what is saved can still be read,
 * and each statement that writes fails with ENOSPC, EDQUOT, EROFS or EACCES. The client schema
 * file, if there is one, is run on the new connection. The connection belongs to the caller. */
sqldb_connection* sqldb_connect(const char* name, uint32_t flags) noexcept;

/* How long a statement of this connection waits from now on while another connection writes:
 * `milliseconds`, and no longer once *give_up is true (null: never; it outlives the connection).
 * Without this call SQLDB_BUSY_MS. */
void sqldb_set_patience(sqldb_connection* connection, int32_t milliseconds,
                        const std::atomic<bool>* give_up) noexcept;

/* Commits what the statements wrote, closes and releases the connection, in any case. -1 with
 * errno when it could not be committed; then nothing of it is there. Accepts null. */
int32_t sqldb_disconnect(sqldb_connection* connection) noexcept;

/* Executes one statement. `format` knows these directives, and no others (EINVAL):
 *   %q    const char*: any bytes, each single quote doubled, for use between single quotes; null is
 *         the empty text
 *   %llu  unsigned long long: the signed 64-bit number of the same bits (2^64 - 1 is -1)
 *   %d    int
 *   %f    double, without loss and whatever the locale; EINVAL when it is no finite number
 *   %%    a per cent sign
 * The text must hold one statement, its semicolon may be missing (EINVAL). Statements that begin,
 * end or nest transactions and those that attach files are refused (EACCES). The rows, if any, are
 * kept for sqldb_getresult until the next statement. */
int32_t sqldb_statement(sqldb_connection* connection, const char* format, ...) noexcept;

/* The result of the last statement: a table, without columns for a statement that has none. It
 * belongs to the caller, also beyond the connection. Null with ENODATA when the last statement
 * failed or its result was taken already. */
sqldb_result* sqldb_getresult(sqldb_connection* connection) noexcept;
/* Releases a result. Accepts null. */
void sqldb_freeresult(sqldb_result* result) noexcept;

/* 0 for a null result. */
int64_t sqldb_rows(const sqldb_result* result) noexcept;
int32_t sqldb_columns(const sqldb_result* result) noexcept;

/* Cells, counted from 0. A cell outside the table counts as one without a value.
 *
 * The text of a cell, up to its first NUL; null when it holds none (a number, a blob, no value).
 * Borrowed from the result. */
const char* sqldb_cell(const sqldb_result* result, int64_t row, int32_t column) noexcept;
/* The integer of a cell, `otherwise` when it holds none. */
int64_t sqldb_cell_integer(const sqldb_result* result, int64_t row, int32_t column,
                           int64_t otherwise) noexcept;
/* The number of a cell, integer or real, `otherwise` when it holds none. */
double sqldb_cell_real(const sqldb_result* result, int64_t row, int32_t column,
                       double otherwise) noexcept;

/* Commits what the statements wrote and copies the database into each of its backup directories,
 * as NAME.db, and waits for the end of that. A copy is written aside, checked, synchronised and
 * renamed; until then an older one stays. Directories that are missing are made. `scope` is
 * SQLDB_SCOPE_ALL (EINVAL). -1 with the first errno when the commit or one of the copies failed;
 * after a failed commit nothing is copied, after a failed copy the other directories still get
 * theirs. EBUSY when another connection is just writing the same backup. */
int32_t sqldb_backup(sqldb_connection* connection, int32_t scope) noexcept;

/* Commits what the statements wrote; the connection stays open for the next transaction. -1 with
 * errno when it could not be committed; then nothing of it is there. */
int32_t sqldb_commit(sqldb_connection* connection) noexcept;

/* Drops what the statements wrote since the last commit. -1 with errno when that fails; then
 * nothing can be committed until it has been done. */
int32_t sqldb_rollback(sqldb_connection* connection) noexcept;

/* Starts the service side on a thread of its own ("sqldb"). `options` (null: none) and the texts
 * in it are copied. Status objects and connection names that an earlier one left behind are
 * withdrawn before it returns. EEXIST when the runtime root has a service side already.
 *
 * From then on each object below /pps/veloran/sqldb/config is served whose file belongs to the
 * service side's user (paths_user) or to root and cannot be written by others; any other one gets
 * the status Error. It is a text of the attributes
 *   Filename::         the database file; with SchemaFile the only one that must be there
 *   SchemaFile::       SQL that makes the tables; run when the database is made
 *   DataSchemaFile::   SQL that fills them; run after it
 *   ClientSchemaFile:: SQL that is run on each new connection
 *   BackupDir::        directories, separated by commas
 * (others are passed over; a NUL at the end and a missing last line end are no harm; it is looked
 * at again at each change). The paths are platform paths. A schema file that is missing is copied
 * from the defaults, by its last part; DataSchemaFile and ClientSchemaFile may be missing there
 * too. They may make tables and indices and insert plain values, and nothing else (EACCES).
 *
 * The database is checked: it must be whole and have the tables of SchemaFile, each beginning with
 * its columns in order; further tables and columns are left alone. One that is not, or is missing,
 * is replaced by the newest backup that is, else it is made anew; whatever stood in its place is
 * kept beside it as Filename.damaged (.damaged.1 up to .damaged.9; the last one gives way to the
 * next). What is not empty and does not begin as SQLite's files do is somebody else's: nothing is
 * touched, and the status becomes Error. Then the name is published and the status becomes Valid.
 * When it cannot be had at all, the status becomes Error, and the reason is said. When the object
 * goes, name and status are withdrawn; open connections stay.
 *
 * A status of the present configuration is certain for who writes the object before it starts the
 * service side of its own process. */
sqldb_service* sqldb_service_start(const sqldb_service_options* options) noexcept;

/* Ends the service side, withdraws all names and states, and releases it. Configuration objects
 * and open connections stay. Accepts null. */
void sqldb_service_stop(sqldb_service* service) noexcept;
}

#endif
