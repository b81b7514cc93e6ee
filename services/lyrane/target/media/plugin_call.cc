#include "plugin_call.h"

#include <cerrno>

#include "msglog.h"
#include "plugin_browsing.h"
#include "plugin_watch.h"

/* Depth, because a plug-in's thread may enter a second plug-in from a disconnection callback. */
static thread_local int32_t call_depth;

/* What stands around every call: the mark of the thread, and the watch. */
static int32_t enter(const char* entry, const mediasource_session* session) noexcept {
    ++call_depth;
    return plugin_watch_enter({session->plugin_name, session->player_name, entry, session->ms_id});
}

static void leave(int32_t ticket) noexcept {
    plugin_watch_leave(ticket);
    --call_depth;
}

int32_t plugin_call_inside(void) noexcept {
    return call_depth > 0;
}

int32_t plugin_call_can_play(const mediasource_session* session) noexcept {
    return session != nullptr && session->play_api != nullptr && session->play_session != nullptr;
}

int32_t plugin_call_can_browse(const mediasource_session* session) noexcept {
    return session != nullptr && session->browse_api != nullptr &&
           session->browse_session != nullptr;
}

static int32_t missing(void) noexcept {
    errno = ENOTSUP;
    return -1;
}

/* Entries that take the play session alone, or with one number. */
static int32_t call_play(const mediasource_session* session, const char* name,
                         int32_t (*lyr_play_api::*entry)(void*) noexcept) noexcept {
    if (!plugin_call_can_play(session) || session->play_api->*entry == nullptr) {
        return missing();
    }
    const int32_t ticket = enter(name, session);
    const int32_t result = (session->play_api->*entry)(session->play_session);
    leave(ticket);
    return result;
}

static int32_t call_play_number(const mediasource_session* session, const char* name,
                                int32_t (*lyr_play_api::*entry)(void*, int32_t) noexcept,
                                int32_t number) noexcept {
    if (!plugin_call_can_play(session) || session->play_api->*entry == nullptr) {
        return missing();
    }
    const int32_t ticket = enter(name, session);
    const int32_t result = (session->play_api->*entry)(session->play_session, number);
    leave(ticket);
    return result;
}

void* plugin_call_play_create(const lyr_play_api* api, const mediasource_session* session,
                              void* data) noexcept {
    if (api == nullptr || api->create == nullptr) {
        return nullptr;
    }
    const int32_t ticket = enter("create", session);
    void* handle = api->create(session->ms_id, data);
    leave(ticket);
    return handle;
}

void* plugin_call_browse_create(const lyr_browse_api* api, const mediasource_session* session,
                                void* data) noexcept {
    if (api == nullptr || api->create == nullptr) {
        return nullptr;
    }
    const int32_t ticket = enter("create", session);
    void* handle = api->create(session->ms_id, data);
    leave(ticket);
    return handle;
}

void plugin_call_play_destroy(const mediasource_session* session) noexcept {
    (void)call_play(session, "destroy", &lyr_play_api::destroy);
}

void plugin_call_browse_destroy(const mediasource_session* session) noexcept {
    if (!plugin_call_can_browse(session) || session->browse_api->destroy == nullptr) {
        return;
    }
    const int32_t ticket = enter("destroy", session);
    (void)session->browse_api->destroy(session->browse_session);
    leave(ticket);
}

int32_t plugin_call_attach(const mediasource_session* session, const medianode* node) noexcept {
    if (!plugin_call_can_play(session) || session->play_api->attach_medianode == nullptr) {
        return missing();
    }
    const int32_t ticket = enter("attach_medianode", session);
    const int32_t result = session->play_api->attach_medianode(session->play_session, node);
    leave(ticket);
    return result;
}

int32_t plugin_call_play(const mediasource_session* session) noexcept {
    return call_play(session, "play", &lyr_play_api::play);
}

int32_t plugin_call_pause(const mediasource_session* session) noexcept {
    return call_play(session, "pause", &lyr_play_api::pause);
}

int32_t plugin_call_stop(const mediasource_session* session) noexcept {
    return call_play(session, "stop", &lyr_play_api::stop);
}

int32_t plugin_call_set_rate(const mediasource_session* session, float rate) noexcept {
    if (!plugin_call_can_play(session) || session->play_api->set_playback_rate == nullptr) {
        return missing();
    }
    const int32_t ticket = enter("set_playback_rate", session);
    const int32_t result = session->play_api->set_playback_rate(session->play_session, rate);
    leave(ticket);
    return result;
}

int32_t plugin_call_seek(const mediasource_session* session, int32_t position) noexcept {
    return call_play_number(session, "seek", &lyr_play_api::seek, position);
}

