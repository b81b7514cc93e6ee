#include "sqldb_sqlite.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include <veloran/sqldb.h>

/* What could not be opened was tried again without writing, and what is told is that it is missing
 * then. The reason lies with the directory when the database itself is there. */
static int32_t opening_errno(sqlite3* database, int system) noexcept {
    const char* file = database != nullptr ? sqlite3_db_filename(database, "main") : nullptr;
    if (system > 0 && system != ENOENT) {
        return system;
    }
    if (file == nullptr || file[0] == '\0' || access(file, F_OK) != 0) {
        return ENOENT;
    }
    char directory[SQLDB_PATH_MAX + 1];
    const char* slash = strrchr(file, '/');
    const size_t length = slash == nullptr ? 0 : static_cast<size_t>(slash - file) + 1;
    if (length == 0 || length >= sizeof directory) {
        return ENOENT;
    }
    memcpy(directory, file, length);
    directory[length] = '\0';
    return access(directory, W_OK) == 0 ? ENOENT : errno;
}

int32_t sqldb_sqlite_errno(sqlite3* database, int code) noexcept {
    const int system = database != nullptr ? sqlite3_system_errno(database) : 0;
    switch (code & 0xFF) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return EBUSY;
    case SQLITE_NOMEM:
        return ENOMEM;
    case SQLITE_READONLY:
        return EROFS;
    case SQLITE_FULL:
        return ENOSPC;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        return EBADMSG;
    case SQLITE_CONSTRAINT:
        return EEXIST;
    case SQLITE_TOOBIG:
        return EFBIG;
    case SQLITE_PERM:
    case SQLITE_AUTH:
        return EACCES;
    case SQLITE_CANTOPEN:
        return opening_errno(database, system);
    case SQLITE_IOERR:
        return code == SQLITE_IOERR_NOMEM ? ENOMEM : system > 0 ? system : EIO;
    default:
        return EINVAL;
    }
}

static sqldb_handle open_with(const char* path, int flags, const char* setup,
                              const char* vfs = nullptr) noexcept {
    sqlite3* opened = nullptr;
    const int code =
        sqlite3_open_v2(path, &opened, flags | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE, vfs);
    sqldb_handle database(opened);
    if (code != SQLITE_OK) {
        errno = sqldb_sqlite_errno(opened, code);
        return nullptr;
    }
    sqlite3_busy_timeout(opened, SQLDB_BUSY_MS);
    return sqldb_sqlite_run(opened, setup) == 0 ? std::move(database) : nullptr;
}

sqldb_handle sqldb_sqlite_open(const char* path, int flags) noexcept {
    return open_with(path, flags, "PRAGMA synchronous=FULL");
}

/* A path as part of a URI. */
static std::string uri_of(const std::string& path) {
    std::string uri = "file:";
    for (const char letter : path) {
        const bool is_special = letter == '%' || letter == '?' || letter == '#';
        uri += is_special ? (letter == '%'   ? "%25"
                             : letter == '?' ? "%3f"
                                             : "%23")
                          : std::string(1, letter);
    }
    return uri;
}

/* Opens a database without making what its readers share beside it, for which there is no room or
 * no right, and so nobody else has it open; no lock is taken. What a crash has left in the journal
 * counts: only without one the file is taken as it is. */
static sqldb_handle open_alone(const std::string& path) {
    struct stat journal;
    if (stat((path + "-wal").c_str(), &journal) == 0 && journal.st_size > 0) {
        return open_with(path.c_str(), SQLITE_OPEN_READONLY,
                         "PRAGMA locking_mode=EXCLUSIVE; PRAGMA schema_version", "unix-none");
    }
    return open_with((uri_of(path) + "?immutable=1").c_str(),
                     SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, "PRAGMA schema_version");
}

sqldb_handle sqldb_sqlite_open_saved(const char* path, int32_t* unwritable) {
    *unwritable = 0;
    sqldb_handle database = sqldb_sqlite_open(path, SQLITE_OPEN_READWRITE);
    if (database != nullptr) {
        *unwritable = sqlite3_db_readonly(database.get(), "main") > 0 ? EROFS : 0;
        return database;
    }
    /* A lock for writing cannot be had of a descriptor that only reads. */
    const int32_t error = errno == EBADF ? EROFS : errno;
    for (const int32_t kind : {EROFS, EACCES, EPERM, ENOSPC, EDQUOT}) {
        if (error == kind) {
            *unwritable = error;
            database = open_alone(path);
        }
    }
    errno = error;
    return database;
}

int32_t sqldb_sqlite_has_header(const char* path) noexcept {
    constexpr char HEADER[16] = "SQLite format 3";
    sqlite3* opened = nullptr;
    sqlite3_file* file = nullptr;
    char start[sizeof HEADER] = {};
    int code = sqlite3_open_v2(path, &opened, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    const sqldb_handle database(opened);
    if (code == SQLITE_OK) {
        code = sqlite3_file_control(opened, "main", SQLITE_FCNTL_FILE_POINTER, &file);
    }
    if (code == SQLITE_OK) {
        code = file->pMethods->xRead(file, start, sizeof start, 0);
    }
    if (code != SQLITE_OK && code != SQLITE_IOERR_SHORT_READ) {
        errno = sqldb_sqlite_errno(opened, code);
        return -1;
    }
    return memcmp(start, HEADER, sizeof HEADER) == 0 ? 1 : 0;
}

int32_t sqldb_sqlite_run(sqlite3* database, const char* text) noexcept {
    const int code = sqlite3_exec(database, text, nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) {
        errno = sqldb_sqlite_errno(database, code);
        return -1;
    }
    return 0;
}

/* Making a table or an index also writes to SQLite's own list of them. */
static int authorize_schema(void*, int action, const char* table, const char*, const char*,
                            const char*) noexcept {
    switch (action) {
    case SQLITE_CREATE_TABLE:
    case SQLITE_CREATE_INDEX:
    case SQLITE_REINDEX:
    case SQLITE_INSERT:
    case SQLITE_READ: /* of the columns of an index or a check; SELECT is another action */
        return SQLITE_OK;
    case SQLITE_UPDATE:
        return table != nullptr && strcmp(table, "sqlite_master") == 0 ? SQLITE_OK : SQLITE_DENY;
    default:
        return SQLITE_DENY;
    }
}

int32_t sqldb_sqlite_run_schema(sqlite3* database, const char* text) noexcept {
    const int attached = sqlite3_limit(database, SQLITE_LIMIT_ATTACHED, 0);
    sqlite3_set_authorizer(database, authorize_schema, nullptr);
    const int32_t result = sqldb_sqlite_run(database, text);
    sqlite3_set_authorizer(database, nullptr, nullptr);
    (void)sqlite3_limit(database, SQLITE_LIMIT_ATTACHED, attached);
    return result;
}

int32_t sqldb_sqlite_text(sqlite3* database, const char* statement, std::string* text) {
    sqlite3_stmt* prepared = nullptr;
    int code = sqlite3_prepare_v2(database, statement, -1, &prepared, nullptr);
    const sqldb_prepared owner(prepared);
    text->clear();
    if (code == SQLITE_OK) {
        code = sqlite3_step(prepared);
    }
    if (code == SQLITE_ROW) {
        const unsigned char* cell = sqlite3_column_text(prepared, 0);
        for (; cell != nullptr && *cell != '\0'; ++cell) {
            text->push_back(static_cast<char>(*cell));
        }
        return 0;
    }
    if (code == SQLITE_DONE) {
        return 0;
    }
    errno = sqldb_sqlite_errno(database, code);
    return -1;
}
