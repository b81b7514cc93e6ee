/* Appending tracks to a session. */
#include "trksession_build.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "msglog.h"
#include "player_publish.h"
#include "trksession_hold.h"
#include "user_quota.h"

/* Room for `more` tracks. The arrays grow by half at least, so that appending a million tracks in
 * small pages costs no more than in one. False without memory. */
static bool reserve(trksession* session, int32_t more) noexcept VEL_REQUIRES(session->lock) {
    const int64_t needed = static_cast<int64_t>(session->length) + more;
    if (needed <= session->capacity) {
        return true;
    }
    const int64_t grown = session->capacity + static_cast<int64_t>(session->capacity) / 2;
    int64_t wanted = needed > grown ? needed : grown;
    wanted = wanted > INT32_MAX ? INT32_MAX : wanted;
    const size_t entries = static_cast<size_t>(wanted);
    void* tracks = realloc(session->tracks, entries * sizeof(medianode));
    if (tracks == nullptr) {
        return false;
    }
    session->tracks = static_cast<medianode*>(tracks);
    void* order = realloc(session->order, entries * sizeof(int32_t));
    if (order == nullptr) {
        return false;
    }
    session->order = static_cast<int32_t*>(order);
    void* inverse = realloc(session->inverse_order, entries * sizeof(int32_t));
    if (inverse == nullptr) {
        return false;
    }
    session->inverse_order = static_cast<int32_t*>(inverse);
    session->capacity = static_cast<int32_t>(wanted);
    return true;
}

extern "C" {

int32_t player_trksession_import(player* player, medianode* nodes, int32_t count) noexcept {
    trksession* session = trksession_of_builder(player);
    if (session == nullptr) {
        msglog(3, "Invalid trksession handle for Player %s", player->name);
        return -1;
    }
    if (count < 0) {
        errno = EINVAL;
        return -1;
    }
    if (count == 0) {
        return 0;
    }
    int32_t length = 0;
    {
        vel_lock_guard guard(session->lock);
        if (count > INT32_MAX - session->length) {
            errno = EOVERFLOW;
            return -1;
        }
        if (!user_quota_take_tracks(player->control, session->user, count)) {
            return -1;
        }
        if (!reserve(session, count)) {
            msglog(1, "Cannot allocate memory: %s", msglog_error_text(ENOMEM));
            return -1;
        }
        const int32_t type = session->length == 0 ? TRKSESSION_CREATED : TRKSESSION_UPDATED;
        for (int32_t i = 0; i < count; ++i) {
            const int32_t at = session->length;
            session->tracks[at] = nodes[i];
            session->order[at] = at;
            session->inverse_order[at] = at;
            ++session->length;
        }
        length = session->length;
        player_publish_trksession(player, type, length, session->ts_id);
    }
    msglog(7, "The current num of tracks in the trksession: %d", length);
    return 0;
}
}
