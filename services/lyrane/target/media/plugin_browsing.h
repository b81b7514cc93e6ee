/* The calls in progress that ask a source for something (listings, metadata, saved nodes brought up
 * to date), so that a source that has gone can end them.
 *
 * Such a call holds its player's lock, or runs on a build thread; a disconnection that needs the
 * same lock would wait for a device that no longer answers. */
#ifndef LYRANE_PLUGIN_BROWSING_H
#define LYRANE_PLUGIN_BROWSING_H

#include <cstdint>

#include "media.h"

/* One call, on the stack of the thread that makes it. */
struct browse_in_progress {
    const mediasource_session* session;
    browse_in_progress* next;
    uint32_t swept;     /* the last sweep that cancelled it */
    int32_t cancelling; /* sweeps that are just doing so */
};

/* Around the call. Leaving waits until nobody is cancelling it. */
void plugin_browsing_enter(browse_in_progress* call) noexcept;
void plugin_browsing_leave(browse_in_progress* call) noexcept;

/* Calls cancel_browse for every call in progress on the media source. A call that has been entered
 * here but has not reached the plug-in yet is not ended by that; who waits for one calls this
 * again. [any thread, no player lock needed] */
void plugin_browsing_cancel(int32_t ms_id) noexcept;

#endif
