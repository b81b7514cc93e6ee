#include "play_error.h"

#include <cerrno>

#include <lyrane/plugin.h>

#include "msglog.h"
#include "player_commands.h"
#include "player_publish.h"
#include "plugin_call.h"
#include "plugin_opening.h"
#include "trksession.h"
#include "trksession_build.h"
#include "trksession_walk.h"

static int32_t give_up(player* player) noexcept VEL_REQUIRES(player->lock) {
    msglog(3, "Cannot find valid media nodes to be attached");
    player->error_run = 0;
    player_show_stopped(player);
    return -1;
}

/* Attaches and plays one track. False when the plug-in refuses either. */
static bool try_track(trksession* session, const medianode* track) noexcept {
    if (plugin_opening_suspects(session->ms_session, track) ||
        plugin_call_attach(session->ms_session, track) != 0) {
        msglog(7, "Retry with a new track due to attach_medianode failure");
        return false;
    }
    trksession_set_position(session, 0);
    if (plugin_call_play(session->ms_session) != 0) {
        msglog(7, "Retry with a new track due to play failure");
        return false;
    }
    return true;
}

static void playing(player* player, trksession* session, int32_t index, const medianode* track,
                    const metadata* data) noexcept VEL_REQUIRES(player->lock) {
    int32_t shown = index;
    (void)convert_internal_index_2_cli_index(player, index, &shown);
    trksession_set_current(session, {index, shown, 0});
    player_need_track_writer(player);
    player_publish_track(player, session->ts_id, index, track, data);
}

/* Gives up within one error when it has come round, when the time for it has passed, or when the
 * source has gone: its disconnection waits for the lock. And over errors: a plug-in may accept
 * every track and report it broken afterwards, and repeating a list of broken tracks would go round
 * for ever. */
static int32_t skip(player* player) noexcept VEL_REQUIRES(player->lock) {
    trksession* session = player->trksession;
    const int32_t length = trksession_length(session);
    const timespec deadline = vel_deadline(player_skip_ms);
    int32_t first = -1;
    for (int32_t attempts = 0;; ++attempts) {
        int32_t index = 0;
        if (trksession_internal_next_index(player, &index) != 0) {
            msglog(3, "We are at the end of the trksession");
            return 0;
        }
        medianode track = {};
        if (trksession_copy_track(session, index, &track) != 0) {
            msglog(3, "Cannot retrieve media node from trksession");
            errno = EINVAL;
            return -1;
        }
        if (attempts == 0 ? player->error_run >= length
                          : index == first || attempts >= length || session->cancelled != 0 ||
                                vel_remaining(deadline) == 0) {
            return give_up(player);
        }
        first = attempts == 0 ? index : first;
        metadata* data = trksession_fetch_metadata(session, track.id);
        const bool plays = try_track(session, &track);
        if (plays) {
            playing(player, session, index, &track, data);
            ++player->error_run;
        } else {
            trksession_set_track(session, index);
        }
        free_metadata(&data);
        if (plays) {
            return 0;
        }
    }
}

int32_t play_error_handle(player* player, int32_t error) noexcept {
    switch (error) {
    case LYR_PLAY_ERROR_SKIP:
        return skip(player);
    case LYR_PLAY_ERROR_FATAL:
        return player_destroy_trksession(player);
    default:
        return -1;
    }
}
