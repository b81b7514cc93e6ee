/* A player's sessions on media sources: opened on first use, missing halves tried again. */
#include "mediasource.h"

#include <cerrno>
#include <cstdlib>

#include "msglog.h"
#include "plugin_call.h"
#include "plugin_load.h"

static const plugin* owner_of(control_block* control, const mediasource* source) noexcept {
    const plugin* owner = plugin_by_id(control, source->plugin_id);
    if (owner == nullptr) {
        msglog(3, "No plug-in associated with the requested ms_id: %d", source->id);
    }
    return owner;
}

/* The plug-in whose play table serves a source: its own, else the first that can play its type. */
static const plugin* find_play_plugin(control_block* control, const plugin* owner,
                                      const mediasource* source) noexcept {
    if (owner->api->play_api != nullptr) {
        return owner;
    }
    vel_lock_guard guard(control->registry_leaf);
    for (int32_t i = 0; i < control->plugins.count; ++i) {
        const plugin* other = static_cast<const plugin*>(control->plugins.items[i]);
        if ((other->types & static_cast<uint32_t>(source->type)) != 0 &&
            other->api->play_api != nullptr) {
            return other;
        }
    }
    return nullptr;
}

extern "C" {

int32_t mediasource_sessions_find(int32_t ignored, const pointer_array* list,
                                  int32_t ms_id) noexcept {
    (void)ignored;
    for (int32_t i = 0; i < list->count; ++i) {
        if (static_cast<const mediasource_session*>(list->items[i])->ms_id == ms_id) {
            return i;
        }
    }
    return -1;
}

void mediasource_play_session_create(control_block* control, player* player, mediasource* source,
                                     mediasource_session* session) noexcept {
    msglog(6, "create play session for ms %d", source->id);
    const plugin* owner = owner_of(control, source);
    if (owner == nullptr) {
        return;
    }
    session->play_api = nullptr;
    session->play_session = nullptr;
    const plugin* playing = find_play_plugin(control, owner, source);
    if (playing == nullptr) {
        msglog(3, "Cannot find plugin able to play ms %d", source->id);
        return;
    }
    const lyr_play_api* api = playing->api->play_api;
    session->play_plugin_name = playing->name;
    session->play_session = plugin_call_play_create(api, session, player);
    if (session->play_session == nullptr) {
        msglog(3, "Cannot create play session for ms_id: %d", source->id);
        return;
    }
    session->play_api = api;
}

void mediasource_browse_session_create(control_block* control, player* player, mediasource* source,
                                       mediasource_session* session) noexcept {
    msglog(6, "create browse session for ms %d", source->id);
    const plugin* owner = owner_of(control, source);
    if (owner == nullptr) {
        return;
    }
    session->browse_api = nullptr;
    session->browse_session = nullptr;
    const lyr_browse_api* api = owner->api->browse_api;
    if (api == nullptr) {
        msglog(3, "Plug-in does not support browsing for ms_id: %d", source->id);
        return;
    }
    session->browse_session = plugin_call_browse_create(api, session, player);
    if (session->browse_session == nullptr) {
        msglog(3, "Cannot create browse session for ms_id: %d", source->id);
        return;
    }
    session->browse_api = api;
}

mediasource_session* mediasource_session_create(control_block* control, player* player,
                                                mediasource* source) noexcept {
    const plugin* owner = owner_of(control, source);
    if (owner == nullptr) {
        return nullptr;
    }
    auto* session = static_cast<mediasource_session*>(calloc(1, sizeof(mediasource_session)));
    if (session == nullptr) {
        msglog(1, "Out of memory");
        return nullptr;
    }
    session->ms_id = source->id;
    session->player_mode = owner->player_mode;
    session->plugin_name = owner->name;
    session->player = player;
    session->capabilities = mediasource_capabilities(source);
    mediasource_browse_session_create(control, player, source, session);
    mediasource_play_session_create(control, player, source, session);
    return session;
}

void mediasource_session_destroy(mediasource_session** session) noexcept {
    if (session == nullptr || *session == nullptr) {
        return;
    }
    plugin_call_play_destroy(*session);
    plugin_call_browse_destroy(*session);
    free(*session);
    *session = nullptr;
}

mediasource_session* mediasource_get_session(control_block* control, player* player,
                                             mediasource* source) noexcept {
    const int32_t position = mediasource_sessions_find(0, &player->ms_sessions, source->id);
    if (position >= 0) {
        auto* known = static_cast<mediasource_session*>(player->ms_sessions.items[position]);
        if (known->play_session == nullptr) {
            mediasource_play_session_create(control, player, source, known);
        }
        if (known->browse_session == nullptr) {
            mediasource_browse_session_create(control, player, source, known);
        }
        return known;
    }
    mediasource_session* session = mediasource_session_create(control, player, source);
    if (session != nullptr && array_push(0, &player->ms_sessions, session) < 0) {
        mediasource_session_destroy(&session);
        errno = ENOMEM;
        return nullptr;
    }
    if (session == nullptr) {
        errno = ENOTSUP;
    }
    return session;
}
}
