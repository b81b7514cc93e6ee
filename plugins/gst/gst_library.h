/* GStreamer as this process uses it. */
#ifndef LYRANE_GST_LIBRARY_H
#define LYRANE_GST_LIBRARY_H

#include <string>

/* Gives the calling thread, and those that it starts, a umask of their own: the service's is 0, and
 * neither GStreamer nor its outputs say for whom what they make is. Before anything of GStreamer on
 * the thread. [worker] */
void gst_library_enter();

/* Starts GStreamer, with the first player: reading the registry of its plug-ins may take a while,
 * and nobody waits for a worker. Returns why it does not start, or nothing. [worker] */
std::string gst_library_start();

#endif
