#include "pps_stage.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <veloran/lock.h>

#include "pps_target.h"
#include "pps_tree.h"

namespace {

constexpr const char* STAGE_NAME = ".stage";
constexpr int32_t TRIES = 1000;             /* names taken by others before giving up */
constexpr time_t LEFTOVER_AGE_SECONDS = 60; /* far longer than any update takes */

vel_mutex stage_lock;
int32_t stage_fd VEL_GUARDED_BY(stage_lock) = -1;
std::atomic<uint32_t> stage_sequence;

} // namespace

/* "PID.NUMBER"; names of another process-id name space may be the same, so creation is exclusive
 * and tries the next number. */
static void make_name(char* name) {
    char* end = name + PPS_STAGE_NAME - 1;
    char* at = std::to_chars(name, end, getpid()).ptr;
    *at++ = '.';
    at = std::to_chars(at, end, stage_sequence.fetch_add(1, std::memory_order_relaxed)).ptr;
    *at = '\0';
}

/* Removes what a process of this user left on the stage when it was killed. */
static void sweep(int32_t stage) {
    const int32_t fd = openat(stage, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(fd < 0 ? nullptr : fdopendir(fd), closedir);
    if (listing == nullptr) {
        vel_fd unused(fd);
        return;
    }
    const time_t now = time(nullptr);
    while (const dirent* entry = readdir(listing.get())) {
        struct stat status;
        if (entry->d_name[0] != '.' &&
            fstatat(stage, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            status.st_uid == geteuid() && now - status.st_ctime > LEFTOVER_AGE_SECONDS) {
            pps_tree_remove_entry(stage, entry->d_name);
        }
    }
}

/* Opens the stage, which is made when it is missing. */
static int32_t open_stage() {
    const vel_fd base(pps_target_open_base());
    if (base.value < 0) {
        return -1;
    }
    const bool is_new = mkdirat(base.value, STAGE_NAME, 0700) == 0;
    if (!is_new && errno != EEXIST) {
        return -1;
    }
    vel_fd stage(openat(base.value, STAGE_NAME, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (stage.value < 0 || (is_new && fchmod(stage.value, 01777) != 0)) {
        return -1;
    }
    return stage.release();
}

static bool is_removed(int32_t directory) {
    struct stat status;
    return fstat(directory, &status) == 0 && status.st_nlink == 0;
}

int32_t pps_stage_open(void) noexcept {
    vel_lock_guard guard(stage_lock);
    if (stage_fd >= 0 && !is_removed(stage_fd)) {
        return stage_fd;
    }
    vel_fd stage(open_stage());
    if (stage.value < 0) {
        return -1;
    }
    if (stage_fd >= 0) {
        /* Somebody cleared the runtime root. Others may be using the number at this moment, so it
         * gets the new directory instead of being closed. */
        return dup3(stage.value, stage_fd, O_CLOEXEC);
    }
    sweep(stage.value);
    stage_fd = stage.release();
    return stage_fd;
}

int32_t pps_stage_create(int32_t stage, char* name, uint32_t mode) noexcept {
    for (int32_t i = 0; i < TRIES; ++i) {
        make_name(name);
        const int32_t fd =
            openat(stage, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
        const bool is_again = fd < 0 && (errno == EEXIST || errno == EINTR ||
                                         (errno == ENOENT && pps_stage_open() >= 0));
        if (!is_again) {
            return fd;
        }
    }
    return -1;
}

int32_t pps_stage_take(int32_t place, const char* name) noexcept {
    const int32_t stage = pps_stage_open();
    if (stage < 0) {
        return -1;
    }
    char aside[PPS_STAGE_NAME];
    for (int32_t i = 0; i < TRIES; ++i) {
        make_name(aside);
        if (renameat2(place, name, stage, aside, RENAME_NOREPLACE) == 0) {
            pps_tree_remove_entry(stage, aside);
            return 0;
        }
        if (errno != EEXIST) {
            return -1;
        }
    }
    return -1;
}
