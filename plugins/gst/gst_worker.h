/* The thread of a player. */
#ifndef LYRANE_GST_WORKER_H
#define LYRANE_GST_WORKER_H

#include "gst_wish.h"

/* Serves the player until it is closed and its pipeline is down, and calls `released` last. Memory
 * that cannot be had ends the process here, as it does in GLib. */
void gst_worker_serve(gst_player* player) noexcept;

#endif
