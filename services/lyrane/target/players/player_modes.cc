/* Shuffle and repeat. */
#include "player_commands.h"

#include <cerrno>

#include "msglog.h"
#include "player_check.h"
#include "player_publish.h"
#include "plugin_call.h"
#include "trksession_shuffle.h"
#include "trksession_walk.h"

/* Device mode: the device applies the mode itself. */
static int32_t forward_mode(const trksession* session, int32_t mode,
                            int32_t (*entry)(const mediasource_session*,
                                             int32_t) noexcept) noexcept {
    if (!player_can(session, LYR_CAP_MODES)) {
        return player_refuse(ENOTSUP, nullptr);
    }
    return entry(session->ms_session, mode);
}

/* Player mode, shuffle on: the current track comes first, the others in a drawn order. */
static int32_t draw_order(const player* player, trksession* session) noexcept {
    int32_t result = 0;
    if (player->config->fair_shuffle != 0) {
        result = trksession_shuffle_fair(session);
    } else {
        const int32_t current = trksession_current(session).trk_id;
        result = trksession_shuffle(session, 0, trksession_length(session), current,
                                    TRKSESSION_KEEP_FIRST);
    }
    msglog(7, "shuffle trksession: %d", result);
    return result;
}

/* "ROSP" progression shows the current track again after a change of the order. -1 when there is
 * no current track. */
static int32_t show_index_again(player* player, trksession* session) noexcept
    VEL_REQUIRES(player->lock) {
    int32_t index = 0;
    const int32_t result =
        convert_internal_index_2_cli_index(player, trksession_current(session).trk_id, &index);
    if (result == 0) {
        trksession_set_cli_index(session, index);
        if (player->track_writer != nullptr) {
            player_publish_track_index(player, index);
        }
    }
    return result;
}

extern "C" {

int32_t player_shuffle(player* player, int32_t mode) noexcept {
    trksession* session = player->trksession;
    if (session == nullptr) {
        return player_refuse(EINVAL, "There is a active trksession");
    }
    if (!plugin_call_can_play(session->ms_session)) {
        return player_refuse(ENOTSUP, nullptr);
    }
    if (mode == player->shuffle_mode) {
        return 0;
    }
    int32_t result = 0;
    if (session->ms_session->player_mode == 0) {
        result = forward_mode(session, mode, plugin_call_shuffle);
    } else if (mode == LYR_SHUFFLE_ON) {
        result = draw_order(player, session);
    }
    if (result != 0) {
        return result;
    }
    player->shuffle_mode = mode;
    if (player->config->progression_mode == 0) {
        result = show_index_again(player, session);
    }
    player_publish_state_shuffle(player);
    return result;
}

int32_t player_repeat(player* player, int32_t mode) noexcept {
    trksession* session = nullptr;
    if (player_usable_session(player, &session) != 0) {
        return -1;
    }
    if (mode == player->repeat_mode) {
        return 0;
    }
    if (session->ms_session->player_mode == 0) {
        const int32_t result = forward_mode(session, mode, plugin_call_repeat);
        if (result != 0) {
            return result;
        }
    }
    player->repeat_mode = mode;
    player_publish_state_repeat(player);
    return 0;
}
}
