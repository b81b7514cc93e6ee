/* One request on its way through the handlers. */
#ifndef LYRANE_REQUEST_CALL_H
#define LYRANE_REQUEST_CALL_H

#include <cstdint>

#include <sys/uio.h>

#include "control.h"
#include "msgserver.h"
#include "player.h"
#include "request_reader.h"

/* Lives on the message-loop thread for the time of one request. */
struct request_call {
    control_block* control;
    osb* connection;
    recv_context* context;
    ::player* player; /* of the connection's slot, which holds a pin; or null */
    request_reader reader;
    bool is_logged; /* with its answer, see request_log.h */
};

/* Handlers read their fields, act, and make exactly one reply. */
using request_handler = void (*)(request_call*);

/* The request header: the type and 14 bytes that nobody reads. */
constexpr int64_t REQUEST_HEADER_SIZE = 16;

/* The request of a context's message, its reader at an offset of the payload. */
request_call request_call_make(osb* connection, recv_context* context, int64_t at) noexcept;

/* The connection's player slot. */
player* request_slot(const osb* connection) noexcept;
/* Replaces it; takes over the pin of `player` (may be null), drops that of the earlier one. */
void request_set_slot(osb* connection, player* player) noexcept;

/* Replies with status 0: the result alone; the result and more pieces (count at most 7). */
void request_reply(request_call* call, int32_t result) noexcept;
void request_replyv(request_call* call, int32_t result, const iovec* pieces,
                    int32_t count) noexcept;
/* A whole body, which begins with the result. */
void request_reply_body(request_call* call, const void* body, int32_t size) noexcept;
/* An empty body with a status. */
void request_reply_status(request_call* call, int32_t status) noexcept;

/* Answers -1 and says at level 6 what was wrong, once the reader found the request malformed.
 * True when it did: nothing else may happen then. */
bool request_malformed(request_call* call) noexcept;

/* Players and states. */
void handle_open(request_call* call) noexcept;
void handle_close(request_call* call) noexcept;
void handle_get_current_state(request_call* call) noexcept;
/* Track sessions. */
void handle_get_trksession_info(request_call* call) noexcept;
void handle_get_current_track_position(request_call* call) noexcept;
void handle_get_trksession_tracks(request_call* call) noexcept;
void handle_create_trksession(request_call* call) noexcept;
void handle_create_trksessionv(request_call* call) noexcept;
void handle_destroy_trksession(request_call* call) noexcept;
/* Media. */
void handle_browse(request_call* call) noexcept;
void handle_search(request_call* call) noexcept;
void handle_get_extended_metadata(request_call* call) noexcept;
/* Playback commands. */
void handle_play(request_call* call) noexcept;
void handle_stop(request_call* call) noexcept;
void handle_pause(request_call* call) noexcept;
void handle_jump(request_call* call) noexcept;
void handle_next(request_call* call) noexcept;
void handle_previous(request_call* call) noexcept;
void handle_seek(request_call* call) noexcept;
void handle_set_speed(request_call* call) noexcept;
void handle_shuffle(request_call* call) noexcept;
void handle_repeat(request_call* call) noexcept;

/* A rate as text in the form of "%f", whatever the locale. */
constexpr int32_t RATE_TEXT_SIZE = 64;
void request_rate_text(float rate, char* text) noexcept;

#endif
