/* Every call into a session of the plug-in. The thread is marked as being inside, so that a
 * callback from there is noticed, and the entry's name is there for the watching process. A missing
 * entry is answered with CALL_MISSING. Except for browse, search and the metadata, which a build
 * thread may call without it, the caller holds the player lock or calls for a session that no
 * player has. */
#ifndef PLUGINCHECK_CALL_H
#define PLUGINCHECK_CALL_H

#include <cstdint>

#include "host.h"

constexpr int32_t CALL_MISSING = INT32_MIN;

/* The entry that the calling thread is inside of, or null. */
const char* call_inside();

void* call_play_create(int32_t ms_id, void* data);
void* call_browse_create(int32_t ms_id, void* data);
int32_t call_play_destroy(void* handle);
int32_t call_browse_destroy(void* handle);

/* The play entries without a number, by name. */
enum class play_entry { play, pause, stop, next, previous };
const char* call_name(play_entry entry);
bool call_has(play_entry entry);
int32_t call_play(host_session* session, play_entry entry);

int32_t call_attach(host_session* session, const node_copy& node);
int32_t call_seek(host_session* session, int32_t position);
int32_t call_rate(host_session* session, float rate);
int32_t call_shuffle(host_session* session, int32_t mode);
int32_t call_repeat(host_session* session, int32_t mode);

int32_t call_browse(host_session* session, const char* id, int32_t offset, int32_t* count,
                    medianode** nodes);
int32_t call_search(host_session* session, const char* filter, const char* key, int32_t offset,
                    int32_t* count, medianode** nodes);
int32_t call_metadata(host_session* session, const char* id, metadata** data);
int32_t call_extended(host_session* session, const char* id, const char* const* keys,
                      char** values);
int32_t call_update(host_session* session, int32_t count, medianode* nodes);
int32_t call_cancel(host_session* session);

#endif
