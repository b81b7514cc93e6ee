/* The log: lines on the standard error, or to the system's logger.
 *
 * Clients cause lines, so what is written in one second is bounded; what was left out is counted
 * and told. */
#ifndef NOWPLAYINGD_LOG_H
#define NOWPLAYINGD_LOG_H

#include <cstdint>
#include <string>

/* Severities, those of slogb. */
constexpr int32_t LOG_FAILURE = 2;
constexpr int32_t LOG_ODD = 3;
constexpr int32_t LOG_EVENT = 5;

constexpr int32_t LOG_LINES_MAX = 200; /* in a second */

/* Lines go to the system's logger from now on. */
void log_to_system();

/* Writes a line; bytes that are not fit for a terminal are escaped. */
void log_line(int32_t severity, const std::string& text);

#endif
