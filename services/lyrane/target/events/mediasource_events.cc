#include "mediasource_events.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "control.h"
#include "mediasource.h"
#include "msglog.h"
#include "player_pin.h"
#include "player_publish.h"
#include "plugin_browsing.h"
#include "plugin_call.h"
#include "plugin_load.h"
#include "trksession.h"
#include "trksession_build.h"
#include "trksession_hold.h"

/* The caller holds a player lock that the event would need. */
static bool from_inside_a_call(const char* event) noexcept {
    if (plugin_call_inside() == 0) {
        return false;
    }
    msglog(3, "Plug-in reports '%s' from inside a call made into it; refused", event);
    return true;
}

static constexpr int64_t CANCEL_AGAIN_MS = 20;

/* A copy of a text, null for null; without memory the process ends. */
static char* copy_text(const char* text) noexcept {
    if (text == nullptr) {
        return nullptr;
    }
    char* copy = strdup(text);
    if (copy == nullptr) {
        msglog(1, "Out of memory");
    }
    return copy;
}

/* Takes a lock although a call that asks a lost source for something may keep it from being free:
 * as long as it does not come free, what is asked is cancelled again, since a cancel that comes
 * just before the plug-in is reached finds nothing to end. */
static void lock_against_browsing(vel_mutex* lock, int32_t ms_id) noexcept VEL_ACQUIRE(lock) {
    while (!vel_mutex_lock_until(lock, vel_deadline(CANCEL_AGAIN_MS))) {
        plugin_browsing_cancel(ms_id);
    }
}

/* Does `act` to every open player, under its lock. */
static void for_each_player(mediasource* source, int32_t type,
                            void (*act)(player*, mediasource*, int32_t)) noexcept {
    int32_t count = 0;
    player** players = players_pin_all(&mmcontrol, &count);
    for (int32_t i = 0; i < count; ++i) {
        if (mediasource_active(source) != 0) {
            vel_mutex_lock(&players[i]->lock);
        } else {
            lock_against_browsing(&players[i]->lock, source->id);
        }
        if (players[i]->closed == 0) {
            act(players[i], source, type);
        }
        vel_mutex_unlock(&players[i]->lock);
    }
    players_unpin(players, count);
}

static void publish(player* player, mediasource* source, int32_t type) noexcept
    VEL_REQUIRES(player->lock) {
    player_publish_mediasource(player, type, source);
}

/* The player loses everything that it had on a source that has gone. */
static void take_away(player* player, mediasource* source, int32_t type) noexcept
    VEL_REQUIRES(player->lock) {
    player_publish_mediasource(player, type, source);
    if (player->trksession != nullptr && player->trksession->mediasource == source) {
        msglog(7, "Destroy trksession upon device removal");
        (void)player_destroy_trksession(player);
    }
    const int32_t position = mediasource_sessions_find(0, &player->ms_sessions, source->id);
    if (position >= 0) {
        msglog(7, "Delete mediasource session upon device removal");
        auto* session = static_cast<mediasource_session*>(player->ms_sessions.items[position]);
        (void)array_delete(0, &player->ms_sessions, position);
        mediasource_session_destroy(&session);
    }
}

/* Ends what a source is being asked for, ahead of the locks: one of them may be held by a request
 * that waits for the source to answer, or by who waits for that request. The sessions being built
 * are told first, so that none of them asks for another page. */
static void cancel_browsing(const mediasource* source) noexcept {
    int32_t count = 0;
    player** players = players_pin_all(&mmcontrol, &count);
    for (int32_t i = 0; i < count; ++i) {
        trksession* session = trksession_hold(players[i]);
        if (session != nullptr && session->mediasource == source) {
            session->cancelled = 1;
        }
        trksession_release(session);
    }
    players_unpin(players, count);
    plugin_browsing_cancel(source->id);
}

static mediasource* find_known(int32_t plugin_id, const char* uid) noexcept {
    vel_lock_guard guard(mmcontrol.registry_leaf);
    const int32_t position =
        mediasources_find_by_pid_uid(0, &mmcontrol.mediasources, plugin_id, uid);
    return position < 0 ? nullptr
                        : static_cast<mediasource*>(mmcontrol.mediasources.items[position]);
}

/* A new record, entered into the list; null when the list cannot grow. */
static mediasource* add_source(const plugin* owner, const char* uid, int32_t type) noexcept {
    auto* source = static_cast<mediasource*>(calloc(1, sizeof(mediasource)));
    if (source == nullptr) {
        msglog(1, "Out of memory");
        return nullptr;
    }
    source->uid = copy_text(uid);
    source->type = type;
    source->plugin_id = owner->id;
    source->plugin_name = copy_text(owner->name);
    vel_lock_guard guard(mmcontrol.registry_leaf);
    source->id = mmcontrol.mediasources.count;
    if (array_push(0, &mmcontrol.mediasources, source) < 0) {
        free(source->uid);
        free(source->plugin_name);
        free(source);
        return nullptr;
    }
    return source;
}

