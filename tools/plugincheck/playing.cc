#include "playing.h"

#include "call.h"
#include "check.h"

playing_setup playing_prepare(const host_options& options) {
    playing_setup setup;
    setup.source = host_start(options);
    if (setup.source == nullptr) {
        setup.why = "no media source was reported";
    } else if (host().api->play_api == nullptr) {
        setup.why = "there is no play table";
    } else if (host().api->browse_api == nullptr) {
        setup.why = "there is no browse table, and so no track to play";
    } else {
        setup.session = host_session_open(*setup.source, true, true);
        setup.tree = listing_walk(setup.session);
        if (setup.tree.tracks.empty()) {
            setup.why = "there is no track to play";
        }
    }
    return setup;
}

bool playing_attach(host_session* session, const listing_tree& tree) {
    vel_lock_guard player(session->player_lock);
    return playing_attach_locked(session, tree);
}

bool playing_attach_locked(host_session* session, const listing_tree& tree) {
    for (size_t i = 0; i < tree.tracks.size(); ++i) {
        if (call_attach(session, tree.tracks[i]) == 0) {
            session->track = i;
            return true;
        }
    }
    return false;
}

int32_t playing_reports(host_session* session) {
    vel_lock_guard guard(host().lock);
    return session->reports;
}

bool playing_await(host_session* session, int32_t before) {
    return host_await(host().options.wait, [=] { return session->reports > before; });
}

bool playing_begin(const playing_setup& setup, host_session* session) {
    const int32_t before = playing_reports(session);
    if (!playing_attach(session, setup.tree)) {
        return false;
    }
    {
        vel_lock_guard player(session->player_lock);
        if (call_play(session, play_entry::play) != 0) {
            return false;
        }
    }
    return playing_await(session, before);
}
