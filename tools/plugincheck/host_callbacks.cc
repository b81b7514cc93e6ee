/* The callbacks, with the locks under which the service takes them. */
#include <cmath>

#include <unistd.h>

#include "call.h"
#include "host.h"

/* Whether a callback may be made here and now. */
static bool allowed(const char* event, bool of_source) {
    host_phase phase;
    {
        vel_lock_guard guard(host().lock);
        phase = host().phase;
    }
    if (call_inside() != nullptr) {
        host_fault("events.context", std::string(event) + " from inside " + call_inside());
        return false;
    }
    if (!of_source && host_owns_thread()) {
        host_fault("events.context", std::string(event) + " on a thread of the service");
        return false;
    }
    if (phase == host_phase::loaded || phase == host_phase::starting) {
        host_fault("events.phase", std::string(event) + " before init has returned");
        return false;
    }
    if (phase == host_phase::ended) {
        host_fault("events.phase", std::string(event) + " after cleanup has returned");
        return false;
    }
    return true;
}

/* A thread may have been on its way when the end came, but not a second time. */
static bool comes_again(std::set<int32_t>* threads) {
    return !threads->insert(static_cast<int32_t>(gettid())).second;
}

static bool is_source(int32_t ms_id) {
    vel_lock_guard guard(host().lock);
    return ms_id >= 0 && static_cast<size_t>(ms_id) < host().sources.size();
}

/* The session of a callback, or null when it is refused. */
static host_session* session_of(const char* event, const void* handle, const void* data) {
    if (!allowed(event, false)) {
        return nullptr;
    }
    const char* wrong = "a callback_data that no create was given";
    const char* check = "events.session";
    host_session* found = nullptr;
    {
        vel_lock_guard guard(host().lock);
        for (const auto& session : host().sessions) {
            found = session.get() == data ? session.get() : found;
        }
        if (found != nullptr && (handle == nullptr || handle != found->play)) {
            wrong = "a handle that create did not return for this callback_data";
            found = nullptr;
        } else if (found != nullptr && found->closed) {
            const bool again = comes_again(&found->late);
            check = "events.late";
            wrong = again ? "begun after destroy has returned" : nullptr;
            found = nullptr;
        } else if (found != nullptr) {
            wrong = nullptr;
        }
    }
    if (wrong != nullptr) {
        host_fault(check, std::string(event) + ": " + wrong);
    }
    return found;
}

/* Takes the player lock, and says meanwhile that a callback waits for it. */
static void lock_player(host_session* session) VEL_ACQUIRE(session->player_lock) {
    {
        vel_lock_guard guard(host().lock);
        ++session->waiting;
        pthread_cond_broadcast(&host().changed);
    }
    vel_mutex_lock(&session->player_lock);
    vel_lock_guard guard(host().lock);
    --session->waiting;
}

/* Notes a report; -1 when the session was closed while the callback waited. */
static int32_t note_report(host_session* session) {
    vel_lock_guard guard(host().lock);
    ++session->reports;
    pthread_cond_broadcast(&host().changed);
    return session->closed ? -1 : 0;
}

/* As the service goes on at the end of a track. */
static int32_t advance(host_session* session) VEL_REQUIRES(session->player_lock) {
    if (session->tracks.empty()) {
        return 0;
    }
    session->track = (session->track + 1) % session->tracks.size();
    const node_copy& next = session->tracks[session->track];
    std::string fault;
    if (call_attach(session, next) != 0) {
        fault = "attach_medianode fails for " + node_shown(*next.id);
    } else {
        metadata* data = nullptr;
        (void)call_metadata(session, next.id->c_str(), &data);
        free_metadata(&data);
        fault = call_play(session, play_entry::play) != 0 ? "play fails" : "";
    }
    vel_lock_guard guard(host().lock);
    ++session->advanced;
    session->advance_fault = session->advance_fault.empty() ? fault : session->advance_fault;
    pthread_cond_broadcast(&host().changed);
    return fault.empty() ? 0 : -1;
}

/* What the four of a source have in common. */
static bool source_event(const char* event, int32_t ms_id) {
    if (!allowed(event, true)) {
        return false;
    }
    if (!is_source(ms_id)) {
        host_fault("events.values",
                   std::string(event) + " of the unknown media source " + std::to_string(ms_id));
        return false;
    }
    return true;
}

