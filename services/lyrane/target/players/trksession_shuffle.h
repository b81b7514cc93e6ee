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

#endif
