#include "nowplaying.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <unistd.h>

#include <veloran/json.h>
#include <veloran/process.h>
#include <veloran/server_object.h>

#include "msglog.h"

/* Longest wait for the arbiter's answer, and for the end of a player's thread. The main thread
 * waits, and with it every client. */
static constexpr int64_t WAIT_MS = 1000;

void nowplaying_send(player* player, const char* text) noexcept {
    if (player->np_fd == -1) {
        return;
    }
    const size_t length = strlen(text);
    const int32_t thread = player->np_thread;
    if (server_object_write(player->np_fd, text, length) == 0) {
        msglog(7, "fd#%d Thread#%d for player:%s sending msg to NowPlaying: %s, msglength: %d",
               player->np_fd, thread, player->name, text, static_cast<int>(length));
    } else {
        msglog(3,
               "Thread#%d for player:%s failed to write message to NowPlaying control file, %s\n",
               thread, player->name, msglog_error_text(errno));
    }
}

char* nowplaying_register_text(const char* name, const char* prio, const char* audio,
                               const char* overlay) noexcept {
    pps_encoder encoder;
    pps_encoder_initialize(&encoder);
    pps_encoder_start_object(&encoder, "dat");
    pps_encoder_add_string(&encoder, "name", name);
    pps_encoder_add_string(&encoder, "prio", prio);
    pps_encoder_add_string(&encoder, "audio", audio);
    pps_encoder_add_string(&encoder, "overlay", overlay);
    pps_encoder_end_object(&encoder);
    const char* data = pps_encoder_buffer(&encoder);
    char* text = nullptr;
    if (data == nullptr || asprintf(&text, "msg::register\nid::1\n%s", data) < 0) {
        msglog(1, "Cannot allocate memory");
        return nullptr;
    }
    pps_encoder_cleanup(&encoder);
    return text;
}

/* Waits while *flag is set; false when the time has passed. */
static bool await_clear(player* player, const int32_t* flag, const timespec& deadline) noexcept
    VEL_REQUIRES(player->np_lock) {
    while (__atomic_load_n(flag, __ATOMIC_RELAXED) != 0) {
        if (!vel_wait_until(&player->np_cond, &player->np_lock, deadline)) {
            return *flag == 0;
        }
    }
    return true;
}

void nowplaying_ask(player* player) noexcept {
    ++player->np_unanswered;
    player->np_asked = player->np_revokes;
    nowplaying_send(player, "msg::acquire\nid::1");
}

/* Asks the arbiter and waits for what it says, whatever that is. False when it went away meanwhile;
 * by now there may be another one, which was not asked. */
static bool ask(player* player, const timespec& deadline) noexcept VEL_REQUIRES(player->np_lock) {
    player->np_waiting = 1;
    player->np_lost = 0;
    nowplaying_ask(player);
    (void)await_clear(player, &player->np_waiting, deadline);
    player->np_waiting = 0;
    return player->np_lost == 0;
}

extern "C" {

void nowplaying_msg(player* player, const char* text) noexcept {
    vel_lock_guard guard(player->np_lock);
    nowplaying_send(player, text);
}

void nowplaying_register(player* player, const char* name, const char* prio, const char* audio,
                         const char* overlay) noexcept {
    const vel_text text(nowplaying_register_text(name, prio, audio, overlay));
    nowplaying_msg(player, text.get());
}

int32_t nowplaying_acquire(player* player) noexcept {
    vel_lock_guard guard(player->np_lock);
    const timespec deadline = vel_deadline(WAIT_MS);
    (void)await_clear(player, &player->np_busy, deadline);
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
    if (!ask(player, deadline)) {
        return 1; /* as without an arbiter */
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
    nowplaying_send(player, "msg::release\nid::1");
}

void nowplaying_state(player* player, const char* state) noexcept {
    char text[64];
    snprintf(text, sizeof text, "msg::state\nid::1\ndat::%s", state);
    nowplaying_msg(player, text);
}
}

void nowplaying_start(player* player, const nowplaying_commands* commands) noexcept {
    {
        vel_lock_guard guard(player->np_lock);
        player->np_running = 1;
    }
    player->np_commands = commands;
    const int32_t error =
        process_thread_start("nowplaying", 1, monitor_nowplaying_pps, player, nullptr);
    if (error != 0) {
        msglog(2,
               "Unable to create thread to check if NowPlaying service is available for "
               "playing:%s - Error: %s",
               player->name, msglog_error_text(error));
    }
}

void nowplaying_end(player* player) noexcept {
    const uint64_t one = 1;
    vel_lock_guard guard(player->np_lock);
    player->np_ending = 1;
    (void)!write(player->np_wake, &one, sizeof one);
    (void)await_clear(player, &player->np_running, vel_deadline(WAIT_MS));
}
