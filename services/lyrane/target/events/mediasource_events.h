/* What plug-ins report of media sources: arrival, departure, changes.
 *
 * [plug-in], or a thread inside set_mediasource_detection or cleanup; a call from inside any other
 * entry is refused. Each event holds the media-source lock, which keeps the events and their
 * publications in one order, and takes the player locks one at a time inside it. Fields of a source
 * that change together are stored under registry_leaf, so who reads under that alone sees no half
 * event. Results and arguments: <lyrane/plugin.h>. */
#ifndef LYRANE_MEDIASOURCE_EVENTS_H
#define LYRANE_MEDIASOURCE_EVENTS_H

#include <cstdint>

extern "C" {

int32_t lyrane_internal_mediasource_connected(int32_t plugin_id, const char* uid, const char* name,
                                              const char* view_name, int32_t type,
                                              uint64_t capabilities, int32_t status) noexcept;
int32_t lyrane_internal_mediasource_disconnected(int32_t ms_id) noexcept;
int32_t lyrane_internal_mediasource_status_changed(int32_t ms_id, int32_t status) noexcept;
int32_t lyrane_internal_mediasource_capability_changed(int32_t ms_id,
                                                       uint64_t capabilities) noexcept;

/* 0 when `callback_data` is a player of the registry, else -1 with errno EINVAL. Only an answer:
 * the player may be closed the moment this returns. */
int32_t validate_callback_data(const void* callback_data) noexcept;
}

#endif
