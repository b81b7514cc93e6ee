/* Making a track session of a folder and what lies below it. */
#ifndef LYRACTL_SESSION_H
#define LYRACTL_SESSION_H

#include <cstdint>
#include <string>

#include "request.h"

constexpr int32_t SESSION_START_FIRST = -1; /* begin with the first track that can be had */

/* Makes a track session for the opened player and says what it holds so far. `start` is the index
 * of a child of the folder, or SESSION_START_FIRST. False with the reason in the connection's
 * `why`; a folder without a track is such a reason. */
bool session_make(connection* to, int32_t source, const std::string& folder, int32_t expected,
                  int32_t start, request_session* session);

#endif
