/* The entries of a player and the list of players. */
#include "gst_player.h"

#include <cerrno>
#include <ctime>
#include <new>

#include "gst_wish.h"
#include "gst_worker.h"
#include "plugin_thread.h"

/* All players whose thread was not joined yet, destroyed ones included. Taken before a player's
 * own lock. */
static vel_mutex list_lock;
static gst_player* list_head VEL_GUARDED_BY(list_lock);

/* --- threads -------------------------------------------------------------------------------- */

static void* thread_body(void* argument) {
    auto* player = static_cast<gst_player*>(argument);
    pthread_setname_np(pthread_self(), "gst-player");
    gst_worker_serve(player);
    vel_lock_guard hold(list_lock);
    player->ended = true;
    return nullptr;
}

/* Takes the players out of the list that have ended, or that belong to `group` (null: none do),
 * and tells the latter to end. Returns them as a list. */
static gst_player* take_players(const void* group) {
    gst_player* taken = nullptr;
    vel_lock_guard hold(list_lock);
    for (gst_player** at = &list_head; *at != nullptr;) {
        gst_player* player = *at;
        if (!player->ended && (group == nullptr || player->group != group)) {
            at = &player->next;
            continue;
        }
        *at = player->next;
        player->next = taken;
        taken = player;
        vel_lock_guard inner(player->lock);
        player->wish.closed = true;
        pthread_cond_signal(&player->wake);
    }
    return taken;
}

static void free_player(gst_player* player) {
    pthread_cond_destroy(&player->wake);
    vel_mutex_destroy(&player->lock);
    delete player;
}

static void join_players(gst_player* players) {
    while (players != nullptr) {
        gst_player* player = players;
        players = player->next;
        pthread_join(player->thread, nullptr);
        free_player(player);
    }
}

/* --- entries -------------------------------------------------------------------------------- */

/* The worker has something new to read. */
static void changed(gst_player* player) VEL_REQUIRES(player->lock) {
    ++player->changes;
    pthread_cond_signal(&player->wake);
}

/* The track starts anew, idle at its beginning. */
static void restart(gst_player* player) VEL_REQUIRES(player->lock) {
    ++player->wish.load;
    player->wish.target = gst_target::idle;
    player->wish.seek = -1;
    changed(player);
}

/* A player without a thread; null without memory. */
static gst_player* make_player(const gst_player_config* config) noexcept {
    auto* player = new (std::nothrow) gst_player;
    if (player == nullptr) {
        return nullptr;
    }
    vel_mutex_init(&player->lock);
    pthread_cond_init(&player->wake, nullptr);
    player->callbacks = config->callbacks;
    player->play_session = config->play_session;
    player->callback_data = config->callback_data;
    player->released = config->released;
    player->open = config->open;
    player->log = config->log;
    player->group = config->group;
    player->update_interval = config->update_interval;
    try {
        player->audio_output = config->audio_output;
        player->video_output = config->video_output;
    } catch (const std::bad_alloc&) {
        free_player(player);
        return nullptr;
    }
    return player;
}

static gst_player* player_create(const gst_player_config* config) noexcept {
    join_players(take_players(nullptr));
    gst_player* player = make_player(config);
    if (player == nullptr) {
        return nullptr;
    }
    vel_lock_guard hold(list_lock);
    if (!plugin_thread_start(&player->thread, thread_body, player)) {
        free_player(player);
        return nullptr;
    }
    player->next = list_head;
    list_head = player;
    return player;
}

static void player_destroy(gst_player* player) noexcept {
    vel_lock_guard hold(player->lock);
    player->wish.closed = true;
    changed(player);
}

static int32_t player_attach(gst_player* player, const char* id, const char* uri,
                             int32_t type) noexcept {
    if (uri == nullptr || uri[0] == '\0') {
        return -1;
    }
    vel_lock_guard hold(player->lock);
    try {
        player->wish.id = id;
        player->wish.uri = uri;
    } catch (const std::bad_alloc&) {
        return -1;
    }
    player->wish.video = type == LYR_NODE_VIDEO;
    restart(player);
    return 0;
}

static int32_t player_play(gst_player* player) noexcept {
    vel_lock_guard hold(player->lock);
    if (player->wish.uri.empty()) {
        return -1;
    }
    player->wish.target = gst_target::playing;
    changed(player);
    return 0;
}

static int32_t player_pause(gst_player* player) noexcept {
    vel_lock_guard hold(player->lock);
    if (player->wish.uri.empty()) {
        return -1;
    }
    /* One that was not started needs no pause: it waits at its beginning without its output. */
    if (player->wish.target == gst_target::playing) {
        player->wish.target = gst_target::paused;
        changed(player);
    }
    return 0;
}

static int32_t player_stop(gst_player* player) noexcept {
    vel_lock_guard hold(player->lock);
    restart(player);
    return 0;
}

static int32_t player_seek(gst_player* player, int32_t position) noexcept {
    vel_lock_guard hold(player->lock);
    if (player->wish.uri.empty() || position < 0) {
        return -1;
    }
    player->wish.seek = position;
    ++player->wish.seek_number;
    changed(player);
    return 0;
}

static int32_t player_set_rate(gst_player* player, float rate) noexcept {
    if (!(rate >= GST_PLAYER_RATE_LEAST && rate <= GST_PLAYER_RATE_MOST)) {
        return -1;
    }
    vel_lock_guard hold(player->lock);
    player->wish.rate = rate;
    changed(player);
    return 0;
}

static void player_shutdown(const void* group) noexcept {
    join_players(take_players(group));
}

extern "C" const gst_player_api lyrane_gst_player = {
    GST_PLAYER_ABI, player_create, player_destroy, player_attach,   player_play,
    player_pause,   player_stop,   player_seek,    player_set_rate, player_shutdown,
};
