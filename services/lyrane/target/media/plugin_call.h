/* The one room through which every call into a plug-in's session goes.
 *
 * It tests table, entry and session handle, marks the calling thread as being inside a plug-in, so
 * that a callback made from there can be refused instead of locking itself out, and checks what
 * the plug-in hands back before anybody uses it.
 *
 * All functions return what the entry returned; -1 with errno ENOTSUP when half, handle or entry is
 * missing. The caller holds the player lock, or is the build thread of the session (browse and
 * get_metadata only); a call in progress is cancelled without any. */
#ifndef LYRANE_PLUGIN_CALL_H
#define LYRANE_PLUGIN_CALL_H

#include <cstdint>

#include "media.h"

/* 1 while the calling thread is inside a call that the service made with a player lock held, or
 * from a build thread. */
int32_t plugin_call_inside(void) noexcept;

/* 1 when a half can be used. */
int32_t plugin_call_can_play(const mediasource_session* session) noexcept;
int32_t plugin_call_can_browse(const mediasource_session* session) noexcept;

/* Opening and closing a half of a session whose other fields, the name of the half's plug-in among
 * them, are set. Null when the plug-in has no such entry or gives none. */
void* plugin_call_play_create(const lyr_play_api* api, const mediasource_session* session,
                              void* data) noexcept;
void* plugin_call_browse_create(const lyr_browse_api* api, const mediasource_session* session,
                                void* data) noexcept;
void plugin_call_play_destroy(const mediasource_session* session) noexcept;
void plugin_call_browse_destroy(const mediasource_session* session) noexcept;

int32_t plugin_call_attach(const mediasource_session* session, const medianode* node) noexcept;
int32_t plugin_call_play(const mediasource_session* session) noexcept;
int32_t plugin_call_pause(const mediasource_session* session) noexcept;
int32_t plugin_call_stop(const mediasource_session* session) noexcept;
int32_t plugin_call_set_rate(const mediasource_session* session, float rate) noexcept;
int32_t plugin_call_seek(const mediasource_session* session, int32_t position) noexcept;
int32_t plugin_call_next(const mediasource_session* session) noexcept;
int32_t plugin_call_previous(const mediasource_session* session) noexcept;
int32_t plugin_call_shuffle(const mediasource_session* session, int32_t mode) noexcept;
int32_t plugin_call_repeat(const mediasource_session* session, int32_t mode) noexcept;

/* On success *count is at least 0 and *nodes is an array of that many records (null for 0) that
 * the caller owns; what a plug-in delivers beyond *count is dropped, and anything else is answered
 * for with -1, EIO. On failure
 * *nodes is null. */
int32_t plugin_call_browse(const mediasource_session* session, const char* node_id, int32_t offset,
                           int32_t* count, medianode** nodes) noexcept;
int32_t plugin_call_search(const mediasource_session* session, const char* filter, const char* key,
                           int32_t offset, int32_t* count, medianode** nodes) noexcept;
/* *data may be a record whatever the result; the caller frees it. */
int32_t plugin_call_get_metadata(const mediasource_session* session, const char* node_id,
                                 metadata** data) noexcept;
int32_t plugin_call_get_extended_metadata(const mediasource_session* session, const char* node_id,
                                          const char* const* keys, char** values) noexcept;
int32_t plugin_call_update_medianodes(const mediasource_session* session, int32_t count,
                                      medianode* nodes) noexcept;
/* Nothing when the plug-in cannot cancel. */
void plugin_call_cancel_browse(const mediasource_session* session) noexcept;

#endif
