/* Bringing one player's track session back. */
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <pthread.h>

#include <veloran/lock.h>
#include <veloran/process.h>

#include "lastmode.h"
#include "lastmode_rows.h"
#include "lastmode_threads.h"
#include "lastmode_time.h"
#include "media.h"
#include "mediasource.h"
#include "msglog.h"
#include "player_commands.h"
#include "plugin_call.h"
#include "trksession.h"
#include "trksession_build.h"
#include "trksession_shuffle.h"
#include "trksession_walk.h"

static constexpr int64_t LOOKS_PER_SECOND = 10;
static constexpr int64_t BETWEEN_LOOKS_MS = 100;
static constexpr int64_t TRIES = 10; /* for a session on a source that is there */
static constexpr int64_t END_WAIT_MS = 1000;

static vel_mutex threads_lock = {PTHREAD_MUTEX_INITIALIZER};
static pthread_cond_t threads_changed = PTHREAD_COND_INITIALIZER;
static int32_t threads_running VEL_GUARDED_BY(threads_lock);
static bool threads_ending VEL_GUARDED_BY(threads_lock);

/* Waits for the time between two looks; false when the threads are to end. */
static bool wait_to_look(void) noexcept VEL_NO_TSA /* a condition variable waits with the lock */ {
    vel_lock_guard guard(threads_lock);
    const timespec deadline = lastmode_after(lastmode_now(), BETWEEN_LOOKS_MS);
    while (!threads_ending && pthread_cond_clockwait(&threads_changed, &threads_lock.native,
                                                     CLOCK_MONOTONIC, &deadline) == 0) {
    }
    return !threads_ending;
}

/* The media source of a saved session, if it is connected now. Waits for the event of a media
 * source that is in progress: a source is there when all players have been told. No lock held. */
static mediasource* look(const player_state* state) noexcept {
    vel_lock_guard events(mmcontrol.mediasources_lock);
    vel_lock_guard guard(mmcontrol.registry_leaf);
    const int32_t position = mediasources_find_by_pname_uid(0, &mmcontrol.mediasources,
                                                            state->ms_plugin_name, state->ms_uid);
    auto* found =
        position < 0 ? nullptr : static_cast<mediasource*>(mmcontrol.mediasources.items[position]);
    return found != nullptr && mediasource_active(found) != 0 ? found : nullptr;
}

/* Looks for the source until it is there; null when it does not come in time. */
static mediasource* await_source(const player_state* state) noexcept {
    if (state->ms_plugin_name == nullptr || state->ms_uid == nullptr) {
        return nullptr;
    }
    const int64_t last = int64_t{mmcontrol.lastmode_timeout} * LOOKS_PER_SECOND;
    for (int64_t tried = 0;; ++tried) {
        msglog(7, "check whether the media source is ready: %d", static_cast<int>(tried));
        mediasource* source = look(state);
        if (source != nullptr || tried >= last || !wait_to_look()) {
            return source;
        }
    }
}

/* Makes the session. True when it took the strings of the tracks over, with success or without. */
static bool make_session(player* player, player_state* state, const mediasource* source) noexcept
    VEL_REQUIRES(player->lock) {
    if (player_create_trksession_v2(&mmcontrol, player, source->id, state->tracks, state->length,
                                    state->trk_id) == 0) {
        vel_lock_guard guard(player->trksession->lock);
        player->trksession->mn_id = state->mn_id;
        state->mn_id = nullptr;
        return true;
    }
    const bool taken = player->trksession != nullptr && trksession_length(player->trksession) > 0;
    (void)player_destroy_trksession(player);
    return taken;
}

/* Puts the player back to where it was. */
static void resume(player* player, const player_state* state) noexcept VEL_REQUIRES(player->lock) {
    trksession* session = player->trksession;
    msglog(7, "Last mode trksession is created");
    if (state->trk_pos != 0 && state->trk_id == trksession_current(session).trk_id) {
        (void)player_seek(player, state->trk_pos);
        trksession_set_position(session, state->trk_pos);
    }
    if (state->shuffle_mode == LYR_SHUFFLE_ON && player_shuffle(player, LYR_SHUFFLE_ON) == 0 &&
        player->config->fair_shuffle != 0) {
        (void)trksession_shuffle_again(session, state->drawn); /* else in the order just drawn */
    }
    if (state->repeat_mode != LYR_REPEAT_OFF) {
        (void)player_repeat(player, state->repeat_mode);
    }
    if (state->status == LYR_STATUS_PLAYING) {
        (void)player_play(player);
    }
}

