/* The part of a file that is played. */
#include "gst_extent.h"

#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

static constexpr int64_t APE_MARK = 32;   /* bytes of a tag's header, and of its footer */
static constexpr int64_t ID3V1_TAG = 128; /* bytes; stands behind an APE tag */
static constexpr uint32_t APE_HAS_HEADER = 0x80000000;
static constexpr int TAGS_MOST = 8; /* at each end */

/* A header or a footer. */
struct ape_mark {
    int64_t size;    /* of the items and the footer, in bytes, as it says */
    bool has_header; /* of a footer: there is a header, too */
};

static uint32_t little_endian(const unsigned char* bytes) noexcept {
    return bytes[0] | static_cast<uint32_t>(bytes[1]) << 8 | static_cast<uint32_t>(bytes[2]) << 16 |
           static_cast<uint32_t>(bytes[3]) << 24;
}

static bool read_mark(int fd, int64_t at, ape_mark* mark) noexcept {
    unsigned char bytes[APE_MARK];
    if (at < 0 || pread(fd, bytes, sizeof bytes, at) != sizeof bytes ||
        std::memcmp(bytes, "APETAGEX", 8) != 0) {
        return false;
    }
    *mark = {little_endian(bytes + 12), (little_endian(bytes + 20) & APE_HAS_HEADER) != 0};
    return true;
}

static bool has_id3v1(int fd, int64_t at) noexcept {
    char bytes[3];
    return at >= 0 && pread(fd, bytes, sizeof bytes, at) == sizeof bytes &&
           std::memcmp(bytes, "TAG", sizeof bytes) == 0;
}

/* Finds the footer of a tag that ends the file, or stands before an ID3v1 tag that does. */
static bool find_footer(int fd, int64_t end, int64_t* at, ape_mark* mark) noexcept {
    *at = end - APE_MARK;
    if (read_mark(fd, *at, mark)) {
        return true;
    }
    *at -= ID3V1_TAG;
    return has_id3v1(fd, end - ID3V1_TAG) && read_mark(fd, *at, mark);
}

gst_extent gst_extent_of(int fd) noexcept {
    gst_extent extent;
    struct stat facts = {};
    if (fstat(fd, &facts) != 0) {
        return extent;
    }
    int64_t end = facts.st_size;
    ape_mark mark = {};
    for (int tags = 0; tags < TAGS_MOST && read_mark(fd, extent.begin, &mark); ++tags) {
        const bool sound = mark.size >= APE_MARK && mark.size <= end - extent.begin - APE_MARK;
        extent.begin += APE_MARK + (sound ? mark.size : 0);
    }
    int64_t at = 0;
    for (int tags = 0; tags < TAGS_MOST && find_footer(fd, end, &at, &mark); ++tags) {
        const int64_t items = mark.size + (mark.has_header ? APE_MARK : 0) - APE_MARK;
        end = items >= 0 && items <= at - extent.begin ? at - items : at;
        extent.end = end;
    }
    return extent;
}
