#include "plugin_call.h"

#include <cerrno>
#include <type_traits>

#include "msglog.h"
#include "player.h"
#include "plugin_browsing.h"
#include "plugin_opening.h"
#include "plugin_watch.h"

/* Depth, because a plug-in's thread may enter a second plug-in from a disconnection callback. */
static thread_local int32_t call_depth;

/* What stands around every call: the mark of the thread, and the watch. */
static watch_slot* enter(const char* plugin, const char* entry,
                         const mediasource_session* session) noexcept {
    ++call_depth;
    return plugin_watch_enter(
        {plugin, session->player->name, entry, session->ms_id, session->plugin_name});
}

static void leave(watch_slot* slot) noexcept {
    plugin_watch_leave(slot);
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

/* A call of a plug-in's entry that is there. */
template <typename... Parameters, typename Result>
static Result call(const mediasource_session* session, const char* plugin, const char* name,
                   Result (*entry)(Parameters...) noexcept,
                   std::type_identity_t<Parameters>... values) noexcept {
    watch_slot* slot = enter(plugin, name, session);
    const Result result = entry(values...);
    leave(slot);
    return result;
}

/* A call of an entry that takes its half's session first. */
template <typename... Parameters>
static int32_t call_play(const mediasource_session* session, const char* name,
                         int32_t (*lyr_play_api::*entry)(void*, Parameters...) noexcept,
                         std::type_identity_t<Parameters>... values) noexcept {
    if (!plugin_call_can_play(session) || session->play_api->*entry == nullptr) {
        return missing();
    }
    return call(session, session->play_plugin_name, name, session->play_api->*entry,
                session->play_session, values...);
}

template <typename... Parameters>
static int32_t call_browse(const mediasource_session* session, const char* name,
                           int32_t (*lyr_browse_api::*entry)(void*, Parameters...) noexcept,
                           std::type_identity_t<Parameters>... values) noexcept {
    if (!plugin_call_can_browse(session) || session->browse_api->*entry == nullptr) {
        return missing();
    }
    return call(session, session->plugin_name, name, session->browse_api->*entry,
                session->browse_session, values...);
}

/* A call that asks the source for something: a source that goes can end it. */
template <typename... Parameters>
static int32_t ask(const mediasource_session* session, const char* name,
                   int32_t (*lyr_browse_api::*entry)(void*, Parameters...) noexcept,
                   std::type_identity_t<Parameters>... values) noexcept {
    if (!plugin_call_can_browse(session)) {
        return missing();
    }
    browse_in_progress progress = {session, nullptr, 0, 0};
    plugin_browsing_enter(&progress);
    const int32_t result = call_browse(session, name, entry, values...);
    plugin_browsing_leave(&progress);
    return result;
}

void* plugin_call_play_create(const lyr_play_api* api, const mediasource_session* session,
                              void* data) noexcept {
    return api == nullptr || api->create == nullptr
               ? nullptr
               : call(session, session->play_plugin_name, "create", api->create, session->ms_id,
                      data);
}

void* plugin_call_browse_create(const lyr_browse_api* api, const mediasource_session* session,
                                void* data) noexcept {
    return api == nullptr || api->create == nullptr
               ? nullptr
               : call(session, session->plugin_name, "create", api->create, session->ms_id, data);
}

void plugin_call_play_destroy(const mediasource_session* session) noexcept {
    (void)call_play(session, "destroy", &lyr_play_api::destroy);
    plugin_opening_over(session);
}

void plugin_call_browse_destroy(const mediasource_session* session) noexcept {
    (void)call_browse(session, "destroy", &lyr_browse_api::destroy);
}

int32_t plugin_call_attach(const mediasource_session* session, const medianode* node) noexcept {
    if (!plugin_call_can_play(session)) {
        return missing();
    }
    session->player->changes += 1; /* the plug-in may report on the new node before it returns */
    plugin_opening_begin(session, node);
    const int32_t result =
        call_play(session, "attach_medianode", &lyr_play_api::attach_medianode, node);
    session->player->changes += 1;
    if (result == 0) {
        plugin_opening_rest(session);
    } else {
        plugin_opening_over(session);
    }
    return result;
}

int32_t plugin_call_play(const mediasource_session* session) noexcept {
    plugin_opening_begin(session, nullptr);
    return call_play(session, "play", &lyr_play_api::play);
}

int32_t plugin_call_pause(const mediasource_session* session) noexcept {
    return call_play(session, "pause", &lyr_play_api::pause);
}

int32_t plugin_call_stop(const mediasource_session* session) noexcept {
    const int32_t result = call_play(session, "stop", &lyr_play_api::stop);
    if (result == 0) { /* else the node plays on, and its end counts */
        session->player->changes += 2;
        plugin_opening_rest(session);
    }
    return result;
}

int32_t plugin_call_set_rate(const mediasource_session* session, float rate) noexcept {
    return call_play(session, "set_playback_rate", &lyr_play_api::set_playback_rate, rate);
}

int32_t plugin_call_seek(const mediasource_session* session, int32_t position) noexcept {
    return call_play(session, "seek", &lyr_play_api::seek, position);
}

int32_t plugin_call_next(const mediasource_session* session) noexcept {
    return call_play(session, "next", &lyr_play_api::next);
}

int32_t plugin_call_previous(const mediasource_session* session) noexcept {
    return call_play(session, "previous", &lyr_play_api::previous);
}

int32_t plugin_call_shuffle(const mediasource_session* session, int32_t mode) noexcept {
    return call_play(session, "shuffle", &lyr_play_api::shuffle, mode);
}

int32_t plugin_call_repeat(const mediasource_session* session, int32_t mode) noexcept {
    return call_play(session, "repeat", &lyr_play_api::repeat, mode);
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
    const int32_t asked = *count;
    const int32_t result =
        ask(session, "browse", &lyr_browse_api::browse, node_id, offset, count, nodes);
    return checked_listing(result, "browse", asked, count, nodes);
}

int32_t plugin_call_search(const mediasource_session* session, const char* filter, const char* key,
                           int32_t offset, int32_t* count, medianode** nodes) noexcept {
    *nodes = nullptr;
    const int32_t asked = *count;
    const int32_t result =
        ask(session, "search", &lyr_browse_api::search, filter, key, offset, count, nodes);
    return checked_listing(result, "search", asked, count, nodes);
}

int32_t plugin_call_get_metadata(const mediasource_session* session, const char* node_id,
                                 metadata** data) noexcept {
    *data = nullptr;
    return ask(session, "get_metadata", &lyr_browse_api::get_metadata, node_id, data);
}

int32_t plugin_call_get_extended_metadata(const mediasource_session* session, const char* node_id,
                                          const char* const* keys, char** values) noexcept {
    return ask(session, "get_extended_metadata", &lyr_browse_api::get_extended_metadata, node_id,
               keys, values);
}

int32_t plugin_call_update_medianodes(const mediasource_session* session, int32_t count,
                                      medianode* nodes) noexcept {
    return ask(session, "update_medianodes", &lyr_browse_api::update_medianodes, count, nodes);
}

void plugin_call_cancel_browse(const mediasource_session* session) noexcept {
    (void)call_browse(session, "cancel_browse", &lyr_browse_api::cancel_browse);
}
