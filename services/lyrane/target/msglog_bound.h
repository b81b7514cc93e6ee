/* A bound on the lines of the log, so that nobody can fill the disk or drown the lines of others.
 *
 * A writer is the user whose request a thread serves, or else the thread itself. */
#ifndef LYRANE_MSGLOG_BOUND_H
#define LYRANE_MSGLOG_BOUND_H

#include <cstdint>

constexpr int32_t MSGLOG_LINES_MAX = 1000; /* of one writer in one second */

/* Who writes a line: the user's id, or below 0 the negative id of the thread. */
using msglog_writer = int64_t;
/* All those that the table has no room for, together. */
constexpr msglog_writer MSGLOG_WRITER_OTHERS = INT64_MIN;

struct msglog_gap {
    msglog_writer writer;
    uint64_t lines; /* left out; 0: nothing is to be told */
};

/* Counts a line; false when it is to be left out. Never waits: while another thread is counting,
 * the line is written uncounted. [any thread] */
bool msglog_admit(msglog_writer writer) noexcept;

/* Whether something was left out and not told yet. For the way of each request. [any thread] */
bool msglog_has_gap(void) noexcept;

/* What was left out of one writer in seconds before this one, and was not told yet. Never waits.
 * [any thread] */
msglog_gap msglog_take_gap(void) noexcept;

#endif
