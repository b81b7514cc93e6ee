#include "ppsdir.h"

#include <cerrno>
#include <climits>

#include <fcntl.h>
#include <sys/file.h>

#include <veloran/paths.h>
#include <veloran/pps.h>

#include "msglog.h"
#include "ppsnode.h"

namespace {

constexpr const char* ROOT_PATH = "/pps/services/lyrane";
constexpr uint32_t ROOT_MODE = 0777;
constexpr int32_t FATAL = 2; /* log level */
constexpr const char* CREATE_OPTION = "nopersist";

} // namespace

static lyr_ppsdir* refuse(int32_t* error, int32_t number) {
    if (error != nullptr) {
        *error = number;
    }
    errno = number;
    return nullptr;
}

/* Makes the directory of a node that nothing links to yet; `level` is that of a failure's line. 0
 * or the error number. */
static int32_t make_directory(lyr_ppsnode* node, uint32_t mode, int32_t level) {
    const vel_text path = ppsnode_path(node, CREATE_OPTION);
    if (path == nullptr) {
        return ENOMEM;
    }
    if (pps_mkdir(path.get(), mode) == 0) {
        node->kind = ppsnode_kind::created;
        if (node->parent == nullptr) {
            msglog(7, "Created directory %s", path.get());
        }
        return 0;
    }
    if (errno == EEXIST) {
        msglog(7, "Using existing directory %s", path.get());
        node->kind = ppsnode_kind::existing;
        return 0;
    }
    const int32_t error = errno;
    msglog(level, "Couldn't mkdir %s: %s", path.get(), msglog_error_text(error));
    return error;
}

static lyr_ppsdir* create_directory(lyr_ppsdir* parent, const char* name, uint32_t mode,
                                    int32_t level, int32_t* error) {
    lyr_ppsnode* node = ppsnode_new(parent, name, -1, ppsnode_kind::existing);
    const int32_t failure = node == nullptr ? ENOMEM : make_directory(node, mode, level);
    if (failure != 0) {
        ppsnode_free(node);
        return refuse(error, failure);
    }
    if (parent != nullptr) {
        vel_lock_guard guard(ppsnode_lock);
        ppsnode_link(node);
    }
    return node;
}

/* The first child, unlinked; null when there is none. */
static lyr_ppsnode* take_first_child(lyr_ppsdir* dir) {
    vel_lock_guard guard(ppsnode_lock);
    lyr_ppsnode* child = dir->first_child;
    if (child != nullptr) {
        ppsnode_unlink(child);
    }
    return child;
}

/* Removes a directory that nothing links to any more, with what is below it; those that the
 * service found stay in the name space. */
static void remove_directory(lyr_ppsdir* dir) {
    while (lyr_ppsnode* child = take_first_child(dir)) {
        if (child->kind == ppsnode_kind::object) {
            ppswriter_withdraw(child);
        } else {
            remove_directory(child);
        }
    }
    if (dir->kind == ppsnode_kind::created) {
        const vel_text path = ppsnode_path(dir, nullptr);
        if (path == nullptr || pps_rmdir(path.get()) != 0) {
            const int32_t error = path == nullptr ? ENOMEM : errno;
            msglog(2, "Couldn't rmdir %s: %s", path == nullptr ? dir->name : path.get(),
                   msglog_error_text(error));
        }
    }
    ppsnode_free(dir);
}

/* Unlinks a directory; false when something in it is still in use. */
static bool unlink_unused(lyr_ppsdir* dir) {
    vel_lock_guard guard(ppsnode_lock);
    if (dir->use_count != 0) {
        return false;
    }
    ppsnode_unlink(dir);
    return true;
}

/* What a killed service left in the tree shows players that nobody plays. It is removed when no
 * other service works there: each holds a shared lock on the root directory for its life, so the
 * descriptor stays open. A lock that cannot be had is no reason not to serve. */
static void clear_leftovers() {
    char path[PATH_MAX];
    if (paths_resolve(ROOT_PATH, path, sizeof path) < 0) {
        return;
    }
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0 && pps_clear_tree(ROOT_PATH) != 0) {
        msglog(4, "Not all that an earlier run left in %s could be removed: %s", ROOT_PATH,
               msglog_error_text(errno));
    }
    if (fd >= 0) {
        (void)flock(fd, LOCK_SH | LOCK_NB);
    }
}

extern "C" {

int32_t ppsdir_initialize(control_block* control) noexcept {
    int32_t error = 0;
    control->ppsroot = lyr_ppsdir_makeroot(ROOT_PATH, &error);
    if (control->ppsroot == nullptr) {
        return error;
    }
    clear_leftovers();
    return 0;
}

lyr_ppsdir* lyr_ppsdir_makeroot(const char* path, int32_t* error) noexcept {
    if (path == nullptr) {
        return refuse(error, EINVAL);
    }
    return create_directory(nullptr, path, ROOT_MODE, FATAL, error);
}

lyr_ppsdir* lyr_ppsdir_create(lyr_ppsdir* parent, const char* name, uint32_t mode,
                              int32_t* error) noexcept {
    if (parent == nullptr || parent->kind == ppsnode_kind::object || name == nullptr) {
        return refuse(error, EINVAL);
    }
    return create_directory(parent, name, mode, FATAL, error);
}

int32_t lyr_ppsdir_remove(lyr_ppsdir* dir) noexcept {
    if (dir == nullptr) {
        return 0;
    }
    if (dir->kind == ppsnode_kind::object) {
        errno = EINVAL;
        return EINVAL;
    }
    if (!unlink_unused(dir)) {
        const vel_text path = ppsnode_path(dir, nullptr);
        msglog(2, "Couldn't remove %s -- still in use", path == nullptr ? dir->name : path.get());
        return EBUSY;
    }
    remove_directory(dir);
    return 0;
}

int32_t lyr_ppsdir_getpath(const lyr_ppsnode* node, char* destination, size_t size) noexcept {
    const size_t length = node == nullptr ? 0 : ppsnode_path_length(node, nullptr);
    if (destination == nullptr || size == 0) {
        return static_cast<int32_t>(length);
    }
    destination[0] = '\0';
    if (node != nullptr && length < size) {
        ppsnode_write_path(node, nullptr, destination + length);
    }
    return static_cast<int32_t>(length);
}
}

lyr_ppsdir* ppsdir_try_create(lyr_ppsdir* parent, const char* name, uint32_t mode,
                              int32_t* error) noexcept {
    return create_directory(parent, name, mode, FATAL + 1, error);
}
