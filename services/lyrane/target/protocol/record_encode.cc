#include "record_encode.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include "record_layout.h"

/* Writes one after the other; the caller has measured the room. */
struct packer {
    unsigned char* at;
};

static void put(packer* p, const void* value, size_t bytes) noexcept {
    memcpy(p->at, value, bytes);
    p->at += bytes;
}

static void put_text(packer* p, const char* text) noexcept {
    const size_t length = text != nullptr ? strlen(text) : 0;
    const int32_t wire_length = text != nullptr ? static_cast<int32_t>(length) : -1;
    put(p, &wire_length, sizeof wire_length);
    if (length > 0) {
        put(p, text, length);
    }
}

static int64_t text_size(const char* text) noexcept {
    return text != nullptr ? static_cast<int64_t>(strlen(text)) : 0;
}

/* A size on the wire; -1 when there is no such number. */
static int32_t wire_size(int64_t size) noexcept {
    if (size > INT32_MAX) {
        errno = EOVERFLOW;
        return -1;
    }
    return static_cast<int32_t>(size);
}

static int32_t written(const packer* p, const void* buffer) noexcept {
    return static_cast<int32_t>(p->at - static_cast<const unsigned char*>(buffer));
}

extern "C" {

void pack_media_source(const mediasource* sources, int32_t count, void* buffer,
                       int32_t* size) noexcept {
    packer p = {static_cast<unsigned char*>(buffer)};
    for (int32_t i = 0; sources != nullptr && i < count; ++i) {
        const mediasource* source = &sources[i];
        const packed_media_source head = {source->id, source->type, source->status,
                                          source->capabilities};
        put(&p, &head, sizeof head);
        put_text(&p, source->uid);
        put_text(&p, source->name);
        put_text(&p, source->view_name);
    }
    *size = written(&p, buffer);
}

void pack_media_node(const medianode* nodes, int32_t count, void* buffer, int32_t* size) noexcept {
    packer p = {static_cast<unsigned char*>(buffer)};
    for (int32_t i = 0; nodes != nullptr && i < count; ++i) {
        const medianode* node = &nodes[i];
        const packed_media_node head = {node->type, node->count, node->ms_id, node->ms_type};
        put(&p, &head, sizeof head);
        put_text(&p, node->id);
        put_text(&p, node->name);
    }
    *size = written(&p, buffer);
}

void pack_metadata(const metadata* data, int32_t count, void* buffer, int32_t* size) noexcept {
    packer p = {static_cast<unsigned char*>(buffer)};
    for (int32_t i = 0; data != nullptr && i < count; ++i) {
        const metadata* record = &data[i];
        const packed_metadata head = {record->duration, record->width, record->height, record->disc,
                                      record->track};
        put(&p, &head, sizeof head);
        put_text(&p, record->title);
        put_text(&p, record->artwork);
        put_text(&p, record->artist);
        put_text(&p, record->album);
        put_text(&p, record->genre);
        put_text(&p, record->year);
        put_text(&p, record->extra);
    }
    *size = written(&p, buffer);
}

int32_t compute_media_node_size(const medianode* nodes, int32_t count) noexcept {
    int64_t size = 0;
    for (int32_t i = 0; nodes != nullptr && i < count; ++i) {
        size += PACKED_MEDIA_NODE_SIZE + text_size(nodes[i].id) + text_size(nodes[i].name);
    }
    return wire_size(size);
}

int32_t compute_metadata_size(const metadata* data, int32_t count) noexcept {
    int64_t size = 0;
    for (int32_t i = 0; data != nullptr && i < count; ++i) {
        const metadata* record = &data[i];
        size += PACKED_METADATA_SIZE + text_size(record->title) + text_size(record->artwork) +
                text_size(record->artist) + text_size(record->album) + text_size(record->genre) +
                text_size(record->year) + text_size(record->extra);
    }
    return wire_size(size);
}
}

int32_t compute_media_source_size(const mediasource* sources, int32_t count) noexcept {
    int64_t size = 0;
    for (int32_t i = 0; sources != nullptr && i < count; ++i) {
        size += PACKED_MEDIA_SOURCE_SIZE + text_size(sources[i].uid) + text_size(sources[i].name) +
                text_size(sources[i].view_name);
    }
    return wire_size(size);
}
