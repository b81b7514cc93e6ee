/* Drawing a new order of playing. */
#ifndef LYRANE_TRKSESSION_SHUFFLE_H
#define LYRANE_TRKSESSION_SHUFFLE_H

#include <cstdint>

#include "trksession.h"

/* Flag: the current track comes first. */
constexpr int32_t TRKSESSION_KEEP_FIRST = 0x1;

extern "C" {

/* Shuffles the playback positions start .. start + count - 1 with the C library's rand(), which
 * the service does not seed. 0, or -1 with errno ERANGE. A count below 1 does nothing. */
int32_t trksession_shuffle(trksession* session, int32_t start, int32_t count, int32_t current,
                           int32_t flags) noexcept VEL_EXCLUDES(session->lock);
}

/* A new order of all tracks, the current one first: each order of the others is as likely as any
 * other, and another one each time. 0, or -1 with errno ERANGE when no track is current. */
[[nodiscard]] int32_t trksession_shuffle_fair(trksession* session) noexcept
    VEL_EXCLUDES(session->lock);

/* Makes the order of an earlier fair shuffle of the same tracks again; those behind its length
 * follow in their own order. False when the session is too short for it, or it is none. */
[[nodiscard]] bool trksession_shuffle_again(trksession* session, trksession_draw drawn) noexcept
    VEL_EXCLUDES(session->lock);

#endif
