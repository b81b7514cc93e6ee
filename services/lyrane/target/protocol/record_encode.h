/* Encoders of the packed records in replies, see record_layout.h. The decoders are in
 * <lyrane/client.h>. */
#ifndef LYRANE_RECORD_ENCODE_H
#define LYRANE_RECORD_ENCODE_H

#include <cstdint>

#include <lyrane/records.h>

extern "C" {

/* Writes `count` records to `buffer`, which has room for their packed size, and stores the bytes
 * written. Null records or a count below 1 write nothing. */
void pack_media_source(const mediasource* sources, int32_t count, void* buffer,
                       int32_t* size) noexcept;
void pack_media_node(const medianode* nodes, int32_t count, void* buffer, int32_t* size) noexcept;
void pack_metadata(const metadata* data, int32_t count, void* buffer, int32_t* size) noexcept;

/* Packed size in bytes; 0 for null or a count below 1, -1 with errno EOVERFLOW when it does not
 * fit the result. */
int32_t compute_media_node_size(const medianode* nodes, int32_t count) noexcept;
int32_t compute_metadata_size(const metadata* data, int32_t count) noexcept;
}

/* The same for media sources. */
int32_t compute_media_source_size(const mediasource* sources, int32_t count) noexcept;

#endif