extern "C" {

int32_t lyrane_internal_mediasource_connected(int32_t plugin_id, const char* uid, const char*,
                                              const char*, int32_t type, uint64_t capabilities,
                                              int32_t) noexcept {
    if (!allowed("mediasource_connected", true)) {
        return -1;
    }
    if (uid == nullptr) {
        host_fault("events.values", "mediasource_connected without a uid");
        return -1;
    }
    if ((capabilities & LYR_CAP_DEVICE_LIST) != 0) {
        capabilities |= LYR_CAP_DEVICE_LIST_ADDS;
    }
    vel_lock_guard guard(host().lock);
    if (!host().detecting && comes_again(&host().late)) {
        host().faults["events.phase"].push_back(
            "mediasource_connected after detection was switched off");
    }
    if (host().phase == host_phase::ending) {
        return -1; /* the plug-in's id is not valid any more */
    }
    pthread_cond_broadcast(&host().changed);
    for (host_source& source : host().sources) {
        if (source.uid == uid) {
            source.capabilities = capabilities;
            return source.id;
        }
    }
    if (host().sources.size() >= HOST_SOURCES_MOST) {
        return -1;
    }
    const auto id = static_cast<int32_t>(host().sources.size());
    host().sources.push_back({id, plugin_id, type, capabilities, uid});
    return id;
}

int32_t lyrane_internal_mediasource_disconnected(int32_t ms_id) noexcept {
    if (!source_event("mediasource_disconnected", ms_id)) {
        return -1;
    }
    std::vector<host_session*> sessions;
    {
        vel_lock_guard guard(host().lock);
        for (const auto& session : host().sessions) {
            if (session->ms_id == ms_id) {
                sessions.push_back(session.get());
            }
        }
    }
    for (host_session* session : sessions) {
        (void)call_cancel(session);
        host_session_close(session);
    }
    return 0;
}

int32_t lyrane_internal_mediasource_status_changed(int32_t ms_id, int32_t) noexcept {
    return source_event("mediasource_status_changed", ms_id) ? 0 : -1;
}

int32_t lyrane_internal_mediasource_capability_changed(int32_t ms_id, uint64_t) noexcept {
    return source_event("mediasource_capability_changed", ms_id) ? 0 : -1;
}

int32_t lyrane_internal_position_updated(void* handle, void* data, int32_t position) noexcept {
    host_session* session = session_of("position_updated", handle, data);
    if (session == nullptr) {
        return -1;
    }
    if (position < 0) {
        host_fault("events.values", "position_updated with " + std::to_string(position));
    }
    lock_player(session);
    const int32_t result = note_report(session);
    vel_mutex_unlock(&session->player_lock);
    return result;
}

int32_t lyrane_internal_track_finished(void* handle, void* data) noexcept {
    host_session* session = session_of("track_finished", handle, data);
    if (session == nullptr) {
        return -1;
    }
    lock_player(session);
    int32_t result = note_report(session);
    {
        vel_lock_guard guard(host().lock);
        pthread_cond_broadcast(&host().changed);
        if (++session->ends > session->plays) {
            host().faults["events.ends"].push_back("track_finished more often than played");
        }
    }
    result = result == 0 ? advance(session) : result;
    vel_mutex_unlock(&session->player_lock);
    return result;
}

int32_t lyrane_internal_track_changed(void* handle, void* data, const medianode* node) noexcept {
    host_session* session = session_of("track_changed", handle, data);
    if (session == nullptr) {
        return -1;
    }
    lock_player(session);
    const int32_t result = note_report(session);
    if (result == 0) {
        metadata* record = nullptr;
        (void)call_metadata(session, node != nullptr ? node->id : nullptr, &record);
        free_metadata(&record);
    }
    vel_mutex_unlock(&session->player_lock);
    return result;
}

int32_t lyrane_internal_state_updated(void* handle, void* data,
                                      const lyr_playback_state* state) noexcept {
    host_session* session = session_of("state_updated", handle, data);
    if (session == nullptr) {
        return -1;
    }
    if (state == nullptr || state->status < LYR_STATUS_DESTROYED ||
        state->status > LYR_STATUS_STOPPED || state->shuffle_mode < LYR_SHUFFLE_OFF ||
        state->shuffle_mode > LYR_SHUFFLE_ON || state->repeat_mode < LYR_REPEAT_OFF ||
        state->repeat_mode > LYR_REPEAT_ONE || !std::isfinite(state->playback_rate)) {
        host_fault("events.values", "state_updated with values that are none");
    }
    lock_player(session);
    const int32_t result = state != nullptr ? note_report(session) : -1;
    vel_mutex_unlock(&session->player_lock);
    return result;
}

int32_t lyrane_internal_play_error_occurred(void* handle, void* data, int32_t error) noexcept {
    host_session* session = session_of("play_error_occurred", handle, data);
    if (session == nullptr) {
        return -1;
    }
    if (error != LYR_PLAY_ERROR_SKIP && error != LYR_PLAY_ERROR_FATAL) {
        host_fault("events.values", "play_error_occurred with " + std::to_string(error));
    }
    lock_player(session);
    const int32_t result = note_report(session);
    vel_mutex_unlock(&session->player_lock);
    return result;
}

int32_t lyrane_internal_browse_error_occurred(void*, void*) noexcept {
    return allowed("browse_error_occurred", false) ? 0 : -1;
}

const lyrane_internal_callbacks_table lyrane_internal_callbacks = {
    lyrane_internal_mediasource_connected,
    lyrane_internal_mediasource_disconnected,
    lyrane_internal_mediasource_status_changed,
    lyrane_internal_mediasource_capability_changed,
    lyrane_internal_position_updated,
    lyrane_internal_track_finished,
    lyrane_internal_track_changed,
    lyrane_internal_state_updated,
    lyrane_internal_play_error_occurred,
    lyrane_internal_browse_error_occurred,
};
}
