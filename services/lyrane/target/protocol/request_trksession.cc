/* Track sessions: creating, destroying, reading. Readers hold the session and take its lock, not
 * the player's, so they answer while a long call holds the player. */
#include <cerrno>
#include <cstdlib>

#include "msglog.h"
#include "record_encode.h"
#include "request_call.h"
#include "trksession_build.h"
#include "trksession_hold.h"
#include "trksession_walk.h"
#include "user_quota.h"

void handle_get_trksession_info(request_call* call) noexcept {
    trksession* session = trksession_hold(call->player);
    bool found = false;
    uint64_t ts_id = 0;
    int32_t length = 0;
    int32_t padding = 0;
    if (session != nullptr) {
        vel_lock_guard guard(session->lock);
        found = session->destroyed == 0;
        ts_id = session->ts_id;
        length = session->length;
    }
    trksession_release(session);
    if (!found) {
        request_reply(call, -1);
        return;
    }
    const iovec pieces[] = {
        {&ts_id, sizeof ts_id}, {&length, sizeof length}, {&padding, sizeof padding}};
    request_replyv(call, 0, pieces, 3);
}

void handle_get_current_track_position(request_call* call) noexcept {
    trksession* session = trksession_hold(call->player);
    bool found = false;
    int32_t position = 0;
    if (session != nullptr) {
        vel_lock_guard guard(session->lock);
        found = session->destroyed == 0;
        position = session->trk_pos;
    }
    trksession_release(session);
    if (!found) {
        request_reply(call, -1);
        msglog(3, "No active trksession");
        return;
    }
    const iovec piece = {&position, sizeof position};
    request_replyv(call, 0, &piece, 1);
}

/* Packs a page of the session's tracks. *count in: the limit; out: packed. Null with a count of 0
 * or without memory; an id that is not the session's finds nothing. */
static vel_bytes pack_tracks(trksession* session, uint64_t ts_id, int32_t offset, int32_t* count,
                             int32_t* size) noexcept VEL_REQUIRES(session->lock) {
    medianode* nodes = nullptr;
    *size = 0;
    if (session->ts_id != ts_id ||
        trksession_get_tracks(session, ts_id, offset, count, &nodes) != 0) {
        *count = 0;
        return nullptr;
    }
    const int32_t needed = compute_media_node_size(nodes, *count);
    vel_bytes buffer(needed > 0 ? static_cast<unsigned char*>(malloc(static_cast<size_t>(needed)))
                                : nullptr);
    if (needed != 0 && buffer == nullptr) {
        *count = -1;
        return nullptr;
    }
    pack_media_node(nodes, *count, buffer.get(), size);
    return buffer;
}

void handle_get_trksession_tracks(request_call* call) noexcept {
    const uint64_t ts_id = request_read_u64(&call->reader);
    const int32_t offset = request_read_i32(&call->reader);
    int32_t count = request_read_i32(&call->reader);
    msglog(7, "tsid: %llu\toffset: %d\tlimit: %d", static_cast<unsigned long long>(ts_id), offset,
           count);
    trksession* session = trksession_hold(call->player);
    bool found = false;
    int32_t size = 0;
    vel_bytes buffer;
    if (session != nullptr) {
        vel_lock_guard guard(session->lock);
        found = session->destroyed == 0;
        if (found) {
            buffer = pack_tracks(session, ts_id, offset, &count, &size);
        }
    }
    trksession_release(session);
    if (!found || count < 0) {
        request_reply(call, -1);
        return;
    }
    const iovec pieces[] = {{&count, sizeof count}, {buffer.get(), static_cast<size_t>(size)}};
    request_replyv(call, 0, pieces, 2);
}

void handle_create_trksession(request_call* call) noexcept {
    const int32_t ms_id = request_read_i32(&call->reader);
    int32_t expected = request_read_i32(&call->reader);
    const int32_t start_index = request_read_i32(&call->reader);
    const uint32_t length = request_read_u32(&call->reader);
    const vel_text id = request_read_text(&call->reader, length);
    if (request_malformed(call)) {
        return;
    }
    msglog(7, "media node id: %s", id.get());
    int32_t result = -1;
    uint64_t ts_id = 0;
    {
        vel_lock_guard guard(call->player->lock);
        if (call->player->closed == 0) {
            call->player->session_user = call->context->info.uid;
            result = player_create_trksession(call->control, call->player, ms_id, id.get(),
                                              &expected, start_index);
            call->player->session_user = user_quota_own();
        }
        if (result == 0) {
            ts_id = call->player->trksession->ts_id;
        }
    }
    if (result != 0) {
        request_reply(call, -1);
        return;
    }
    const iovec piece = {&ts_id, sizeof ts_id};
    request_replyv(call, 0, &piece, 1);
}

void handle_create_trksessionv(request_call* call) noexcept {
    request_reply_status(call, ENOTSUP);
}

void handle_destroy_trksession(request_call* call) noexcept {
    const uint64_t ts_id = request_read_u64(&call->reader);
    msglog(7, "tsid: %llu", static_cast<unsigned long long>(ts_id));
    /* Without the player lock first: a plug-in may hold it for long, and a client that is wrong
     * need not wait. */
    trksession* session = trksession_hold(call->player);
    bool found = session != nullptr && session->ts_id == ts_id;
    int32_t result = -1;
    if (found) {
        vel_lock_guard guard(call->player->lock);
        found = call->player->closed == 0 && call->player->trksession == session;
        if (found) {
            result = player_destroy_trksession(call->player);
        }
    }
    trksession_release(session);
    request_reply(call, result);
    if (!found) {
        msglog(3, "No active trksession or invalid tsid");
    }
}
