/* The queries whose replies are assembled from several records. */
#include <cstdlib>
#include <cstring>

#include "mediasource.h"
#include "msglog.h"
#include "record_encode.h"
#include "request_call.h"
#include "service.h"
#include "trksession.h"
#include "trksession_hold.h"

/* Room for a packed reply; null without memory, or for a size that cannot be sent. */
static vel_bytes reply_buffer(int32_t size) noexcept {
    return size < 0 ? vel_bytes()
                    : vel_bytes(static_cast<unsigned char*>(malloc(static_cast<size_t>(size) + 1)));
}

/* --- Media sources -----------------------------------------------------------------------------
 */

/* Copies of the active media sources, packed while the names cannot change and no event is shown by
 * half. The registry's leaf lock is enough for that, so the answer does not wait for an event that
 * is tearing sessions down. */
static vel_bytes pack_active_sources(control_block* control, int32_t* count,
                                     int32_t* size) noexcept {
    vel_lock_guard guard(control->registry_leaf);
    const int32_t known = control->mediasources.count;
    *count = 0;
    *size = 0;
    auto* active =
        static_cast<mediasource*>(calloc(static_cast<size_t>(known) + 1, sizeof(mediasource)));
    if (active == nullptr) {
        msglog(1, "No memory");
        return nullptr;
    }
    for (int32_t i = 0; i < known; ++i) {
        const auto* source = static_cast<const mediasource*>(control->mediasources.items[i]);
        msglog(7, "media source %d: %s\t%s", source->id, source->uid,
               source->name != nullptr ? source->name : "NULL");
        if (mediasource_active(source) == 0) {
            continue;
        }
        mediasource* copy = &active[(*count)++];
        copy->id = source->id;
        copy->uid = source->uid;
        copy->name = source->name;
        copy->view_name = source->view_name;
        copy->type = source->type;
        copy->capabilities = mediasource_capabilities(source);
        copy->status = mediasource_status(source);
    }
    vel_bytes buffer = reply_buffer(compute_media_source_size(active, *count));
    if (buffer != nullptr) {
        pack_media_source(active, *count, buffer.get(), size);
    }
    free(active);
    return buffer;
}

/* --- The current track -------------------------------------------------------------------------
 */

/* What the session says of its current track, copied under its lock. */
struct current_track {
    medianode node; /* its strings are owned here */
    uint64_t ts_id;
    int32_t cli_index;
    int32_t ms_id;
};

static char* copy_text(const char* text, bool* complete) noexcept {
    char* copy = text != nullptr ? strdup(text) : nullptr;
    *complete = *complete && (text == nullptr || copy != nullptr);
    return copy;
}

/* False when there is no current track (no session, an empty one). */
static bool copy_current(player* player, current_track* track, bool* has_session) noexcept {
    trksession* session = trksession_hold(player);
    bool found = false;
    *has_session = false;
    if (session != nullptr) {
        vel_lock_guard guard(session->lock);
        *has_session = session->destroyed == 0;
        if (*has_session && session->trk_id >= 0 && session->trk_id < session->length) {
            const medianode* node = &session->tracks[session->trk_id];
            found = true;
            track->node = *node;
            track->node.url = nullptr; /* not sent */
            track->node.ms_uid = nullptr;
            track->node.id = copy_text(node->id, &found);
            track->node.name = copy_text(node->name, &found);
            track->ts_id = session->ts_id;
            track->cli_index = session->cli_index;
            track->ms_id = session->mediasource->id;
        }
    }
    trksession_release(session);
    return found;
}

static int32_t query_metadata(request_call* call, int32_t ms_id, const char* id,
                              metadata** data) noexcept {
    vel_lock_guard guard(call->player->lock);
    *data = nullptr;
    return call->player->closed != 0
               ? -1
               : mediasource_get_metadata(call->control, call->player, ms_id, id, data);
}

