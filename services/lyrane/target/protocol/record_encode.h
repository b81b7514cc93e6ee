/* Encoders of the packed records in replies, see record_layout.h. The sizes are in
 * <lyrane/packed.h>, the decoders in <lyrane/client.h>. */
#ifndef LYRANE_RECORD_ENCODE_H
#define LYRANE_RECORD_ENCODE_H

#include <cstdint>

#include <lyrane/packed.h>

extern "C" {

/* Writes `count` records to `buffer`, which has room for their packed size, and stores the bytes
 * written. Null records or a count below 1 write nothing. */
void pack_media_source(const mediasource* sources, int32_t count, void* buffer,
                       int32_t* size) noexcept;
void pack_media_node(const medianode* nodes, int32_t count, void* buffer, int32_t* size) noexcept;
void pack_metadata(const metadata* data, int32_t count, void* buffer, int32_t* size) noexcept;
}

/* Packed size in bytes; 0 for null or a count below 1, -1 with errno EOVERFLOW when it does not
 * fit the result. */
int32_t compute_media_source_size(const mediasource* sources, int32_t count) noexcept;

#endif
