/* Sessions of both tables. */
#ifndef FAKE_SESSIONS_H
#define FAKE_SESSIONS_H

#include <cstdint>

#include <lyrane/plugin.h>

#include "fake_calls.h"

/* The log's record of a call on a session. */
fake_call session_call(const char* entry, const void* handle);

/* The same with the session looked up; noted when the handle is not a live session of the kind. */
fake_call session_checked_call(const char* entry, const void* handle, bool plays);

void* session_create(const char* entry, bool plays, int32_t ms_id, void* data);
int32_t session_destroy(const char* entry, bool plays, void* handle);

/* The tables at first; the copies in use are in fake_table.cc. */
extern const lyr_play_api fake_play_entries;
extern const lyr_browse_api fake_browse_entries;

#endif