/* What every connection sets, the first and a later one. */
static void set_connected(mediasource* source, const char* name, const char* view_name,
                          uint64_t capabilities, int32_t status) noexcept {
    char* new_name = copy_text(name);
    char* new_view_name = copy_text(view_name);
    if ((capabilities & LYR_CAP_DEVICE_LIST) != 0) {
        capabilities |= LYR_CAP_DEVICE_LIST_ADDS;
    }
    vel_lock_guard guard(mmcontrol.registry_leaf);
    free(source->name);
    free(source->view_name);
    source->name = new_name;
    source->view_name = new_view_name;
    __atomic_store_n(&source->capabilities, capabilities, __ATOMIC_RELEASE);
    __atomic_store_n(&source->status, status, __ATOMIC_RELEASE);
    __atomic_store_n(&source->active, 1, __ATOMIC_RELEASE);
}

static void set_disconnected(mediasource* source) noexcept {
    vel_lock_guard guard(mmcontrol.registry_leaf);
    __atomic_store_n(&source->active, 0, __ATOMIC_SEQ_CST);
    __atomic_store_n(&source->status, 0, __ATOMIC_RELEASE);
}

/* The record of an id, or null with the message. */
static mediasource* source_of(int32_t ms_id) noexcept {
    mediasource* source = mediasource_by_id(&mmcontrol, ms_id);
    if (source == nullptr) {
        msglog(3, "Invalid media source id: %d", ms_id);
    }
    return source;
}

static const char* shown_name(const char* name) noexcept {
    return name != nullptr ? name : "NULL";
}

extern "C" {

int32_t lyrane_internal_mediasource_connected(int32_t plugin_id, const char* uid, const char* name,
                                              const char* view_name, int32_t type,
                                              uint64_t capabilities, int32_t status) noexcept {
    if (from_inside_a_call("media source connected")) {
        return -1;
    }
    const plugin* owner = plugin_by_id(&mmcontrol, plugin_id);
    if (owner == nullptr) {
        msglog(3, "Invalid plugin_id provided");
        return -1;
    }
    if (uid == nullptr) {
        msglog(3, "Plug-in %s reports a media source without a uid", owner->name);
        return -1;
    }
    mediasource* source = nullptr;
    {
        vel_lock_guard guard(mmcontrol.mediasources_lock);
        source = find_known(plugin_id, uid);
        if (source == nullptr) {
            source = add_source(owner, uid, type);
        }
        if (source == nullptr) {
            msglog(3, "No memory for another media source");
            return -1;
        }
        set_connected(source, name, view_name, capabilities, status);
        for_each_player(source, MEDIASOURCE_CONNECTED, publish);
    }
    msglog(7, "media source connected: %s\tid: %d", shown_name(name), source->id);
    return source->id;
}

int32_t lyrane_internal_mediasource_disconnected(int32_t ms_id) noexcept {
    if (from_inside_a_call("media source disconnected")) {
        return -1;
    }
    mediasource* source = source_of(ms_id);
    if (source == nullptr) {
        return -1;
    }
    /* Another event may hold the lock and wait for a player that asks this source something. */
    cancel_browsing(source);
    lock_against_browsing(&mmcontrol.mediasources_lock, ms_id);
    /* Inactive first: a player that is opened from now on cannot build on it any more. */
    set_disconnected(source);
    cancel_browsing(source);
    for_each_player(source, MEDIASOURCE_DISCONNECTED, take_away);
    char name[MSGLOG_LINE_SIZE]; /* a later event may change the source's own */
    snprintf(name, sizeof name, "%s", shown_name(source->name));
    vel_mutex_unlock(&mmcontrol.mediasources_lock);
    msglog(7, "media source disconnected: %s\tid: %d", name, ms_id);
    return 0;
}

int32_t lyrane_internal_mediasource_status_changed(int32_t ms_id, int32_t status) noexcept {
    if (from_inside_a_call("media source status")) {
        return -1;
    }
    vel_lock_guard guard(mmcontrol.mediasources_lock);
    mediasource* source = source_of(ms_id);
    if (source == nullptr) {
        return -1;
    }
    if (mediasource_status(source) == status) {
        msglog(3, "The media source is already in this status: %d", status);
        return 0;
    }
    __atomic_store_n(&source->status, status, __ATOMIC_RELEASE);
    for_each_player(source, MEDIASOURCE_CHANGED, publish);
    return 0;
}

int32_t lyrane_internal_mediasource_capability_changed(int32_t ms_id,
                                                       uint64_t capabilities) noexcept {
    if (from_inside_a_call("media source capabilities")) {
        return -1;
    }
    vel_lock_guard guard(mmcontrol.mediasources_lock);
    mediasource* source = source_of(ms_id);
    if (source == nullptr) {
        return -1;
    }
    if (mediasource_capabilities(source) == capabilities) {
        msglog(3, "The media source's capabilities not changed");
        return 0;
    }
    __atomic_store_n(&source->capabilities, capabilities, __ATOMIC_RELEASE);
    for_each_player(source, MEDIASOURCE_CHANGED, publish);
    return 0;
}

int32_t validate_callback_data(const void* callback_data) noexcept {
    player* found = player_pin_registered(&mmcontrol, callback_data, nullptr);
    if (found == nullptr) {
        msglog(3, "Invalid callback_data passed in by Plug-in");
        errno = EINVAL;
        return -1;
    }
    player_unpin(found);
    return 0;
}
}