static void reply_track(request_call* call, int32_t result, current_track* track,
                        const metadata* data) noexcept {
    const int32_t node_size = compute_media_node_size(&track->node, 1);
    const int32_t data_size = compute_metadata_size(data, 1);
    vel_bytes node_buffer = reply_buffer(node_size);
    vel_bytes data_buffer = reply_buffer(data_size);
    if (node_buffer == nullptr || data_buffer == nullptr) {
        msglog(3, "The reply with the current track does not fit in memory");
        request_reply(call, -1);
        return;
    }
    int32_t n = 0;
    int32_t m = 0;
    pack_media_node(&track->node, 1, node_buffer.get(), &n);
    pack_metadata(data, 1, data_buffer.get(), &m);
    const iovec pieces[] = {{&track->cli_index, sizeof track->cli_index},
                            {&track->ts_id, sizeof track->ts_id},
                            {&n, sizeof n},
                            {&m, sizeof m},
                            {node_buffer.get(), static_cast<size_t>(n)},
                            {data_buffer.get(), static_cast<size_t>(m)}};
    request_replyv(call, result, pieces, 6);
}

static void reply_current_track(request_call* call) noexcept {
    current_track track = {};
    bool has_session = false;
    if (!copy_current(call->player, &track, &has_session)) {
        request_reply(call, -1);
        if (!has_session) {
            msglog(3, "No active trksession");
        }
    } else {
        metadata* data = nullptr;
        const int32_t result = query_metadata(call, track.ms_id, track.node.id, &data);
        reply_track(call, result, &track, data);
        free_metadata(&data);
    }
    free_medianode_contents(&track.node);
}

/* --- Metadata of any node ----------------------------------------------------------------------
 */

static void reply_metadata(request_call* call, const metadata* data) noexcept {
    vel_bytes buffer = reply_buffer(compute_metadata_size(data, 1));
    if (buffer == nullptr) {
        msglog(3, "The reply with metadata does not fit in memory");
        request_reply(call, -1);
        return;
    }
    int32_t size = 0;
    pack_metadata(data, 1, buffer.get(), &size);
    const iovec piece = {buffer.get(), static_cast<size_t>(size)};
    request_replyv(call, 0, &piece, 1);
}

static void reply_node_metadata(request_call* call) noexcept {
    const int32_t ms_id = request_read_i32(&call->reader);
    const uint32_t length = request_read_u32(&call->reader);
    const vel_text id = request_read_text(&call->reader, length);
    if (request_malformed(call)) {
        return;
    }
    msglog(7, "media node id: %s", id.get());
    metadata* data = nullptr;
    if (query_metadata(call, ms_id, id.get(), &data) != 0) {
        request_reply(call, -1);
    } else {
        reply_metadata(call, data);
    }
    free_metadata(&data);
}

extern "C" {

int32_t handle_get_media_sources(osb* connection, recv_context* context) noexcept {
    request_call call = request_call_make(connection, context, REQUEST_HEADER_SIZE);
    int32_t count = 0;
    int32_t size = 0;
    const vel_bytes buffer = pack_active_sources(call.control, &count, &size);
    if (buffer == nullptr) {
        msglog(3, "The reply with %d media sources does not fit in memory", count);
        request_reply(&call, -1);
        return 0;
    }
    const iovec pieces[] = {{&count, sizeof count}, {buffer.get(), static_cast<size_t>(size)}};
    request_replyv(&call, 0, pieces, 2);
    return 0;
}

int32_t handle_get_current_track_info(osb* connection, recv_context* context) noexcept {
    request_call call = request_call_make(connection, context, REQUEST_HEADER_SIZE);
    reply_current_track(&call);
    return 0;
}

int32_t handle_get_metadata(osb* connection, recv_context* context) noexcept {
    request_call call = request_call_make(connection, context, REQUEST_HEADER_SIZE);
    reply_node_metadata(&call);
    return 0;
}
}
