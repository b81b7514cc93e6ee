/* Names calls into plug-ins that do not return.
 *
 * A call into a plug-in may hold up a player, and on the main thread every client. What is in
 * progress is noted in a table without locks; a thread of the watch's own looks at it twice a
 * second while there is something to see, sleeps otherwise, and says in the log (level 3) which
 * call has not returned within PLUGIN_WATCH_SECONDS. */
#ifndef LYRANE_PLUGIN_WATCH_H
#define LYRANE_PLUGIN_WATCH_H

#include <cstdint>

constexpr int32_t PLUGIN_WATCH_SECONDS = 2;

/* Notes a call; `entry` is a literal, `ms_id` the media source that it is about. The ticket is to
 * be given back with plugin_watch_leave on the same thread; -1 when too many calls are in progress
 * to note this one. [any thread] */
int32_t plugin_watch_enter(const char* entry, int32_t ms_id) noexcept;
void plugin_watch_leave(int32_t ticket) noexcept;

/* 1 while a call about the media source is in progress. [any thread] */
int32_t plugin_watch_inside(int32_t ms_id) noexcept;

#endif
