#include "player_registry.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include <sys/eventfd.h>
#include <sys/resource.h>

#include <veloran/pps.h>
#include <veloran/process.h>

#include "mediasource.h"
#include "msglog.h"
#include "nowplaying.h"
#include "player_commands.h"
#include "player_pin.h"
#include "player_publish.h"
#include "ppsdir.h"
#include "trksession_build.h"
#include "user_quota.h"

/* Free descriptors without which no player is made: an eighth of the limit within these bounds. The
 * objects of all players, the database and the sessions of plug-ins need some at any time, and what
 * cannot be published ends the service. */
static constexpr rlim_t SPARE_LEAST = 8;
static constexpr rlim_t SPARE_MOST = 64;

/* How long a forced close waits for plug-ins that hold players up, all players together. */
static constexpr int64_t FORCE_CLOSE_WAIT_MS = 4000;
static constexpr char LEFT_BEHIND[] = "Player %s is busy in a plug-in and is left behind";

/* The name becomes a directory and part of messages to others, so what would change their meaning
 * is refused; which bytes it is written in is the client's affair. */
static bool usable_name(const char* name) noexcept {
    const size_t length = strlen(name);
    if (length == 0 || length > PLAYER_NAME_MAX || name[0] == '.') {
        return false;
    }
    for (const char* p = name; *p != '\0'; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c < 0x20 || c == 0x7F || c == '/' || c == '?') {
            return false;
        }
    }
    return true;
}

/* Whether there are descriptors for one more player beside what else may need some. Until there is
 * a server its clients may take half of them, later they are promised to them. */
static bool has_descriptors(const control_block* control) noexcept {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return true;
    }
    rlim_t wanted = std::clamp(limit.rlim_cur / 8, SPARE_LEAST, SPARE_MOST);
    if (control->server == nullptr) {
        wanted += limit.rlim_cur / 2;
    }
    return process_spare_descriptors() >= static_cast<int64_t>(wanted);
}

/* What the player lock guards, of a player that nobody else knows yet: that lock is not taken under
 * the players lock. */
static void begin_unlocked(player* made) noexcept VEL_NO_TSA {
    made->session_user = user_quota_own();
}

static player* player_make(control_block* control, const char* name, uid_t user) noexcept {
    void* memory = calloc(1, sizeof(player));
    char* own_name = strdup(name);
    if (memory == nullptr || own_name == nullptr) {
        msglog(1, "Cannot allocate memory");
        return nullptr;
    }
    player* made = new (memory) player();
    vel_mutex_init(&made->lock);
    vel_mutex_init(&made->np_lock);
    pthread_cond_init(&made->np_cond, nullptr);
    made->np_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    made->name = own_name;
    made->user = user;
    made->control = control;
    made->config = control->player_cfg;
    made->playback_rate = 1.0F;
    made->shuffle_mode = LYR_SHUFFLE_OFF;
    made->repeat_mode = LYR_REPEAT_OFF;
    made->status = LYR_STATUS_IDLE;
    begin_unlocked(made);
    {
        vel_lock_guard guard(made->np_lock);
        made->np_fd = -1; /* before anybody can write to it */
    }
    return made;
}

/* What the player's thread does when the arbiter of the audio focus tells it. */
static const nowplaying_commands focus_commands = {player_play, player_pause,    player_stop,
                                                   player_next, player_previous, player_unpin};

/* The writers that every player has, in the order in which they are made and closed. */
struct writer_entry {
    const char* object;
    lyr_ppswriter* player::*field;
};
static const writer_entry writers[] = {{"state", &player::state_writer},
                                       {"status", &player::status_writer},
                                       {"mediasource", &player::mediasource_writer},
                                       {"trksession", &player::trksession_writer}};

static void withdraw_objects(player* player) noexcept VEL_REQUIRES(player->lock) {
    for (const writer_entry& entry : writers) {
        if (player->*entry.field != nullptr) {
            lyr_ppswriter_close(player->*entry.field);
            player->*entry.field = nullptr;
        }
    }
    if (player->ppsdir != nullptr) {
        (void)lyr_ppsdir_remove(player->ppsdir);
        player->ppsdir = nullptr;
    }
}

/* 0, or -1 with errno set and nothing left behind. Nobody else knows the player yet, so its lock is
 * not taken. */
static int32_t publish_objects(control_block* control, player* player) noexcept VEL_NO_TSA {
    int32_t error = 0;
    player->ppsdir = ppsdir_try_create(control->ppsroot, player->name, 0777, &error);
    for (const writer_entry& entry : writers) {
        if (player->ppsdir == nullptr) {
            break;
        }
        player->*entry.field = ppswriter_try_create(player->ppsdir, entry.object, &error);
        if (player->*entry.field == nullptr) {
            withdraw_objects(player);
        }
    }
    if (player->ppsdir == nullptr) {
        errno = error;
        return -1;
    }
    player_publish_state(player);
    return 0;
}

