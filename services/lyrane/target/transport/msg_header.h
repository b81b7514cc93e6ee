/* The header at the start of every transport message and reply: 28 bytes, native byte order. */
#ifndef LYRANE_MSG_HEADER_H
#define LYRANE_MSG_HEADER_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

constexpr int16_t CSM_OPEN = 0x200;   /* payload: service name with its NUL */
constexpr int16_t CSM_CLOSE = 0x201;  /* no payload */
constexpr int16_t CSM_NOTIFY = 0x202; /* payload: the client's event, 16 bytes */
constexpr int16_t CSM_PUTGET = 0x203; /* payload: the request; the client waits for the reply */
constexpr int16_t CSM_PUT = 0x204;    /* payload: the request; the reply is queued */
constexpr int16_t CSM_GET = 0x205;    /* no payload; fetches a queued reply */

/* Reply status: the reply did not fit and waits in the queue. No errno has this value. */
constexpr int32_t CSM_STATUS_QUEUED = 240;

struct msg_header {
    int16_t type;
    int16_t code; /* the client caller's own; not read, not changed */
    int16_t service_index;
    int16_t connection_index;
    uint32_t tag;   /* names a queued reply */
    int32_t length; /* bytes of payload behind the header */
    int32_t size;   /* request: capacity of the reply buffer, or queue depth; reply: body length */
    uint32_t unused[2]; /* zero */
};

constexpr int32_t MSG_HEADER_SIZE = 28;
constexpr int32_t MSG_EVENT_SIZE = 16;

static_assert(sizeof(msg_header) == MSG_HEADER_SIZE);
static_assert(std::is_trivially_copyable_v<msg_header>);
static_assert(offsetof(msg_header, service_index) == 4);
static_assert(offsetof(msg_header, tag) == 8);
static_assert(offsetof(msg_header, length) == 12);
static_assert(offsetof(msg_header, size) == 16);

#endif
