/* How long records are in the packed form that replies have them in. For clients, which link the
 * client library, and for plug-ins, which find the names in the service. <lyrane/client.h> has the
 * decoders of that form.
 *
 * [any thread], no lock needed. */
#ifndef LYRANE_PACKED_H
#define LYRANE_PACKED_H

#include <lyrane/records.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Packed size in bytes of `count` records back to back; 0 for null or a count below 1, -1 with
 * errno EOVERFLOW when it does not fit the result. */
int32_t compute_media_node_size(const medianode* nodes, int32_t count) LYR_NOEXCEPT;
int32_t compute_metadata_size(const metadata* data, int32_t count) LYR_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
