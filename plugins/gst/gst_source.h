/* The element that reads the file of a track from its descriptor, so that what is played is what
 * was opened and checked, whatever has the file's name by then. It reads at any place, as the one
 * for paths does: tracks are found, measured and moved in like with that one. */
#ifndef LYRANE_GST_SOURCE_H
#define LYRANE_GST_SOURCE_H

#include <gst/gst.h>

/* Stands before the URI of a file for this element to be taken. The file's name tells GStreamer
 * what kind of file to try first, and nothing else. */
#define GST_SOURCE_PREFIX "lyrane-"

/* Makes the element known to GStreamer; false when that fails. Once, after GStreamer has started.
 */
bool gst_source_register();

/* Hands the descriptor of a plain file over to an element that was made for such a URI; the element
 * closes it in the state NULL. False, with nothing taken, for another element. [the thread that
 * makes the element, before it starts] */
bool gst_source_give(GstElement* element, int fd);

#endif
