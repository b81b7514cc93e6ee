/* Decoders of packed records: from the bytes of a reply to records of the caller's own.
 *
 * The bytes come from another process, so nothing in them is believed: no count and no length is
 * used before it was compared with the bytes that are there. */
#include <lyrane/client.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "record_layout.h"

namespace {

/* What is left to read. After the first failure `failed` stays and nothing is read any more. */
struct cursor {
    const unsigned char* at;
    size_t left;
    bool failed;
};

void read_bytes(cursor* from, void* value, size_t size) {
    if (from->failed || from->left < size) {
        from->failed = true;
        return;
    }
    memcpy(value, from->at, size);
    from->at += size;
    from->left -= size;
}

/* A packed string; absent (any negative length) and empty both leave null. */
void read_text(cursor* from, char** text) {
    int32_t length = -1;
    read_bytes(from, &length, sizeof length);
    if (from->failed || length <= 0) {
        return;
    }
    const auto size = static_cast<size_t>(length);
    if (from->left < size) {
        from->failed = true;
        return;
    }
    *text = static_cast<char*>(std::malloc(size + 1));
    if (*text == nullptr) {
        from->failed = true;
        return;
    }
    memcpy(*text, from->at, size);
    (*text)[size] = '\0';
    from->at += size;
    from->left -= size;
}

void read_source(cursor* from, lyr_ms* source) {
    packed_media_source head = {};
    read_bytes(from, &head, sizeof head);
    source->id = head.id;
    source->type = head.type;
    source->status = head.status;
    source->capabilities = head.capabilities;
    read_text(from, &source->uid);
    read_text(from, &source->name);
    read_text(from, &source->view_name);
}

void read_node(cursor* from, lyr_ms_node* node) {
    packed_media_node head = {};
    read_bytes(from, &head, sizeof head);
    node->type = head.type;
    node->count = head.count;
    node->ms_id = head.ms_id;
    node->ms_type = head.ms_type;
    read_text(from, &node->id);
    read_text(from, &node->name);
}

void read_metadata(cursor* from, lyr_ms_node_metadata* data) {
    packed_metadata head = {};
    read_bytes(from, &head, sizeof head);
    data->duration = head.duration;
    data->width = head.width;
    data->height = head.height;
    data->disc = head.disc;
    data->track = head.track;
    read_text(from, &data->title);
    read_text(from, &data->artwork);
    read_text(from, &data->artist);
    read_text(from, &data->album);
    read_text(from, &data->genre);
    read_text(from, &data->year);
    read_text(from, &data->extra);
}

void release_sources(lyr_ms* sources, int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
        std::free(sources[i].uid);
        std::free(sources[i].name);
        std::free(sources[i].view_name);
    }
    std::free(sources);
}

void release_metadata(lyr_ms_node_metadata* data, int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
        for (char* text : {data[i].title, data[i].artwork, data[i].artist, data[i].album,
                           data[i].genre, data[i].year, data[i].extra}) {
            std::free(text);
        }
    }
    std::free(data);
}

/* Zeroed records for a count that the bytes can hold; null when they cannot, or without memory. */
void* make_records(const void* buffer, int32_t size, int32_t count, int32_t least,
                   size_t record_size) {
    if (buffer == nullptr || size < 1 || count < 1 || count > size / least) {
        return nullptr;
    }
    return std::calloc(static_cast<size_t>(count), record_size);
}

cursor begin(const void* buffer, int32_t size) {
    return {static_cast<const unsigned char*>(buffer), static_cast<size_t>(size), false};
}

} // namespace

extern "C" {

int32_t unpack_media_source(const void* buffer, int32_t size, int32_t count,
                            lyr_ms** records) noexcept {
    *records = static_cast<lyr_ms*>(
        make_records(buffer, size, count, PACKED_MEDIA_SOURCE_SIZE, sizeof(lyr_ms)));
    if (*records == nullptr) {
        return -1;
    }
    cursor from = begin(buffer, size);
    for (int32_t i = 0; i < count && !from.failed; ++i) {
        read_source(&from, &(*records)[i]);
    }
    if (from.failed) {
        release_sources(*records, count);
        *records = nullptr;
        return -1;
    }
    return 0;
}

int32_t unpack_media_node(const void* buffer, int32_t size, int32_t count,
                          lyr_ms_node** records) noexcept {
    *records = static_cast<lyr_ms_node*>(
        make_records(buffer, size, count, PACKED_MEDIA_NODE_SIZE, sizeof(lyr_ms_node)));
    if (*records == nullptr) {
        return -1;
    }
    cursor from = begin(buffer, size);
    for (int32_t i = 0; i < count && !from.failed; ++i) {
        read_node(&from, &(*records)[i]);
    }
    if (from.failed) {
        free_lyr_ms_nodes(records, count);
        return -1;
    }
    return 0;
}

int32_t unpack_metadata(const void* buffer, int32_t size, int32_t count,
                        lyr_ms_node_metadata** records) noexcept {
    *records = static_cast<lyr_ms_node_metadata*>(
        make_records(buffer, size, count, PACKED_METADATA_SIZE, sizeof(lyr_ms_node_metadata)));
    if (*records == nullptr) {
        return -1;
    }
    cursor from = begin(buffer, size);
    for (int32_t i = 0; i < count && !from.failed; ++i) {
        read_metadata(&from, &(*records)[i]);
    }
    if (from.failed) {
        release_metadata(*records, count);
        *records = nullptr;
        return -1;
    }
    return 0;
}
}
