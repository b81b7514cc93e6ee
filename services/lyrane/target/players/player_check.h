/* The preconditions that the playback commands share. */
#ifndef LYRANE_PLAYER_CHECK_H
#define LYRANE_PLAYER_CHECK_H

#include <cerrno>
#include <cstdint>

#include "media.h"
#include "msglog.h"
#include "player.h"
#include "plugin_call.h"
#include "trksession.h"

/* Logs `text` at level 3 (null: nothing), sets errno, returns -1. */
inline int32_t player_refuse(int32_t error, const char* text) noexcept {
    if (text != nullptr) {
        msglog(3, "%s", text);
    }
    errno = error;
    return -1;
}

/* 1 when the session's media source has the capability now. */
inline bool player_can(const trksession* session, uint64_t capability) noexcept {
    return (mediasource_capabilities(session->mediasource) & capability) != 0;
}

/* The player's session with a play half that can be used, for the commands that say "There is no
 * active trksession". 0, or -1 with errno EINVAL or ENOTSUP. */
inline int32_t player_usable_session(player* player, trksession** session) noexcept
    VEL_REQUIRES(player->lock) {
    *session = player->trksession;
    if (*session == nullptr) {
        return player_refuse(EINVAL, "There is no active trksession");
    }
    return plugin_call_can_play((*session)->ms_session) ? 0 : player_refuse(ENOTSUP, nullptr);
}

#endif
