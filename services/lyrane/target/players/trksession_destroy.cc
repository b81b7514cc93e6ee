/* Destroying a track session. */
#include "trksession_build.h"

#include <cstdlib>

#include "msglog.h"
#include "player_commands.h"
#include "player_publish.h"
#include "plugin_call.h"
#include "trksession_hold.h"

/* Between two attempts to end a browse that did not hear the first one. */
static constexpr int64_t CANCEL_AGAIN_MS = 20;

/* False when the time passed and the thread may still be inside the plug-in. The build thread
 * takes the same lock for its last word. */
static bool build_over_soon(trksession* session) noexcept {
    vel_lock_guard guard(session->lock);
    const timespec deadline = vel_deadline(CANCEL_AGAIN_MS);
    while (session->build_done == 0 &&
           vel_wait_until(&session->build_over, &session->lock, deadline)) {
    }
    return session->build_done != 0;
}

/* Ends the build thread. The flag comes first: it stops the walk between two pages, where a cancel
 * finds no browse to end; and a cancel may fall between the thread's look at the flag and its
 * call, so it is repeated until the thread has left. False when it has not left by the deadline
 * (null: none). */
static bool end_build(trksession* session, const timespec* deadline) noexcept
    VEL_EXCLUDES(session->lock) {
    session->cancelled = 1;
    plugin_call_cancel_browse(session->ms_session);
    pthread_t thread = {};
    {
        vel_lock_guard guard(session->lock);
        if (session->build_started == 0) {
            return true;
        }
        thread = session->build_thread;
    }
    while (!build_over_soon(session)) {
        if (deadline != nullptr && vel_remaining(*deadline) == 0) {
            return false;
        }
        plugin_call_cancel_browse(session->ms_session);
    }
    pthread_join(thread, nullptr);
    vel_lock_guard guard(session->lock);
    session->build_started = 0;
    return true;
}

/* The tracks stay for who still holds the session. */
static void empty(trksession* session) noexcept VEL_REQUIRES(session->lock) {
    session->left = session->length;
    session->length = 0;
    session->capacity = 0;
    free(session->order);
    free(session->inverse_order);
    session->order = nullptr;
    session->inverse_order = nullptr;
    session->trk_id = -1;
}

static void reset_player(player* player) noexcept VEL_REQUIRES(player->lock) {
    if (player->track_writer != nullptr) {
        (void)lyr_ppswriter_remove(player->track_writer);
        player->track_writer = nullptr;
    }
    player->status = LYR_STATUS_IDLE;
    player->shuffle_mode = LYR_SHUFFLE_OFF;
    player->playback_rate = 1.0F;
    player->repeat_mode = LYR_REPEAT_OFF;
    player->error_run = 0;
    player_publish_state(player);
}

bool player_destroy_trksession_until(player* player, const timespec* deadline) noexcept {
    msglog(7, "Destroy current trksession");
    trksession* session = player->trksession;
    if (session == nullptr) {
        return true;
    }
    const int32_t status = player->status;
    if (status != LYR_STATUS_STOPPED && status != LYR_STATUS_IDLE && player_stop(player) != 0) {
        msglog(3, "Calling player_stop() failed");
    }
    if (!end_build(session, deadline)) {
        return false;
    }
    {
        vel_lock_guard guard(session->lock);
        const int32_t length = session->length;
        session->destroyed = 1;
        player_publish_trksession(player, TRKSESSION_DESTROYED, length, session->ts_id);
        reset_player(player);
        empty(session);
    }
    trksession_set(player, nullptr);
    trksession_release(session);
    return true;
}

extern "C" int32_t player_destroy_trksession(player* player) noexcept {
    (void)player_destroy_trksession_until(player, nullptr);
    return 0;
}
