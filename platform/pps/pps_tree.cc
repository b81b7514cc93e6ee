#include "pps_tree.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <veloran/lock.h>
#include <veloran/pps.h>

#include "pps_stage.h"
#include "pps_target.h"

namespace {

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

int32_t pps_tree_make_directory(int32_t place, const char* name, uint32_t mode) noexcept {
    for (int32_t i = 0; i < TRIES; ++i) {
        if (mkdirat(place, name, mode) == 0) {
            return 0;
        }
        struct stat status;
        if (errno != EEXIST) {
            return -1;
        }
        if (fstatat(place, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode)) {
            break;
        }
        unlinkat(place, name, 0);
    }
    errno = EEXIST;
    return -1;
}

int32_t pps_mkdir(const char* path, uint32_t mode) noexcept {
    pps_target target;
    if (pps_target_parse(&target, path) != 0) {
        return -1;
    }
    const vel_fd place(pps_target_open_to_write(target.directory));
    return place.value < 0 ? -1 : pps_tree_make_directory(place.value, target.name, mode);
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
    int32_t result = unlinkat(place.value, target.name, AT_REMOVEDIR);
    if (result != 0 && errno == ENOTDIR) {
        result = unlinkat(place.value, target.name, 0);
    } else if (result != 0 && (errno == ENOTEMPTY || errno == EEXIST)) {
        result = pps_stage_take(place.value, target.name);
    }
    return result != 0 && errno == ENOENT ? 0 : result;
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
