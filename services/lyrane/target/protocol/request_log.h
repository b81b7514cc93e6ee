/* The conversation with the clients in the log, at level 7: with it a request that failed can be
 * sent again. */
#ifndef LYRANE_REQUEST_LOG_H
#define LYRANE_REQUEST_LOG_H

#include <cstdint>

#include "request_call.h"

/* Bytes of a request that are written; of a longer one the rest is left out. */
constexpr int64_t REQUEST_LOG_MOST = 8192;

/* True when requests are written: what request_call::is_logged becomes. */
bool request_log_wanted(void) noexcept;

/* Writes who sent the request and its bytes: the connection's number, the process and the user
 * behind it, the player that the connection has opened, and the payload in hexadecimal, 256 bytes a
 * line. */
void request_log_arrival(const request_call* call) noexcept;

/* Writes what the request is answered with. */
void request_log_answer(const request_call* call, int32_t status, int32_t result,
                        int64_t size) noexcept;

#endif
