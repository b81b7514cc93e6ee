/* Group "order": commands that nobody would give, or not in this order. Any result will do. */
#include "checks.h"

#include <climits>
#include <iterator>

#include "call.h"
#include "check.h"
#include "playing.h"

static const play_entry entries[] = {play_entry::play, play_entry::pause, play_entry::stop,
                                     play_entry::next, play_entry::previous};

static void check_early(host_session* session) VEL_REQUIRES(session->player_lock) {
    for (const play_entry entry : entries) {
        (void)call_play(session, entry);
    }
    (void)call_seek(session, 1000);
    (void)call_rate(session, 2.0F);
    (void)call_shuffle(session, LYR_SHUFFLE_ON);
    (void)call_repeat(session, LYR_REPEAT_ALL);
    (void)call_cancel(session);
}

static void check_values(host_session* session) VEL_REQUIRES(session->player_lock) {
    check_begin("order.values");
    for (const int32_t position : {-1, INT_MIN, INT_MAX, 0}) {
        (void)call_seek(session, position);
    }
    for (const float rate : {0.0F, -1.0F, 1e30F, -1e30F, 1e-30F, 1.0F}) {
        (void)call_rate(session, rate);
    }
    for (const int32_t mode : {-1, 99, INT_MIN, INT_MAX, 0}) {
        (void)call_shuffle(session, mode);
        (void)call_repeat(session, mode);
    }
    check_end();
}

static void check_strangers(host_session* session, const listing_tree& tree)
    VEL_REQUIRES(session->player_lock) {
    check_begin("order.strangers");
    for (const char* id : {"", "/", "no such node", "\xff\xfe", "/../../../../etc/passwd"}) {
        node_copy node;
        node.id = id;
        node.type = LYR_NODE_AUDIO;
        node.ms_id = session->ms_id;
        if (call_attach(session, node) == 0) {
            (void)call_play(session, play_entry::play);
        }
        (void)call_play(session, play_entry::stop);
    }
    if (tree.folders.size() > 1) {
        (void)call_attach(session, tree.folders[1]);
    }
    check_end();
}

static void check_turns(host_session* session, const listing_tree& tree)
    VEL_REQUIRES(session->player_lock) {
    check_begin("order.turns");
    uint32_t random = 1;
    for (int32_t i = 0; i < 200; ++i) {
        random = random * 1103515245U + 12345U;
        const uint32_t turn = random >> 16;
        if (turn % 4 == 0) {
            (void)call_attach(session, tree.tracks[turn / 4 % tree.tracks.size()]);
        } else if (turn % 4 == 1) {
            (void)call_seek(session, static_cast<int32_t>(turn % 3000));
        } else {
            (void)call_play(session, entries[turn / 4 % std::size(entries)]);
        }
    }
    check_end();
}

void checks_order(const host_options& options) {
    check_begin("order.early");
    const playing_setup setup = playing_prepare(options);
    if (setup.why != nullptr || setup.session->play == nullptr) {
        check_skip("%s", setup.why != nullptr ? setup.why : "create answers null");
        check_end();
        host_finish();
        return;
    }
    {
        vel_lock_guard player(setup.session->player_lock);
        check_early(setup.session);
    }
    check_end();
    (void)playing_begin(setup, setup.session);
    {
        vel_lock_guard player(setup.session->player_lock);
        check_values(setup.session);
        check_strangers(setup.session, setup.tree);
        check_turns(setup.session, setup.tree);
    }
    host_finish();
}
