/* Group "play": a track plays, is steered, and comes to its end. */
#include "checks.h"

#include <algorithm>

#include "call.h"
#include "check.h"
#include "playing.h"
#include "process_state.h"

static constexpr int32_t SESSIONS = 4;
static constexpr int32_t WATCH = 2000;     /* ms for what should not come */
static constexpr int32_t BEFORE_END = 700; /* ms in front of an end that is waited for */

static void check_create(const playing_setup& setup) {
    std::set<void*> handles;
    host_session* sessions[SESSIONS];
    for (host_session*& session : sessions) {
        session = host_session_open(*setup.source, true, false);
        if (session->play == nullptr) {
            check_fail("create answers null");
        } else if (!handles.insert(session->play).second) {
            check_fail("two live sessions have one handle");
        }
    }
    for (const int32_t i : {2, 0, 3, 1}) {
        host_session_close(sessions[i]);
    }
}

/* One command that a capability opens; `works` says whether it did. */
static void command(host_session* session, uint64_t capability, const char* name, int32_t result) {
    if ((session->capabilities & capability) != 0 && result != 0 && result != CALL_MISSING) {
        check_fail("%s fails with %d", name, result);
    }
}

static void check_commands(host_session* session) {
    check_begin("play.commands");
    vel_lock_guard player(session->player_lock);
    if ((session->capabilities & LYR_CAP_PAUSE) != 0) {
        command(session, LYR_CAP_PAUSE, "pause", call_play(session, play_entry::pause));
        command(session, LYR_CAP_PAUSE, "play after pause", call_play(session, play_entry::play));
    }
    if ((session->capabilities & LYR_CAP_SEEK) != 0) {
        command(session, LYR_CAP_SEEK, "seek to 0", call_seek(session, 0));
    }
    if ((session->capabilities & LYR_CAP_STOP) != 0) {
        command(session, LYR_CAP_STOP, "set_playback_rate(1)", call_rate(session, 1.0F));
        command(session, LYR_CAP_STOP, "stop", call_play(session, play_entry::stop));
        command(session, LYR_CAP_STOP, "play after stop", call_play(session, play_entry::play));
    }
    check_end();
}

/* Goes near to the end of the track that plays, where that is possible. */
static void go_near_end(const playing_setup& setup, host_session* session)
    VEL_REQUIRES(session->player_lock) {
    const node_copy& track = setup.tree.tracks[session->track];
    metadata* data = nullptr;
    if (call_metadata(session, track.id->c_str(), &data) == 0 && data != nullptr &&
        data->duration > BEFORE_END && (session->capabilities & LYR_CAP_SEEK) != 0) {
        (void)call_seek(session, data->duration - BEFORE_END);
    }
    free_metadata(&data);
}

/* Waits for an end after which nothing goes on, and for a second one that must not come. */
static void await_last_end(host_session* session, int32_t ends) {
    const int32_t wait = host().options.wait;
    if (!host_await(wait, [=] { return session->ends > ends; })) {
        check_fail("the next track does not end within %d ms", wait);
    } else if (host_await(std::min(wait, WATCH), [=] { return session->ends > ends + 1; })) {
        host_fault("events.ends", "track_finished twice for one play");
    }
}

/* One track ends and the next goes on, as in the service; that one ends and nothing follows. */
static void check_finish(const playing_setup& setup, host_session* session) {
    int32_t ends = 0;
    check_begin("play.finish");
    {
        vel_lock_guard player(session->player_lock);
        session->tracks = setup.tree.tracks;
        (void)playing_attach_locked(session, setup.tree);
        (void)call_play(session, play_entry::play);
        go_near_end(setup, session);
    }
    const bool ended = host_await(host().options.wait, [=] { return session->advanced > 0; });
    {
        vel_lock_guard player(session->player_lock);
        session->tracks.clear();
        go_near_end(setup, session);
        vel_lock_guard guard(host().lock);
        ends = session->ends;
    }
    if (!ended) {
        check_skip("no track ended within %d ms", host().options.wait);
    } else if (!session->advance_fault.empty()) {
        check_fail("%s", session->advance_fault.c_str());
    } else {
        await_last_end(session, ends);
    }
    {
        vel_lock_guard player(session->player_lock);
        (void)call_play(session, play_entry::stop);
    }
    check_end();
}

static void check_destroy(const playing_setup& setup) {
    check_begin("play.destroy");
    host_session* stays = host_session_open(*setup.source, true, true);
    host_session* goes = host_session_open(*setup.source, true, true);
    if (!playing_begin(setup, goes) || !playing_begin(setup, stays)) {
        check_fail("two sessions do not play beside each other");
    }
    host_session_close(goes);
    if (!playing_begin(setup, stays)) {
        check_fail("another session does not play any more");
    }
    host_session_close(stays); /* while it plays */
    check_end();
}

static void check_end_of_all(const process_threads& threads) {
    check_begin("play.end");
    host_finish_sessions();
    (void)host_detect(0);
    if (host_cleanup() == -1) {
        check_fail("cleanup fails");
    }
    const std::string left = process_threads_left(threads);
    if (!left.empty() && !host_stays()) {
        check_fail("left behind: %s", left.c_str());
    } else if (!left.empty()) {
        check_tell("threads of a library that stays: %s", left.c_str());
    }
    check_end();
    host_report_events(true);
}

void checks_play(const host_options& options) {
    process_warm_up();
    const process_threads threads = process_threads_take();
    check_begin("play.create");
    const playing_setup setup = playing_prepare(options);
    if (setup.why != nullptr) {
        check_skip("%s", setup.why);
        check_end();
        host_finish();
        return;
    }
    check_create(setup);
    check_end();
    check_begin("play.attach");
    if (!playing_attach(setup.session, setup.tree)) {
        check_fail("attach_medianode fails for each of %zu tracks", setup.tree.tracks.size());
    }
    check_end();
    if (!check_failed()) {
        check_begin("play.reports");
        if (!playing_begin(setup, setup.session)) {
            check_fail("nothing within %d ms of play", options.wait);
        }
        check_end();
        check_commands(setup.session);
        check_finish(setup, setup.session);
        check_destroy(setup);
    }
    check_end_of_all(threads);
}
