/* The part of a file that is played: all of it but APE tags at its ends.
 *
 * GStreamer's element for these tags ends the process when a tag lies about its size, so it is not
 * used; without it, nobody would know what to do with a file that has such a tag. */
#ifndef LYRANE_GST_EXTENT_H
#define LYRANE_GST_EXTENT_H

#include <cstdint>

struct gst_extent {
    int64_t begin = 0;
    int64_t end = -1; /* -1: as far as the file goes, which may grow */
};

/* Looks at both ends of a plain file. A tag whose size cannot be true loses its mark only, so that
 * nothing takes it for one. [any thread] */
gst_extent gst_extent_of(int fd) noexcept;

#endif
