/* Deferred replies: the queue of a connection, and what the dispatch needs of it. */
#ifndef LYRANE_REPLY_H
#define LYRANE_REPLY_H

#include <cstdint>

#include "msgserver.h"

/* A reply that waits to be fetched; one allocation, `length` bytes of data behind it. */
struct reply_entry {
    reply_entry* next; /* the next older one */
    uint32_t tag;
    int32_t length;
    int32_t status;
};

inline unsigned char* reply_entry_data(reply_entry* entry) {
    return reinterpret_cast<unsigned char*>(entry + 1);
}

extern "C" {

/* Serves CSM_GET: answers the message in the context with the newest queued reply of its tag. */
void reply_fetch(osb* connection, recv_context* context) noexcept;

/* Before a thread receives again: answers a CSM_PUTGET that its worker left without a reply. A
 * CSM_PUT is left to reply2. */
void reply_settle(recv_context* context) noexcept;

/* Whether one more reply, of whatever size, may be queued. */
bool reply_queue_has_room(const osb* connection) noexcept VEL_REQUIRES(connection->server->lock);

/* Frees all entries. */
void reply_queue_clear(osb* connection) noexcept VEL_REQUIRES(connection->server->lock);
}

#endif
