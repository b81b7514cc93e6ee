/* The request catalogue and its dispatch. */
#include "service.h"

#include <cerrno>

#include <lyrane/client.h>

#include "msglog.h"
#include "player_registry.h"
#include "request_call.h"
#include "request_log.h"

static void query_media_sources(request_call* call) noexcept {
    (void)handle_get_media_sources(call->connection, call->context);
}
static void query_current_track_info(request_call* call) noexcept {
    (void)handle_get_current_track_info(call->connection, call->context);
}
static void query_metadata(request_call* call) noexcept {
    (void)handle_get_metadata(call->connection, call->context);
}

/* One request of the catalogue. */
struct request_entry {
    uint16_t type;
    const char* arrival; /* logged when it comes in */
    int32_t least;       /* bytes of its fixed fields, the header not counted */
    bool needs_player;   /* answered -1 on a connection that has opened none */
    request_handler handler;
};

static constexpr request_entry catalogue[] = {
    {LYR_MSG_OPEN, "open msg received", 4, false, handle_open},
    {LYR_MSG_CLOSE, "close msg received", 4, false, handle_close},
    {LYR_MSG_GET_MEDIA_SOURCE, "get_media_source msg received", 0, false, query_media_sources},
    {LYR_MSG_GET_CURRENT_STATE, "get_current_state msg received", 0, true,
     handle_get_current_state},
    {LYR_MSG_GET_TRKSESSION_INFO, "get_trksession_info msg received", 0, true,
     handle_get_trksession_info},
    {LYR_MSG_GET_CURRENT_TRACK_INFO, "get_current_track_info msg received", 0, true,
     query_current_track_info},
    {LYR_MSG_GET_CURRENT_TRACK_POSITION, "get_current_track_position msg received", 0, true,
     handle_get_current_track_position},
    {LYR_MSG_BROWSE, "browse msg received", 16, true, handle_browse},
    {LYR_MSG_SEARCH, "search msg received", 20, true, handle_search},
    {LYR_MSG_GET_TRKSESSION_TRACKS, "get_trksession_tracks msg received", 16, true,
     handle_get_trksession_tracks},
    {LYR_MSG_GET_METADATA, "get_metadata received", 8, true, query_metadata},
    {LYR_MSG_GET_EXTENDED_METADATA, "get_extended_metadata received", 12, true,
     handle_get_extended_metadata},
    {LYR_MSG_CREATE_TRKSESSION, "create trksession msg received", 16, true,
     handle_create_trksession},
    {LYR_MSG_CREATE_TRKSESSIONV, "create trksessionv msg received", 0, false,
     handle_create_trksessionv},
    {LYR_MSG_DESTROY_TRKSESSION, "destroy trksession msg received", 8, true,
     handle_destroy_trksession},
    {LYR_MSG_PLAY, "play msg received", 0, true, handle_play},
    {LYR_MSG_STOP, "stop msg received", 0, true, handle_stop},
    {LYR_MSG_PAUSE, "pause msg received", 0, true, handle_pause},
    {LYR_MSG_JUMP, "jump msg received", 4, true, handle_jump},
    {LYR_MSG_NEXT, "next msg received", 0, true, handle_next},
    {LYR_MSG_PREVIOUS, "previous msg received", 0, true, handle_previous},
    {LYR_MSG_SEEK, "seek msg received", 4, true, handle_seek},
    {LYR_MSG_SET_SPEED, "set_speed msg received", 4, true, handle_set_speed},
    {LYR_MSG_SHUFFLE, "shuffle msg received", 4, true, handle_shuffle},
    {LYR_MSG_REPEAT, "repeat msg received", 4, true, handle_repeat},
};
static constexpr int32_t REQUESTS = sizeof catalogue / sizeof catalogue[0];

static constexpr bool catalogue_in_order(void) noexcept {
    for (int32_t i = 0; i < REQUESTS; ++i) {
        if (catalogue[i].type != i) {
            return false;
        }
    }
    return true;
}
static_assert(REQUESTS == 25 && catalogue_in_order(), "every request, at its own number");

static void serve(request_call* call) noexcept {
    const uint16_t type = request_read_u16(&call->reader);
    if (request_malformed(call)) {
        return;
    }
    if (type >= REQUESTS) {
        msglog(6, "invalid msg received");
        request_reply_status(call, ENOMSG);
        return;
    }
    const request_entry* entry = &catalogue[type];
    msglog(6, "%s", entry->arrival);
    if (entry->handler == handle_create_trksessionv) {
        entry->handler(call); /* its payload is not read */
        return;
    }
    request_skip(&call->reader, REQUEST_HEADER_SIZE - static_cast<int64_t>(sizeof type));
    if (request_remaining(&call->reader) < entry->least) {
        call->reader.malformed = true;
    }
    if (request_malformed(call)) {
        return;
    }
    if (entry->needs_player && call->player == nullptr) {
        request_reply(call, -1);
        return;
    }
    entry->handler(call);
}

extern "C" {

int32_t service_connect(osb* connection, recv_context* context, service* service) noexcept {
    (void)context;
    (void)service;
    msglog(5, "a client is connecting to lyrane now");
    ++static_cast<control_block*>(connection->server->user_data)->client_count;
    return 0;
}

void service_disconnect(osb* connection, recv_context* context, service* service) noexcept {
    (void)context;
    (void)service;
    msglog(5, "a client is disconnecting from lyrane");
    --static_cast<control_block*>(connection->server->user_data)->client_count;
    player* left = request_slot(connection);
    if (left != nullptr) {
        player_lose_client(left);
    }
    request_set_slot(connection, nullptr);
}

void service_worker(osb* connection, recv_context* context, service* service) noexcept {
    (void)service;
    request_call call = request_call_make(connection, context, 0);
    if (call.is_logged) {
        request_log_arrival(&call);
    }
    serve(&call);
}
}
