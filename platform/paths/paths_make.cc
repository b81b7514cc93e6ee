/* Making the directories of the name space. Everything goes through descriptors of the parent
 * directories, so that nobody can exchange a directory for a link between a check and its use. */
#include <veloran/paths.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <veloran/lock.h>

namespace {

/* Written before any other thread exists. */
struct {
    bool set;
    uid_t uid;
    gid_t gid;
} owner;

constexpr mode_t PARENT_MODE = 0755;
constexpr mode_t RUNTIME_ROOT_MODE = 0755;
constexpr mode_t STATE_ROOT_MODE = 0700;

/* Opens the directory `name` below `parent`, after making it when it is missing. `*made` tells
 * which. -1 with errno set. */
int open_or_make(int parent, const char* name, mode_t mode, int flags, bool* made) {
    *made = mkdirat(parent, name, paths_mode(mode)) == 0;
    if (!*made && errno != EEXIST && errno != EROFS && errno != EACCES && errno != EPERM) {
        return -1;
    }
    const int mkdir_error = errno;
    const int fd = openat(parent, name, O_PATH | O_DIRECTORY | O_CLOEXEC | flags);
    if (fd < 0 && !*made && mkdir_error != EEXIST && errno == ENOENT) {
        errno = mkdir_error; /* it is missing and may not be made: that is the reason to tell */
    }
    return fd;
}

int32_t give(int parent, const char* name) {
    if (!owner.set) {
        return 0;
    }
    return fchownat(parent, name, owner.uid, owner.gid, AT_SYMLINK_NOFOLLOW);
}

/* Gives what a descriptor of O_PATH stands for, if it is root's. 0, or -1 with errno set. */
int32_t give_own(int fd, const struct stat& status) {
    const bool is_due = owner.set && status.st_uid == geteuid() &&
                        (status.st_uid != owner.uid || status.st_gid != owner.gid);
    return is_due ? fchownat(fd, "", owner.uid, owner.gid, AT_EMPTY_PATH) : 0;
}

/* Gives a directory that was there already. False when it is reached through a link: what lies
 * behind it is nobody's to give. One that cannot be given shows when it is used. */
bool give_existing(int parent, const char* name) {
    const vel_fd directory(openat(parent, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    if (directory.value < 0 || fstat(directory.value, &status) != 0) {
        return false;
    }
    (void)give_own(directory.value, status);
    return true;
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

/* Opens the directory that holds the last component of `path`, making what is missing on the way,
 * and stores where that component begins. -1 with errno set. */
int open_parent(const char* path, const char** last) {
    if (strlen(path) >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    vel_fd directory(open(path[0] == '/' ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    const char* begin = path + strspn(path, "/");
    bool is_ours = owner.set;
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
        bool made = false;
        vel_fd next(open_or_make(directory.value, name, PARENT_MODE, 0, &made));
        if (next.value < 0 || (made && give(directory.value, name) != 0)) {
            return -1;
        }
        if (is_ours && !made && is_below_root(path, static_cast<size_t>(begin + length - path))) {
            is_ours = give_existing(directory.value, name);
        }
        const int old = directory.value;
        directory.value = next.release();
        close(old);
        begin += length + strspn(begin + length, "/");
    }
    return -1;
}

int32_t make_root(const char* path, mode_t mode) {
    if (path[0] == '\0') {
        errno = ENAMETOOLONG;
        return -1;
    }
    const char* last = nullptr;
    const vel_fd parent(open_parent(path, &last));
    if (parent.value < 0) {
        return -1;
    }
    if (last[0] == '\0') {
        last = "."; /* the root is "/" itself */
    }
    bool made = false;
    const vel_fd root(open_or_make(parent.value, last, mode, O_NOFOLLOW, &made));
    struct stat status = {};
    if (root.value < 0 || fstat(root.value, &status) != 0) {
        errno = errno == ELOOP ? ENOTDIR : errno;
        return -1;
    }
    const bool is_ours = status.st_uid == geteuid() || (owner.set && status.st_uid == owner.uid);
    if (!is_ours || (status.st_mode & S_IWOTH) != 0) {
        errno = EPERM;
        return -1;
    }
    const bool is_given = status.st_uid == owner.uid && status.st_gid == owner.gid;
    return is_given ? 0 : give(parent.value, last);
}

} // namespace

void paths_set_owner(uid_t uid, gid_t gid) noexcept {
    owner.set = geteuid() == 0;
    owner.uid = uid;
    owner.gid = gid;
}

uid_t paths_user(void) noexcept {
    /* An identity that cannot be is not taken, and the present one is told. */
    return owner.set ? owner.uid : static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1)));
}

int32_t paths_hand_over(int fd) noexcept {
    return owner.set ? fchown(fd, owner.uid, owner.gid) : 0;
}

int32_t paths_hand_over_file(const char* real_path) noexcept {
    if (!owner.set) {
        return 0;
    }
    const char* last = nullptr;
    const vel_fd parent(open_parent(real_path, &last));
    struct stat directory;
    if (parent.value < 0 || fstat(parent.value, &directory) != 0) {
        return -1;
    }
    const vel_fd file(openat(parent.value, last, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    if (file.value < 0 || fstat(file.value, &status) != 0) {
        return -1;
    }
    const bool may_be_given =
        S_ISREG(status.st_mode) && status.st_nlink == 1 && directory.st_uid == owner.uid;
    return may_be_given ? give_own(file.value, status) : 0;
}

int32_t paths_make_parents(const char* real_path) noexcept {
    const char* last = nullptr;
    const vel_fd parent(open_parent(real_path, &last));
    return parent.value < 0 ? -1 : 0;
}

int32_t paths_make_roots(char* failed, size_t size) noexcept {
    const struct {
        const char* path;
        mode_t mode;
    } wanted[] = {{paths_runtime_root(), RUNTIME_ROOT_MODE}, {paths_state_root(), STATE_ROOT_MODE}};
    for (const auto& root : wanted) {
        if (make_root(root.path, root.mode) == 0) {
            continue;
        }
        if (failed != nullptr && size > 0) {
            const size_t length = strnlen(root.path, size - 1);
            memcpy(failed, root.path, length);
            failed[length] = '\0';
        }
        return -1;
    }
    return 0;
}