/* Makes a player and enters it. Null with errno set. */
static player* player_add(control_block* control, const char* name, uid_t user) noexcept
    VEL_REQUIRES(control->players_lock) {
    if (control->players.count >= PLAYERS_MAX) {
        msglog(3, "Player %s refused: %d players are open", name, control->players.count);
        errno = ENFILE;
        return nullptr;
    }
    if (!user_quota_player(control, user, name)) {
        return nullptr;
    }
    if (!has_descriptors(control)) {
        msglog(3, "Player %s refused: too few descriptors are free; raise the limit (ulimit -n)",
               name);
        errno = EMFILE;
        return nullptr;
    }
    if (pps_check_room() != 0) {
        msglog(3, "Player %s refused: no room for its objects: %s", name, msglog_error_text(errno));
        return nullptr;
    }
    player* made = player_make(control, name, user);
    if (made == nullptr || made->np_wake < 0 || publish_objects(control, made) != 0) {
        const int error = errno;
        if (made != nullptr) {
            player_free(made);
        }
        errno = error;
        return nullptr;
    }
    if (array_push(0, &control->players, made) < 0) {
        msglog(1, "Cannot allocate memory");
        return nullptr;
    }
    player_of(made, control);
    made->pins = 2; /* the registry's, and the one of the player's thread */
    nowplaying_start(made, &focus_commands);
    return made;
}

static player* player_open_locked(control_block* control, const char* name, uid_t user) noexcept
    VEL_REQUIRES(control->players_lock) {
    const int32_t position = players_find(&control->players, name);
    player* found = position >= 0 ? static_cast<player*>(control->players.items[position])
                                  : player_add(control, name, user);
    if (found == nullptr) {
        return nullptr;
    }
    player_of(found, control);
    if (found->clients >= PLAYER_CLIENTS_MAX) {
        msglog(3, "Too many clients connected to Player %s now (max 32)", name);
        return nullptr;
    }
    ++found->clients;
    return found;
}

/* Everything that others can see of a player goes here, its track session aside, which has gone:
 * sessions, objects, directory, before close returns. What stays is the memory, for those who still
 * hold a pin. */
static void player_tear_down(player* player) noexcept VEL_REQUIRES(player->lock) {
    while (player->ms_sessions.count > 0) {
        auto* session = static_cast<mediasource_session*>(array_pop(0, &player->ms_sessions));
        mediasource_session_destroy(&session);
    }
    withdraw_objects(player);
    player->closed = 1;
}

extern "C" {

player* player_open(control_block* control, const char* name) noexcept {
    if (!usable_name(name)) {
        msglog(3, "Player refused: its name cannot be used (empty, too long, '.', '/', '?' or "
                  "control characters)");
        errno = EINVAL;
        return nullptr;
    }
    vel_lock_guard guard(control->players_lock);
    return player_open_locked(control, name, user_quota_own());
}

int32_t player_close(control_block* control, const char* name) noexcept {
    player* last = nullptr;
    {
        vel_lock_guard guard(control->players_lock);
        const int32_t position = players_find(&control->players, name);
        if (position < 0) {
            msglog(3, "There is no Player %s to be closed", name);
            return 0;
        }
        last = static_cast<player*>(control->players.items[position]);
        player_of(last, control);
        if (--last->clients != 0) {
            msglog(5, "There are still other clients connected to Player %s", name);
            return 0;
        }
        (void)array_delete(0, &control->players, position); /* its pin is ours now */
    }
    {
        vel_lock_guard guard(last->lock);
        if (last->status == LYR_STATUS_PLAYING) {
            (void)player_stop(last);
        }
        if (last->trksession != nullptr) {
            (void)player_destroy_trksession(last);
        }
        player_tear_down(last);
    }
    nowplaying_release(last);
    nowplaying_end(last);
    player_unpin(last);
    return 0;
}

void player_lose_client(player* player) noexcept {
    control_block* control = player->control;
    vel_lock_guard guard(control->players_lock);
    player_of(player, control);
    const bool forgives = control->forgive_lost_clients == 1 && player->clients > 1;
    player->clients -= forgives ? 1 : 0;
    msglog(5, "Player %s was not closed by its client and %s its client count", player->name,
           forgives ? "gets back" : "keeps");
}

int32_t players_find(const pointer_array* players, const char* name) noexcept {
    for (int32_t i = 0; i < players->count; ++i) {
        if (strcmp(static_cast<const player*>(players->items[i])->name, name) == 0) {
            return i;
        }
    }
    return -1;
}

int32_t players_force_close(control_block* control) noexcept {
    const timespec deadline = vel_deadline(FORCE_CLOSE_WAIT_MS);
    for (;;) {
        player* last = nullptr;
        {
            vel_lock_guard guard(control->players_lock);
            if (control->players.count > 0) {
                last = static_cast<player*>(array_pop(0, &control->players));
            }
        }
        if (last == nullptr) {
            return 0;
        }
        if (!vel_mutex_lock_until(&last->lock, deadline)) {
            msglog(3, LEFT_BEHIND, last->name);
            continue;
        }
        const bool idle = player_destroy_trksession_until(last, &deadline);
        if (idle) {
            player_tear_down(last);
        }
        vel_mutex_unlock(&last->lock);
        if (!idle) {
            msglog(3, LEFT_BEHIND, last->name);
            continue;
        }
        nowplaying_release(last);
        nowplaying_end(last);
        player_unpin(last);
    }
}
}

player* player_open_pinned(control_block* control, const char* name, uid_t user) noexcept {
    if (!usable_name(name)) {
        return player_open(control, name); /* says why */
    }
    vel_lock_guard guard(control->players_lock);
    player* opened = player_open_locked(control, name, user);
    if (opened != nullptr) {
        player_of(opened, control);
        ++opened->pins;
    }
    return opened;
}
