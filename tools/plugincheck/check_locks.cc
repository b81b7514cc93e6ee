/* Group "locks": what the plug-in does to itself while the service holds a player's lock and a
 * callback waits for it. Who does not return here is named by the watching process. */
#include "checks.h"

#include "call.h"
#include "check.h"
#include "playing.h"

/* Attaches and plays under the player lock, and waits until a callback waits for it. */
static bool play_against_callback(const playing_setup& setup, host_session* session)
    VEL_REQUIRES(session->player_lock) {
    return playing_attach_locked(session, setup.tree) &&
           call_play(session, play_entry::play) == 0 &&
           host_await(host().options.wait, [=] { return session->waiting > 0; });
}

static bool skip_without_callback(bool held) {
    if (!held) {
        check_skip("no callback came within %d ms of play", host().options.wait);
    }
    return !held;
}

static void check_entries(const playing_setup& setup, host_session* session) {
    vel_lock_guard player(session->player_lock);
    if (skip_without_callback(play_against_callback(setup, session))) {
        return;
    }
    int32_t count = 1;
    medianode* nodes = nullptr;
    (void)call_seek(session, 0);
    (void)call_rate(session, 1.0F);
    (void)call_play(session, play_entry::pause);
    (void)call_play(session, play_entry::play);
    if (call_browse(session, "/", 0, &count, &nodes) == 0) {
        free_medianodes(&nodes, count);
    }
    (void)call_cancel(session);
    (void)call_play(session, play_entry::stop);
    (void)call_attach(session, setup.tree.tracks[session->track]);
}

static void check_destroy(const playing_setup& setup) {
    check_begin("locks.destroy");
    host_session* session = host_session_open(*setup.source, true, true);
    vel_lock_guard player(session->player_lock);
    if (!skip_without_callback(play_against_callback(setup, session))) {
        (void)call_play_destroy(session->play);
        (void)call_browse_destroy(session->browse);
        vel_lock_guard guard(host().lock);
        session->closed = true;
    }
    check_end();
}

void checks_locks(const host_options& options) {
    check_begin("locks.entries");
    const playing_setup setup = playing_prepare(options);
    if (setup.why != nullptr) {
        check_skip("%s", setup.why);
    } else {
        check_entries(setup, setup.session);
    }
    check_end();
    if (setup.why == nullptr) {
        check_destroy(setup);
    }
    host_finish();
}