int32_t plugin_call_next(const mediasource_session* session) noexcept {
    return call_play(session, "next", &lyr_play_api::next);
}

int32_t plugin_call_previous(const mediasource_session* session) noexcept {
    return call_play(session, "previous", &lyr_play_api::previous);
}

int32_t plugin_call_shuffle(const mediasource_session* session, int32_t mode) noexcept {
    return call_play_number(session, "shuffle", &lyr_play_api::shuffle, mode);
}

int32_t plugin_call_repeat(const mediasource_session* session, int32_t mode) noexcept {
    return call_play_number(session, "repeat", &lyr_play_api::repeat, mode);
}

/* Makes sure that a successful listing is what the contract says. A failed one hands nothing over,
 * so an array left there is the plug-in's own mistake and not ours to free. */
static int32_t checked_listing(int32_t result, const char* entry, int32_t asked, int32_t* count,
                               medianode** nodes) noexcept {
    if (result != 0) {
        *nodes = nullptr;
        return result;
    }
    if (*count < 0 || (*count > 0 && *nodes == nullptr)) {
        msglog(3, "Plug-in delivered %d nodes without records from %s", *count, entry);
        *nodes = nullptr;
        errno = EIO;
        return -1;
    }
    if (asked >= 0 && *count > asked) {
        msglog(3, "Plug-in delivered %d nodes from %s when asked for %d", *count, entry, asked);
        for (int32_t i = asked; i < *count; ++i) {
            free_medianode_contents(&(*nodes)[i]);
        }
        *count = asked;
    }
    if (*count == 0) {
        free_medianodes(nodes, 0);
    }
    return 0;
}

int32_t plugin_call_browse(const mediasource_session* session, const char* node_id, int32_t offset,
                           int32_t* count, medianode** nodes) noexcept {
    *nodes = nullptr;
    if (!plugin_call_can_browse(session) || session->browse_api->browse == nullptr) {
        return missing();
    }
    const int32_t asked = *count;
    browse_in_progress call = {session, nullptr, 0, 0};
    plugin_browsing_enter(&call);
    const int32_t ticket = enter("browse", session);
    const int32_t result =
        session->browse_api->browse(session->browse_session, node_id, offset, count, nodes);
    leave(ticket);
    plugin_browsing_leave(&call);
    return checked_listing(result, "browse", asked, count, nodes);
}

int32_t plugin_call_search(const mediasource_session* session, const char* filter, const char* key,
                           int32_t offset, int32_t* count, medianode** nodes) noexcept {
    *nodes = nullptr;
    if (!plugin_call_can_browse(session) || session->browse_api->search == nullptr) {
        return missing();
    }
    const int32_t asked = *count;
    browse_in_progress call = {session, nullptr, 0, 0};
    plugin_browsing_enter(&call);
    const int32_t ticket = enter("search", session);
    const int32_t result =
        session->browse_api->search(session->browse_session, filter, key, offset, count, nodes);
    leave(ticket);
    plugin_browsing_leave(&call);
    return checked_listing(result, "search", asked, count, nodes);
}

int32_t plugin_call_get_metadata(const mediasource_session* session, const char* node_id,
                                 metadata** data) noexcept {
    *data = nullptr;
    if (!plugin_call_can_browse(session) || session->browse_api->get_metadata == nullptr) {
        return missing();
    }
    const int32_t ticket = enter("get_metadata", session);
    const int32_t result =
        session->browse_api->get_metadata(session->browse_session, node_id, data);
    leave(ticket);
    return result;
}

int32_t plugin_call_get_extended_metadata(const mediasource_session* session, const char* node_id,
                                          const char* const* keys, char** values) noexcept {
    if (!plugin_call_can_browse(session) || session->browse_api->get_extended_metadata == nullptr) {
        return missing();
    }
    const int32_t ticket = enter("get_extended_metadata", session);
    const int32_t result =
        session->browse_api->get_extended_metadata(session->browse_session, node_id, keys, values);
    leave(ticket);
    return result;
}

int32_t plugin_call_update_medianodes(const mediasource_session* session, int32_t count,
                                      medianode* nodes) noexcept {
    if (!plugin_call_can_browse(session) || session->browse_api->update_medianodes == nullptr) {
        return missing();
    }
    const int32_t ticket = enter("update_medianodes", session);
    const int32_t result =
        session->browse_api->update_medianodes(session->browse_session, count, nodes);
    leave(ticket);
    return result;
}

void plugin_call_cancel_browse(const mediasource_session* session) noexcept {
    if (!plugin_call_can_browse(session) || session->browse_api->cancel_browse == nullptr) {
        return;
    }
    const int32_t ticket = enter("cancel_browse", session);
    (void)session->browse_api->cancel_browse(session->browse_session);
    leave(ticket);
}
