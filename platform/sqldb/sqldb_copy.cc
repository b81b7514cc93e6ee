#include "sqldb_copy.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

#include <veloran/lock.h>
#include <veloran/paths.h>
#include <veloran/sqldb.h>

#include "sqldb_place.h"

int32_t sqldb_copy_check(sqlite3* database) {
    std::string verdict;
    if (sqldb_sqlite_text(database, "PRAGMA quick_check(1)", &verdict) != 0) {
        return -1;
    }
    if (verdict != "ok") {
        errno = EBADMSG;
        return -1;
    }
    return 0;
}

int32_t sqldb_copy_settle(const std::string& path) {
    const vel_fd file(open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    return file.value < 0 ? -1 : fsync(file.value);
}

void sqldb_copy_discard(const std::string& path) {
    const int32_t error = errno;
    for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
        unlink((path + suffix).c_str());
    }
    errno = error;
}

static int32_t copy_pages(sqlite3* database, const std::string& path) {
    sqlite3_stmt* prepared = nullptr;
    int code = sqlite3_prepare_v2(database, "VACUUM INTO ?", -1, &prepared, nullptr);
    const sqldb_prepared owner(prepared);
    if (code == SQLITE_OK) {
        code = sqlite3_bind_text(prepared, 1, path.c_str(), -1, SQLITE_STATIC);
    }
    if (code == SQLITE_OK) {
        code = sqlite3_step(prepared);
    }
    if (code != SQLITE_DONE) {
        errno = sqldb_sqlite_errno(database, code);
        return -1;
    }
    return 0;
}

/* Reads the copy back: what the disk has taken wrongly shows here, not at the next damage. */
static int32_t check_copy(const std::string& path) {
    const sqldb_handle copy = sqldb_sqlite_open(path.c_str(), SQLITE_OPEN_READONLY);
    return copy == nullptr ? -1 : sqldb_copy_check(copy.get());
}

int32_t sqldb_copy_make(sqlite3* database, const std::string& path) {
    sqldb_copy_discard(path);
    if (copy_pages(database, path) != 0 || check_copy(path) != 0 || sqldb_copy_settle(path) != 0) {
        sqldb_copy_discard(path);
        return -1;
    }
    return 0;
}

std::string sqldb_copy_backup_path(const std::string& directory, const std::string& name) {
    return directory + '/' + name + ".db";
}

/* An unfinished file has a fixed name, so that none is ever left over: the lock of the directory
 * says whose it is. Others hold it as long as a copy takes. */
static int32_t lock_directory(int fd) {
    constexpr int32_t STEP_MS = 10;
    for (int32_t waited = 0; flock(fd, LOCK_EX | LOCK_NB) != 0; waited += STEP_MS) {
        if (errno != EWOULDBLOCK || waited >= SQLDB_BUSY_MS) {
            errno = errno == EWOULDBLOCK ? EBUSY : errno;
            return -1;
        }
        poll(nullptr, 0, STEP_MS);
    }
    return 0;
}

int32_t sqldb_copy_backup(sqlite3* database, const std::string& directory,
                          const std::string& name) {
    const std::string path = sqldb_copy_backup_path(directory, name);
    const std::string aside = path + ".new";
    if (paths_make_parents(path.c_str()) != 0) {
        return -1;
    }
    const vel_fd place(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (place.value < 0) {
        return -1;
    }
    if (lock_directory(place.value) != 0 || sqldb_copy_make(database, aside) != 0) {
        return -1;
    }
    if (rename(aside.c_str(), path.c_str()) != 0) {
        sqldb_copy_discard(aside);
        return -1;
    }
    return fsync(place.value);
}
