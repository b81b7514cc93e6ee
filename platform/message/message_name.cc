/* Names: the socket files that clients connect to, and the locks that decide who serves them.
 *
 * Beside the socket "x" stands the lock file ".x.lock". Its holder binds ".x.new", gives it owner
 * and mode, listens, and renames it to "x": at no moment can a client meet a socket with other
 * rights, or a name that nobody serves although its server lives. */
#include "message_channel.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <veloran/paths.h>

namespace {

constexpr int BACKLOG = 128;
constexpr size_t LEAF_MAX = MESSAGE_LEAF_MAX;
constexpr int CLAIM_TRIES = 16;

/* Opens the folder of a name, made if need be, and copies the last part of the path. */
int open_folder(const char* path, char* leaf, bool make) {
    char real[PATH_MAX];
    if (paths_resolve(path, real, sizeof real) < 0 || (make && paths_make_parents(real) != 0)) {
        return -1;
    }
    char* slash = strrchr(real, '/');
    if (slash == nullptr || slash[1] == '\0' || strlen(slash + 1) > LEAF_MAX) {
        errno = slash == nullptr || slash[1] == '\0' ? EINVAL : ENAMETOOLONG;
        return -1;
    }
    memcpy(leaf, slash + 1, strlen(slash + 1) + 1);
    slash[slash == real ? 1 : 0] = '\0';
    return open(real, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

/* "." + leaf + suffix. */
void beside(char (&name)[LEAF_MAX + 16], const char* leaf, const char* suffix) {
    snprintf(name, sizeof name, ".%.*s%.14s", static_cast<int>(LEAF_MAX), leaf, suffix);
}

/* Opens and locks the lock file. A server that ends removes it, so the file that was locked must
 * still be the one of that name. */
int lock_once(int folder, const char* name) {
    vel_fd lock(openat(folder, name, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (lock.value < 0) {
        return -1;
    }
    if (flock(lock.value, LOCK_EX | LOCK_NB) != 0) {
        errno = errno == EWOULDBLOCK ? EEXIST : errno;
        return -1;
    }
    struct stat locked;
    struct stat named;
    if (fstat(lock.value, &locked) != 0) {
        return -1;
    }
    if (fstatat(folder, name, &named, AT_SYMLINK_NOFOLLOW) != 0 || named.st_ino != locked.st_ino ||
        named.st_dev != locked.st_dev) {
        errno = EAGAIN;
        return -1;
    }
    return lock.release();
}

/* A bound socket of a file in a folder; the address goes through the descriptor, so that the
 * folder's path may be longer than an address. */
int bind_in(int folder, const char* name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const int length =
        snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", folder, name);
    if (length < 0 || static_cast<size_t>(length) >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    vel_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd.value < 0 ||
        bind(fd.value, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return -1;
    }
    return fd.release();
}

/* Is the name free, or taken by a socket that nobody serves any more (we hold the lock)? */
bool replaceable(int folder, const char* leaf) {
    struct stat present;
    if (fstatat(folder, leaf, &present, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT;
    }
    if (!S_ISSOCK(present.st_mode)) {
        errno = EEXIST;
        return false;
    }
    return true;
}

/* Binds, gives rights, listens, and puts the socket in its place. */
int open_listener(message_name* name, mode_t mode, uid_t uid, gid_t gid) {
    char fresh[LEAF_MAX + 16];
    beside(fresh, name->leaf, ".new");
    (void)unlinkat(name->dir_fd, fresh, 0);
    if (!replaceable(name->dir_fd, name->leaf)) {
        return -1;
    }
    vel_fd fd(bind_in(name->dir_fd, fresh));
    if (fd.value < 0) {
        return -1;
    }
    struct stat made;
    const bool owner_asked = uid != static_cast<uid_t>(-1) || gid != static_cast<gid_t>(-1);
    if ((owner_asked && fchownat(name->dir_fd, fresh, uid, gid, AT_SYMLINK_NOFOLLOW) != 0) ||
        fchmodat(name->dir_fd, fresh, mode, 0) != 0 || listen(fd.value, BACKLOG) != 0 ||
        fstatat(name->dir_fd, fresh, &made, AT_SYMLINK_NOFOLLOW) != 0 ||
        renameat(name->dir_fd, fresh, name->dir_fd, name->leaf) != 0) {
        const int error = errno;
        (void)unlinkat(name->dir_fd, fresh, 0);
        errno = error;
        return -1;
    }
    name->device = made.st_dev;
    name->inode = made.st_ino;
    return fd.release();
}

bool watch(message_channel* channel, int fd, int32_t index) {
    epoll_event entry{};
    entry.events = EPOLLIN;
    entry.data.u64 = MESSAGE_ENTRY_NAME | static_cast<uint32_t>(index);
    return epoll_ctl(channel->epoll_fd, EPOLL_CTL_ADD, fd, &entry) == 0;
}

} // namespace

void message_name_remove(message_name* name) noexcept {
    struct stat present;
    if (name->listen_fd >= 0) {
        if (fstatat(name->dir_fd, name->leaf, &present, AT_SYMLINK_NOFOLLOW) == 0 &&
            present.st_ino == name->inode && present.st_dev == name->device) {
            (void)unlinkat(name->dir_fd, name->leaf, 0);
        }
        /* Also when a forked child holds a copy, nobody must wait in the backlog. */
        (void)shutdown(name->listen_fd, SHUT_RDWR);
    }
    if (name->dir_fd >= 0 && name->lock_fd >= 0) {
        char lock[LEAF_MAX + 16];
        beside(lock, name->leaf, ".lock");
        (void)unlinkat(name->dir_fd, lock, 0);
    }
    message_close(&name->listen_fd);
    message_close(&name->dir_fd);
    message_close(&name->lock_fd);
    *name = message_name{};
}

bool message_name_listen(message_name* name, const char* path, int lock, mode_t mode, uid_t uid,
                         gid_t gid) noexcept {
    char leaf[LEAF_MAX + 1];
    name->lock_fd = lock;
    name->dir_fd = open_folder(path, leaf, false);
    if (name->dir_fd < 0) {
        return false;
    }
    memcpy(name->leaf, leaf, strlen(leaf) + 1);
    name->listen_fd = open_listener(name, mode, uid, gid);
    return name->listen_fd >= 0;
}

extern "C" {

int32_t message_name_claim(const char* path) noexcept {
    char leaf[LEAF_MAX + 1];
    char name[LEAF_MAX + 16];
    for (int tries = 0; tries < CLAIM_TRIES; ++tries) {
        vel_fd folder(open_folder(path, leaf, true));
        if (folder.value < 0) {
            return -1;
        }
        beside(name, leaf, ".lock");
        const int lock = lock_once(folder.value, name);
        if (lock >= 0 || errno != EAGAIN) {
            return lock;
        }
    }
    errno = EEXIST;
    return -1;
}

int32_t message_name_attach(message_channel* channel, const char* path, int32_t lock, mode_t mode,
                            uid_t uid, gid_t gid) noexcept {
    message_name name;
    const bool listening = message_name_listen(&name, path, lock, mode, uid, gid);
    int error = listening ? ENOSPC : errno;
    if (listening) {
        vel_lock_guard guard(channel->lock);
        for (int32_t i = 0; i < MESSAGE_NAMES_MAX; ++i) {
            if (channel->names[i].listen_fd < 0) {
                if (!watch(channel, name.listen_fd, i)) {
                    error = errno;
                    break;
                }
                channel->names[i] = name;
                return i;
            }
        }
    }
    message_name_remove(&name);
    errno = error;
    return -1;
}

void message_name_detach_all(message_channel* channel) noexcept {
    vel_lock_guard guard(channel->lock);
    for (message_name& name : channel->names) {
        if (name.listen_fd >= 0) {
            (void)epoll_ctl(channel->epoll_fd, EPOLL_CTL_DEL, name.listen_fd, nullptr);
            message_name_remove(&name);
        }
    }
}
}
