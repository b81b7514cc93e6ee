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

/* What a call is about. */
struct plugin_watch_call {
    const char* plugin; /* that is entered: its library name as configured */
    const char* player; /* null: none */
    const char* entry;
    int32_t ms_id;               /* -1: about no media source */
    const char* owner = nullptr; /* the plug-in of that source; the thread may enter it next */
};

struct watch_slot;

/* Notes a call; its texts must stay until it is left. The slot, which may be null, is to be given
 * back with plugin_watch_leave on the same thread. [any thread] */
[[nodiscard]] watch_slot* plugin_watch_enter(const plugin_watch_call& call) noexcept;
void plugin_watch_leave(watch_slot* slot) noexcept;

/* 1 while a call into the plug-in, or about a source of it, is in progress. `plugin` is the very
 * text that calls into it are noted with; another one that reads the same is another plug-in's. A
 * call that there was no memory to note counts for every plug-in.
 * [any thread] */
int32_t plugin_watch_inside(const char* plugin) noexcept;

/* The call that the calling thread is in; false when it is in none. Safe in a signal handler. */
bool plugin_watch_here(plugin_watch_call* call) noexcept;

/* Since when (ms of the monotonic clock) the main thread has been inside the call that it is in; 0
 * when it is in none. [any thread] */
int64_t plugin_watch_main_since(void) noexcept;

#endif
