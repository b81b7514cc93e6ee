#include "pps_tree.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <veloran/lock.h>
#include <veloran/paths.h>
#include <veloran/pps.h>

#include "pps_stage.h"
#include "pps_target.h"

namespace {

/* What a player's objects and their updates take, and some more. */
constexpr fsblkcnt_t ROOM_BYTES = 256 * 1024;
constexpr fsfilcnt_t ROOM_FILES = 32;

/* Directories within each other that are removed; each takes a descriptor and some stack. Nobody
 * but a stranger with bad intentions nests deeper. */
constexpr int32_t REMOVE_DEPTH_MAX = 24;
constexpr int32_t PASSES_MAX = 16;
constexpr int32_t TRIES = 8; /* against somebody who keeps putting things in the way */

} // namespace

static int32_t remove_entry(int32_t place, const char* name, int32_t depth);

static bool is_self_or_parent(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

/* One pass over a directory: the number of entries removed; *error is the first failure. */
static int32_t remove_pass(DIR* listing, int32_t depth, int32_t* error) {
    int32_t removed = 0;
    while (const dirent* entry = readdir(listing)) {
        if (is_self_or_parent(entry->d_name)) {
            continue;
        }
        if (remove_entry(dirfd(listing), entry->d_name, depth) == 0) {
            ++removed;
        } else if (*error == 0 && errno != ENOENT) {
            *error = errno;
        }
    }
    return removed;
}

/* Empties a directory; takes over the descriptor, which must be one to read. */
static int32_t clear_directory(int32_t fd, int32_t depth) {
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(fdopendir(fd), closedir);
    if (listing == nullptr) {
        vel_fd unused(fd);
        return -1;
    }
    /* A listing may skip entries while others are removed, so passes go on until one is idle, or
     * somebody keeps adding. */
    int32_t error = 0;
    int32_t removed = 1;
    for (int32_t i = 0; i < PASSES_MAX && removed > 0; ++i) {
        error = 0;
        rewinddir(listing.get());
        removed = remove_pass(listing.get(), depth, &error);
    }
    errno = error;
    return error == 0 ? 0 : -1;
}

/* Opens a directory to list it, not through a link. */
static int32_t open_directory(int32_t place, const char* name) {
    return openat(place, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

static int32_t remove_entry(int32_t place, const char* name, int32_t depth) {
    if (unlinkat(place, name, 0) == 0) {
        return 0;
    }
    if (errno != EISDIR && errno != EPERM) {
        return -1;
    }
    if (unlinkat(place, name, AT_REMOVEDIR) == 0) {
        return 0;
    }
    if (errno != ENOTEMPTY && errno != EEXIST) {
        return -1;
    }
    if (depth == REMOVE_DEPTH_MAX) {
        errno = ELOOP;
        return -1;
    }
    const int32_t fd = open_directory(place, name);
    if (fd < 0 || clear_directory(fd, depth + 1) != 0) {
        return -1;
    }
    return unlinkat(place, name, AT_REMOVEDIR);
}

int32_t pps_tree_remove_entry(int32_t place, const char* name) noexcept {
    return remove_entry(place, name, 0);
}

/* 1 when a name stands for a directory of the service's user, not reached through a link, else 0;
 * -1 when it cannot be told. One of an earlier build, or of an open tree, loses the bits of the
 * mask. */
static int32_t is_own_directory(int32_t place, const char* name) {
    struct stat status;
    if (fstatat(place, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? 0 : -1;
    }
    if (!S_ISDIR(status.st_mode) || status.st_uid != paths_user()) {
        return 0;
    }
    const mode_t present = status.st_mode & 07777;
    if (paths_mode(present) == present) {
        return 1;
    }
    const vel_fd directory(open_directory(place, name));
    const bool is_narrowed = directory.value >= 0 && fstat(directory.value, &status) == 0 &&
                             status.st_uid == paths_user() &&
                             fchmod(directory.value, paths_mode(present)) == 0;
    return is_narrowed ? 1 : -1;
}

/* Gives a directory of the stage its name. What is in its place and not the user's is set aside. */
static int32_t put_in_place(int32_t stage, const char* staged, int32_t place, const char* name) {
    for (int32_t i = 0; i < TRIES; ++i) {
        if (renameat2(stage, staged, place, name, RENAME_NOREPLACE) == 0) {
            return 0;
        }
        if (errno != EEXIST) {
            return -1;
        }
        const int32_t is_own = is_own_directory(place, name);
        if (is_own != 0) {
            errno = is_own > 0 ? EEXIST : errno;
            return -1;
        }
        if (pps_stage_take(place, name) != 0 && errno != ENOENT) {
            return -1;
        }
    }
    errno = EBUSY;
    return -1;
}

/* Makes a directory in an opened place, as pps_mkdir does. */
static int32_t make_directory(int32_t place, const char* name, uint32_t mode) {
    if (is_own_directory(place, name) > 0) { /* the usual case of a service that comes again */
        errno = EEXIST;
        return -1;
    }
    char staged[PPS_STAGE_NAME];
    const int32_t stage = pps_stage_open();
    if (stage < 0 || pps_stage_make_directory(stage, staged, mode) != 0) {
        return -1;
    }
    const int32_t result = put_in_place(stage, staged, place, name);
    if (result != 0) {
        const int32_t error = errno;
        unlinkat(stage, staged, AT_REMOVEDIR);
        errno = error;
    }
    return result;
}

int32_t pps_mkdir(const char* path, uint32_t mode) noexcept {
    pps_target target;
    if (pps_target_parse(&target, path) != 0) {
        return -1;
    }
    const vel_fd place(pps_target_open_to_write(target.directory));
    return place.value < 0 ? -1 : make_directory(place.value, target.name, mode);
}

int32_t pps_rmdir(const char* path) noexcept {
    pps_target target;
    if (pps_target_parse(&target, path) != 0) {
        return -1;
    }
    const vel_fd place(pps_target_open_to_write(target.directory));
    if (place.value < 0) {
        return errno == ENOENT ? 0 : -1;
    }
    if (unlinkat(place.value, target.name, AT_REMOVEDIR) == 0 || errno == ENOENT ||
        pps_stage_take(place.value, target.name) == 0 || errno == ENOENT) {
        return 0;
    }
    const int32_t error = errno;
    if (is_own_directory(place.value, target.name) == 0) {
        return 0; /* somebody else's: ours has gone */
    }
    errno = error;
    return -1;
}

int32_t pps_check_room(void) noexcept {
    const vel_fd base(pps_target_open_base());
    struct statvfs room = {};
    if (base.value < 0 || fstatvfs(base.value, &room) != 0) {
        return -1;
    }
    const fsblkcnt_t blocks = geteuid() == 0 ? room.f_bfree : room.f_bavail;
    const fsfilcnt_t files = geteuid() == 0 ? room.f_ffree : room.f_favail;
    /* Some file systems have no number of blocks or of files. */
    if ((room.f_blocks != 0 && blocks * room.f_frsize < ROOM_BYTES) ||
        (room.f_files != 0 && files < ROOM_FILES)) {
        errno = ENOSPC;
        return -1;
    }
    return 0;
}

int32_t pps_unlink(const char* path) noexcept {
    pps_target target;
    if (pps_target_parse(&target, path) != 0) {
        return -1;
    }
    const vel_fd place(pps_target_open_to_write(target.directory));
    return place.value < 0 ? -1 : unlinkat(place.value, target.name, 0);
}

int32_t pps_clear_tree(const char* path) noexcept {
    pps_target target;
    if (pps_target_parse(&target, path) != 0) {
        return -1;
    }
    const vel_fd place(pps_target_open_to_write(target.directory));
    const int32_t fd = place.value < 0 ? -1 : open_directory(place.value, target.name);
    if (fd < 0) {
        return errno == ENOENT ? 0 : -1;
    }
    return clear_directory(fd, 0);
}
