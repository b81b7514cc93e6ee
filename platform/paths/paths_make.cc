/* Making the directories of the name space. Everything goes through descriptors of the parent
 * directories, so that nobody can exchange a directory for a link between a check and its use. */
#include <veloran/paths.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <veloran/lock.h>

#include "paths_owner.h"

namespace {

constexpr mode_t PARENT_MODE = 0755;
constexpr mode_t RUNTIME_ROOT_MODE = 0755;
constexpr mode_t STATE_ROOT_MODE = 0700;

/* Opens the directory `name` below `parent`, after making it when it is missing. -1 with errno
 * set. */
int open_or_make(int parent, const char* name, mode_t mode, int flags) {
    const bool is_made = mkdirat(parent, name, paths_mode(mode)) == 0;
    if (!is_made && errno != EEXIST && errno != EROFS && errno != EACCES && errno != EPERM) {
        return -1;
    }
    const int mkdir_error = errno;
    const int fd = openat(parent, name, O_PATH | O_DIRECTORY | O_CLOEXEC | flags);
    if (fd < 0 && !is_made && mkdir_error != EEXIST && errno == ENOENT) {
        errno = mkdir_error; /* it is missing and may not be made: that is the reason to tell */
    }
    return fd;
}

/* Whether the first `length` bytes of a path name something below one of the roots. */
bool is_below_root(const char* path, size_t length) {
    for (const char* root : {paths_runtime_root(), paths_state_root()}) {
        const size_t root_length = strlen(root);
        if (root_length > 0 && length > root_length + 1 && strncmp(path, root, root_length) == 0 &&
            path[root_length] == '/') {
            return true;
        }
    }
    return false;
}

/* Whether a link in this directory may be followed on the way to a root that is made with root's
 * power: only one that root has put there. */
bool may_follow_in(int directory) {
    struct stat status;
    return geteuid() != 0 || (fstat(directory, &status) == 0 && status.st_uid == 0);
}

} // namespace

int32_t paths_open_parent(const char* path, const char** last) noexcept {
    if (strlen(path) >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    vel_fd directory(open(path[0] == '/' ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    const char* begin = path + strspn(path, "/");
    while (directory.value >= 0) {
        const size_t length = strcspn(begin, "/");
        if (begin[length + strspn(begin + length, "/")] == '\0') {
            *last = begin;
            return directory.release();
        }
        char name[NAME_MAX + 1];
        if (length > NAME_MAX) {
            errno = ENAMETOOLONG;
            return -1;
        }
        memcpy(name, begin, length);
        name[length] = '\0';
        const bool is_below = is_below_root(path, static_cast<size_t>(begin + length - path));
        if (is_below && strcmp(name, "..") == 0) {
            errno = EINVAL;
            return -1;
        }
        const int flags = is_below || !may_follow_in(directory.value) ? O_NOFOLLOW : 0;
        const int next = open_or_make(directory.value, name, PARENT_MODE, flags);
        if (next < 0) {
            return -1;
        }
        close(directory.value);
        directory.value = next;
        begin += length + strspn(begin + length, "/");
    }
    return -1;
}

namespace {

bool is_empty(int directory) {
    const int fd = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(fd < 0 ? nullptr : fdopendir(fd), closedir);
    if (listing == nullptr) {
        vel_fd unused(fd);
        return false;
    }
    while (const dirent* entry = readdir(listing.get())) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
            return false;
        }
    }
    return true;
}

int32_t refuse(const char** reason, const char* text) {
    *reason = text;
    errno = EPERM;
    return -1;
}

/* Looks whether an open root may be used, and lets the owner have one that is new: that is, empty,
 * whoever has made it. */
int32_t take_root(int root, const char** reason) {
    const paths_owner& owner = paths_owner_of_roots();
    struct stat status;
    if (fstat(root, &status) != 0) {
        return -1;
    }
    if ((status.st_mode & S_IWOTH) != 0) {
        return refuse(reason, "everybody may write in it; chmod o-w mends that");
    }
    if (owner.is_set && status.st_uid == owner.uid) {
        return 0;
    }
    if (status.st_uid != geteuid()) {
        return refuse(reason, "it belongs to another user");
    }
    if (!owner.is_set) {
        return 0;
    }
    if (!is_empty(root)) {
        return refuse(reason, "it is root's and not empty; chown -R gives it to the user");
    }
    return fchownat(root, "", owner.uid, owner.gid, AT_EMPTY_PATH);
}

int32_t make_root(const char* path, mode_t mode, const char** reason) {
    if (path[0] == '\0') {
        errno = ENAMETOOLONG;
        return -1;
    }
    const char* last = nullptr;
    const vel_fd parent(paths_open_parent(path, &last));
    if (parent.value < 0) {
        return -1;
    }
    if (last[0] == '\0') {
        last = "."; /* the root is "/" itself */
    }
    const vel_fd root(open_or_make(parent.value, last, mode, O_NOFOLLOW));
    if (root.value < 0) {
        errno = errno == ELOOP ? ENOTDIR : errno;
        return -1;
    }
    return take_root(root.value, reason);
}

} // namespace

int32_t paths_make_parents(const char* real_path) noexcept {
    const char* last = nullptr;
    const vel_fd parent(paths_open_parent(real_path, &last));
    return parent.value < 0 ? -1 : 0;
}

int32_t paths_make_roots(char* why, size_t size) noexcept {
    const struct {
        const char* path;
        mode_t mode;
    } wanted[] = {{paths_runtime_root(), RUNTIME_ROOT_MODE}, {paths_state_root(), STATE_ROOT_MODE}};
    for (const auto& root : wanted) {
        const char* reason = nullptr;
        if (make_root(root.path, root.mode, &reason) == 0) {
            continue;
        }
        const int error = errno;
        char text[128];
        if (why != nullptr && size > 0) {
            (void)snprintf(why, size, "\"%s\" (%s)", root.path,
                           reason != nullptr ? reason : strerror_r(error, text, sizeof text));
        }
        errno = error;
        return -1;
    }
    return 0;
}
