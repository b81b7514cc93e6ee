/* Going on with the track session that a player has. */
#ifndef LYRACTL_RESUME_H
#define LYRACTL_RESUME_H

#include "request.h"

/* Whether the opened player has a session to go on with: one of this media source that has not
 * been played to its end. False with the reason in the connection's `why` when the service does
 * not answer. */
bool resume_session(connection* to, int32_t source, bool* resumed);

#endif
