#include "pps_stage.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>
#include <veloran/lock.h>
#include <veloran/paths.h>

#include "pps_target.h"
#include "pps_tree.h"

namespace {

constexpr const char* STAGE_NAME = ".stage";
constexpr mode_t STAGE_MODE = 0700;
constexpr int32_t TRIES = 16;               /* against names in use, or a stage that is replaced */
constexpr time_t LEFTOVER_AGE_SECONDS = 60; /* far longer than any update takes */

vel_mutex stage_lock;
int32_t stage_fd VEL_GUARDED_BY(stage_lock) = -1;
std::atomic<uint32_t> stage_sequence;

/* What the names of this process begin with, and its length. Drawn under the lock as the stage is
 * opened for the first time, which comes before any name, and constant from then on. */
char stage_token[16];
size_t stage_token_length;

} // namespace

static int32_t draw_token() VEL_REQUIRES(stage_lock) {
    uint64_t drawn = 0;
    if (stage_token_length > 0) {
        return 0;
    }
    if (getrandom(&drawn, sizeof drawn, 0) != static_cast<ssize_t>(sizeof drawn)) {
        return -1;
    }
    char* end = std::to_chars(stage_token, stage_token + sizeof stage_token, drawn, 36).ptr;
    stage_token_length = static_cast<size_t>(end - stage_token);
    return 0;
}

/* "RANDOM.NUMBER", behind `prefix`. A forked process has the same, so creation is exclusive and
 * tries the next number. */
static void make_name(char* name, const char* prefix = "") {
    char* end = name + PPS_STAGE_NAME - 1;
    char* at = name + std::string_view(prefix).copy(name, PPS_STAGE_NAME / 4);
    memcpy(at, stage_token, stage_token_length);
    at += stage_token_length;
    *at++ = '.';
    at = std::to_chars(at, end, stage_sequence.fetch_add(1, std::memory_order_relaxed)).ptr;
    *at = '\0';
}

/* Removes what a process left on the stage when it was killed. */
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
            now - status.st_ctime > LEFTOVER_AGE_SECONDS) {
            pps_tree_remove_entry(stage, entry->d_name);
        }
    }
}

/* Whether the stage is the user's alone. What others might do on the one of an earlier build, which
 * was open to all, ends here. */
static bool is_private(int32_t stage) {
    struct stat status;
    return fstat(stage, &status) == 0 && status.st_uid == paths_user() &&
           ((status.st_mode & 0777) == STAGE_MODE || fchmod(stage, STAGE_MODE) == 0);
}

/* Renames what is in the way within its directory, which needs no right on it, and removes it as
 * far as that can be done. */
static int32_t set_aside(int32_t place, const char* name) {
    char hidden[PPS_STAGE_NAME];
    make_name(hidden, ".aside.");
    if (renameat2(place, name, place, hidden, RENAME_NOREPLACE) != 0) {
        return -1;
    }
    pps_tree_remove_entry(place, hidden);
    return 0;
}

/* Opens the stage, which is made when it is missing, and made anew when it is not the user's. */
static int32_t open_stage() VEL_REQUIRES(stage_lock) {
    const vel_fd base(pps_target_open_base());
    if (base.value < 0 || draw_token() != 0) {
        return -1;
    }
    for (int32_t i = 0; i < TRIES; ++i) {
        const bool is_new = mkdirat(base.value, STAGE_NAME, STAGE_MODE) == 0;
        if (!is_new && errno != EEXIST) {
            return -1;
        }
        vel_fd stage(
            openat(base.value, STAGE_NAME, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (stage.value >= 0 && is_private(stage.value)) {
            return stage.release();
        }
        const bool is_strange =
            stage.value >= 0 || errno == ENOTDIR || errno == ELOOP || errno == EACCES;
        if (!is_strange || (set_aside(base.value, STAGE_NAME) != 0 && errno != ENOENT)) {
            return -1;
        }
    }
    errno = EBUSY;
    return -1;
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
        const int32_t fd = openat(stage, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                  paths_mode(mode));
        const bool is_again = fd < 0 && (errno == EEXIST || errno == EINTR ||
                                         (errno == ENOENT && pps_stage_open() >= 0));
        if (!is_again) {
            return fd;
        }
    }
    return -1;
}

int32_t pps_stage_make_directory(int32_t stage, char* name, uint32_t mode) noexcept {
    for (int32_t i = 0; i < TRIES; ++i) {
        make_name(name);
        if (mkdirat(stage, name, paths_mode(mode)) == 0) {
            return 0;
        }
        if (errno != EEXIST && (errno != ENOENT || pps_stage_open() < 0)) {
            return -1;
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
    make_name(aside);
    if (renameat2(place, name, stage, aside, RENAME_NOREPLACE) == 0) {
        pps_tree_remove_entry(stage, aside);
        return 0;
    }
    return errno == ENOENT ? -1 : set_aside(place, name);
}
