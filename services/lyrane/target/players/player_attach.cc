/* Making a track the current one: the plug-in may refuse it, then the following ones are tried. */
#include "trksession_walk.h"

#include <cerrno>

#include "msglog.h"
#include "player_commands.h"
#include "player_publish.h"
#include "plugin_call.h"
#include "plugin_opening.h"

/* Attempts that are made however long they take. */
static constexpr int32_t ATTEMPTS_AT_LEAST = 1000;

int32_t player_skip_ms = 5000;

void player_need_track_writer(player* player) noexcept {
    if (player->track_writer != nullptr) {
        return;
    }
    int32_t error = 0;
    player->track_writer = lyr_ppswriter_create(player->ppsdir, "track", -1, &error);
    if (player->track_writer == nullptr) {
        msglog(2, "Failed to create track pps object (%d:%s)", error, msglog_error_text(error));
    }
}

/* The plug-in has accepted track `index`: it becomes the current one and is published. */
static void attached(player* player, trksession* session, int32_t index,
                     const medianode* track) noexcept VEL_REQUIRES(player->lock) {
    metadata* data = trksession_fetch_metadata(session, track->id);
    int32_t shown = 0;
    (void)convert_internal_index_2_cli_index(player, index, &shown);
    trksession_set_current(session, {index, shown, 0});
    player_need_track_writer(player);
    player_publish_track(player, session->ts_id, shown, track, data);
    free_metadata(&data);
}

int32_t player_attach_walking(player* player, int32_t index, int32_t tries,
                              int32_t repeat_mode) noexcept {
    trksession* session = player->trksession;
    const int32_t first = index;
    const timespec deadline = vel_deadline(player_skip_ms);
    /* A source that has gone refuses a million tracks one by one, under a lock that its
     * disconnection is waiting for. */
    for (int32_t attempts = 1;; ++attempts) {
        medianode track = {};
        if (trksession_copy_track(session, index, &track) != 0) {
            msglog(3, "Cannot retrieve media node from trksession");
            return -1;
        }
        if (!plugin_opening_suspects(session->ms_session, &track) &&
            plugin_call_attach(session->ms_session, &track) == 0) {
            attached(player, session, index, &track);
            return 0;
        }
        msglog(6, "Retry with a new track due to attach_medianode failure");
        trksession_set_track(session, index); /* the walk goes on from here */
        if (trksession_next_by_mode(player, repeat_mode, &index) != 0 || index == first ||
            attempts >= tries || session->cancelled != 0 ||
            (attempts >= ATTEMPTS_AT_LEAST && vel_remaining(deadline) == 0)) {
            break;
        }
    }
    msglog(3, "Cannot find valid media nodes to be attached");
    player_show_stopped(player);
    return -1;
}

extern "C" {

int32_t player_internal_attach_medianode(player* player, int32_t index, int32_t tries) noexcept {
    return player_attach_walking(player, index, tries, player->repeat_mode);
}
}
