#include "nowplaying.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <unistd.h>

#include <veloran/process.h>

#include "msglog.h"

/* Longest wait for the arbiter's answer; the waiting command holds the player lock on the thread
 * that serves all clients. */
static constexpr time_t ANSWER_WAIT_SECONDS = 1;

static void send_message(player* player, const char* text) noexcept VEL_REQUIRES(player->np_lock) {
    if (player->np_fd == -1) {
        return;
    }
    const size_t length = strlen(text);
    ssize_t written = 0;
    do {
        written = write(player->np_fd, text, length);
    } while (written < 0 && errno == EINTR);
    const int error = written < 0 ? errno : EAGAIN;
    const int32_t thread = process_thread_id();
    if (written == static_cast<ssize_t>(length)) {
        msglog(7, "fd#%d Thread#%d for player:%s sending msg to NowPlaying: %s, msglength: %d",
               player->np_fd, thread, player->name, text, static_cast<int>(length));
    } else {
        msglog(3,
               "Thread#%d for player:%s failed to write message to NowPlaying control file, %s\n",
               thread, player->name, msglog_error_text(error));
    }
}

/* Waits until the grant is there or the time has passed. */
static void await_grant(player* player) noexcept VEL_REQUIRES(player->np_lock) VEL_NO_TSA
/* a condition variable waits with the lock */ {
    timespec deadline = {};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += ANSWER_WAIT_SECONDS;
    while (player->np_acquired == 0 && player->np_fd != -1 &&
           pthread_cond_clockwait(&player->np_cond, &player->np_lock.native, CLOCK_MONOTONIC,
                                  &deadline) == 0) {
    }
}

extern "C" {

void nowplaying_msg(player* player, const char* text) noexcept {
    vel_lock_guard guard(player->np_lock);
    send_message(player, text);
}

int32_t nowplaying_acquire(player* player) noexcept {
    vel_lock_guard guard(player->np_lock);
    if (player->np_fd == -1) {
        msglog(7,
               "NowPlaying service is not available but still giving Acquire to Player:%s due to "
               "fast-boot",
               player->name);
        return 1;
    }
    if (player->np_acquired == 1) {
        msglog(7, "Player:%s already has acquire handle. No need to obtain new acquire",
               player->name);
        player->np_acquired = 0;
        return 1;
    }
    send_message(player, "msg::acquire\nid::1");
    await_grant(player);
    if (player->np_fd == -1) {
        return 1; /* the arbiter went away meanwhile */
    }
    if (player->np_acquired == 0) {
        msglog(7, "Player:%s did not acquire handle", player->name);
        return 0;
    }
    msglog(7, "Player:%s got acquire handle", player->name);
    player->np_acquired = 0;
    return 1;
}

void nowplaying_release(player* player) noexcept {
    vel_lock_guard guard(player->np_lock);
    player->np_acquired = 0;
    send_message(player, "msg::release\nid::1");
}

void nowplaying_state(player* player, const char* state) noexcept {
    char text[64];
    snprintf(text, sizeof text, "msg::state\nid::1\ndat::%s", state);
    nowplaying_msg(player, text);
}
}
