/* User and group ids of the -U option. */
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <veloran/lock.h>

#include "options.h"

namespace {

constexpr size_t BUFFER_MIN = 1024;
constexpr size_t BUFFER_MAX = 64 << 20; /* a group of millions of members is a broken database */

struct lookup_buffer {
    vel_text memory;
    size_t size;
};

bool resize(lookup_buffer* buffer, size_t size) {
    char* grown = static_cast<char*>(realloc(buffer->memory.get(), size));
    if (grown == nullptr) {
        return false;
    }
    (void)buffer->memory.release();
    buffer->memory.reset(grown);
    buffer->size = size;
    return true;
}

bool make_buffer(lookup_buffer* buffer) {
    size_t size = BUFFER_MIN;
    for (const int name : {_SC_GETPW_R_SIZE_MAX, _SC_GETGR_R_SIZE_MAX}) {
        const long suggested = sysconf(name);
        if (suggested > 0 && static_cast<size_t>(suggested) > size) {
            size = static_cast<size_t>(suggested);
        }
    }
    return resize(buffer, size);
}

/* The suggested size is a hint only: a group with many members needs more. */
bool wants_more(int error, lookup_buffer* buffer) {
    return error == ERANGE && buffer->size < BUFFER_MAX && resize(buffer, buffer->size * 2);
}

/* Look-ups: 1 found, 0 not there, -1 the database failed, with errno set. */
int outcome(int error, bool found) {
    if (found) {
        return 1;
    }
    if (error == 0 || error == ENOENT || error == ESRCH || error == EBADF || error == EPERM) {
        return 0;
    }
    errno = error;
    return -1;
}

int find_user(const char* name, lookup_buffer* buffer, passwd* entry) {
    passwd* found = nullptr;
    int error = 0;
    do {
        error = getpwnam_r(name, entry, buffer->memory.get(), buffer->size, &found);
    } while (error == EINTR || wants_more(error, buffer));
    return outcome(error, found != nullptr);
}

int find_group(const char* name, lookup_buffer* buffer, group* entry) {
    group* found = nullptr;
    int error = 0;
    do {
        error = getgrnam_r(name, entry, buffer->memory.get(), buffer->size, &found);
    } while (error == EINTR || wants_more(error, buffer));
    return outcome(error, found != nullptr);
}

/* A number as an id. The largest one is the system's "no id". False with errno set. */
bool number_id(const char* text, uint32_t* id) {
    *id = getval(text);
    if (errno != 0 || *id == UINT32_MAX) {
        errno = EINVAL;
        return false;
    }
    return true;
}

/* What a name that was not found may still be; `looked_up` is the outcome of the look-up. A
 * database that failed leaves its own error for a text that is no number either. */
bool id_without_name(int looked_up, const char* text, uint32_t* id) {
    const int database_error = errno;
    if (number_id(text, id)) {
        return true;
    }
    errno = looked_up < 0 ? database_error : EINVAL;
    return false;
}

/* The user field: the number of groups it brings along (0 or 1), or -1. */
int32_t take_user(const char* field, lookup_buffer* buffer, uid_t* uid, gid_t* groups,
                  int32_t capacity) {
    passwd entry = {};
    const int looked_up = find_user(field, buffer, &entry);
    if (looked_up <= 0) {
        return id_without_name(looked_up, field, uid) ? 0 : -1;
    }
    *uid = entry.pw_uid;
    if (capacity > 0) {
        groups[0] = entry.pw_gid;
    }
    return 1;
}

bool take_group(const char* field, lookup_buffer* buffer, gid_t* gid) {
    group entry = {};
    const int looked_up = find_group(field, buffer, &entry);
    if (looked_up <= 0) {
        return id_without_name(looked_up, field, gid);
    }
    *gid = entry.gr_gid;
    return true;
}

} // namespace

int32_t str2ids(const char* text, uid_t* uid, gid_t* groups, int32_t capacity) noexcept {
    if (text == nullptr || uid == nullptr || (groups == nullptr && capacity != 0)) {
        errno = EINVAL;
        return -1;
    }
    const vel_text copy(strdup(text));
    lookup_buffer buffer = {};
    if (copy == nullptr || !make_buffer(&buffer)) {
        errno = ENOMEM;
        return -1;
    }
    char* cursor = copy.get();
    const char* field = nextfield(&cursor, ':');
    int32_t count = take_user(field, &buffer, uid, groups, capacity);
    while (count >= 0 && (field = nextfield(&cursor, ',')) != nullptr) {
        gid_t gid = 0;
        if (!take_group(field, &buffer, &gid)) {
            return -1;
        }
        if (count == INT32_MAX) {
            errno = EOVERFLOW;
            return -1;
        }
        if (count < capacity) {
            groups[count] = gid;
        }
        count++;
    }
    return count;
}
