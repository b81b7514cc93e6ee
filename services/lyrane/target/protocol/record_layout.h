/* The layouts of packed records, shared by encoders and decoders: the integers that every record
 * begins with, in native byte order and unaligned; its strings follow, each an i32 length (-1:
 * absent) and its bytes; records stand back to back. docs/protocol.md tells clients the same. */
#ifndef LYRANE_RECORD_LAYOUT_H
#define LYRANE_RECORD_LAYOUT_H

#include <cstddef>
#include <cstdint>

#include <lyrane/records.h>

struct __attribute__((packed)) packed_media_source {
    int32_t id;
    int32_t type;
    int32_t status;
    uint64_t capabilities;
};
static_assert(offsetof(packed_media_source, status) == 8);
static_assert(offsetof(packed_media_source, capabilities) == 12);
static_assert(sizeof(packed_media_source) == 20);

struct __attribute__((packed)) packed_media_node {
    int32_t type;
    int32_t count;
    int32_t ms_id;
    int32_t ms_type;
};
static_assert(offsetof(packed_media_node, count) == 4);
static_assert(offsetof(packed_media_node, ms_type) == 12);
static_assert(sizeof(packed_media_node) == 16);

struct __attribute__((packed)) packed_metadata {
    int32_t duration;
    int32_t width;
    int32_t height;
    int32_t disc;
    int32_t track;
};
static_assert(offsetof(packed_metadata, height) == 8);
static_assert(offsetof(packed_metadata, track) == 16);
static_assert(sizeof(packed_metadata) == 20);

/* Bytes of a record without those of its strings: the least that one takes. */
constexpr int32_t PACKED_MEDIA_SOURCE_SIZE = 20 + 3 * 4;
constexpr int32_t PACKED_MEDIA_NODE_SIZE = 16 + 2 * 4;
constexpr int32_t PACKED_METADATA_SIZE = 20 + 7 * 4;

/* The records in memory are laid out by the compiler's rules for C, not as on the wire; programs
 * and plug-ins are built against exactly this. */
static_assert(sizeof(void*) != 8 ||
              (offsetof(lyr_ms, uid) == 8 && offsetof(lyr_ms, view_name) == 24 &&
               offsetof(lyr_ms, type) == 32 && offsetof(lyr_ms, capabilities) == 40 &&
               sizeof(lyr_ms) == 48));
static_assert(sizeof(void*) != 8 ||
              (offsetof(lyr_ms_node, name) == 8 && offsetof(lyr_ms_node, type) == 16 &&
               offsetof(lyr_ms_node, ms_type) == 28 && sizeof(lyr_ms_node) == 32));
static_assert(sizeof(void*) != 8 ||
              (offsetof(lyr_ms_node_metadata, duration) == 8 &&
               offsetof(lyr_ms_node_metadata, artwork) == 16 &&
               offsetof(lyr_ms_node_metadata, width) == 56 &&
               offsetof(lyr_ms_node_metadata, extra) == 72 && sizeof(lyr_ms_node_metadata) == 80));
static_assert(sizeof(void*) != 8 ||
              (offsetof(mediasource, type) == 32 && offsetof(mediasource, capabilities) == 40 &&
               offsetof(mediasource, plugin_name) == 56 && offsetof(mediasource, active) == 68 &&
               sizeof(mediasource) == 72));
static_assert(sizeof(void*) != 8 ||
              (offsetof(medianode, url) == 16 && offsetof(medianode, type) == 24 &&
               offsetof(medianode, ms_uid) == 40 && sizeof(medianode) == 48));
static_assert(sizeof(void*) != 8 ||
              (offsetof(metadata, duration) == 8 && offsetof(metadata, artwork) == 16 &&
               offsetof(metadata, width) == 56 && offsetof(metadata, extra) == 72 &&
               sizeof(metadata) == 80));

#endif