/* Whether the player has a session on the source that can be asked for anything. */
static bool can_ask(const player* player, const mediasource* source) noexcept
    VEL_REQUIRES(player->lock) {
    const int32_t position = mediasource_sessions_find(0, &player->ms_sessions, source->id);
    return position >= 0 && plugin_call_can_browse(static_cast<const mediasource_session*>(
                                player->ms_sessions.items[position])) != 0;
}

/* Tracks that the plug-in left without the id of their source are of the one that was found: no
 * client is shown them as another's. */
static void set_source(player_state* state, const mediasource* source) noexcept {
    for (int32_t i = 0; i < state->length; ++i) {
        if (state->tracks[i].ms_id == 0) {
            state->tracks[i].ms_id = source->id;
        }
    }
}

/* What came of bringing a session back; only with `taken` do the strings of the tracks belong to a
 * session now. */
enum class outcome { too_early, failed, taken };

/* A client that has had a session on the player in this run is not disturbed. */
static outcome bring_back(player_state* state, const mediasource* source) noexcept {
    player* player = state->player;
    vel_lock_guard guard(player->lock);
    if (player->closed != 0 || player->sessions_made != 0) {
        return outcome::failed;
    }
    if (mediasource_update_medianodes(&mmcontrol, player, source->id, state->tracks,
                                      state->length) != 0) {
        return can_ask(player, source) ? outcome::failed : outcome::too_early;
    }
    set_source(state, source);
    const bool taken = make_session(player, state, source);
    if (player->trksession != nullptr) {
        resume(player, state);
    }
    return taken ? outcome::taken : outcome::failed;
}

/* A plug-in learns the id of a source when its report of the source returns, and until then it may
 * make no session on the source: one that has just come is asked again. A plug-in that refuses the
 * tracks is not. True when the strings of the tracks belong to a session now. */
static bool await_and_bring_back(player_state* state) noexcept {
    for (int64_t tried = 0; tried < TRIES; ++tried) {
        const mediasource* source = await_source(state);
        if (source == nullptr ||
            (static_cast<uint32_t>(source->type) & mmcontrol.lastmode_devices) == 0) {
            return false;
        }
        const outcome result = bring_back(state, source);
        if (result != outcome::too_early) {
            return result == outcome::taken;
        }
        if (!wait_to_look()) {
            return false;
        }
    }
    return false;
}

static void thread_over(void) noexcept {
    vel_lock_guard guard(threads_lock);
    --threads_running;
    pthread_cond_broadcast(&threads_changed);
}

static void* counted_thread(void* state) noexcept {
    (void)lastmode_thread(state);
    thread_over();
    return nullptr;
}

void lastmode_threads_start(player_state* state) noexcept {
    {
        vel_lock_guard guard(threads_lock);
        ++threads_running;
    }
    const int32_t error = process_thread_start("lastmode", 1, counted_thread, state, nullptr);
    if (error != 0) {
        msglog(2, "Failed to create a monitor thread (%d:%s)", error, msglog_error_text(error));
    }
}

void lastmode_end(void) noexcept VEL_NO_TSA /* a condition variable waits with the lock */ {
    vel_lock_guard guard(threads_lock);
    threads_ending = true;
    pthread_cond_broadcast(&threads_changed);
    const timespec deadline = lastmode_after(lastmode_now(), END_WAIT_MS);
    while (threads_running > 0 && pthread_cond_clockwait(&threads_changed, &threads_lock.native,
                                                         CLOCK_MONOTONIC, &deadline) == 0) {
    }
}

extern "C" {

void* lastmode_thread(void* argument) noexcept {
    auto* state = static_cast<player_state*>(argument);
    if (state == nullptr) {
        msglog(3, "The user data to lastmode thread is NULL");
        return nullptr;
    }
    if (state->player == nullptr) {
        msglog(3, "Invalid player associated with lastmode state");
        free_player_state(&state, 1);
        return nullptr;
    }
    const bool taken = await_and_bring_back(state);
    if (taken || mmcontrol.lastmode_keep_missing == 0) {
        lastmode_rows_over(state->rows);
    }
    free_player_state(&state, taken ? 0 : 1);
    return nullptr;
}
}
