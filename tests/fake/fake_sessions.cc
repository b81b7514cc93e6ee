#include "fake_sessions.h"

fake_call session_call(const char* entry, const void* handle) {
    fake_call call;
    call.entry = entry;
    call.session = fake_handle_serial(handle);
    return call;
}

fake_call session_checked_call(const char* entry, const void* handle, bool plays) {
    fake_state& state = fake();
    vel_lock_guard guard(state.lock);
    fake_session_of(state, handle, plays, entry);
    return session_call(entry, handle);
}

void* session_create(const char* entry, bool plays, int32_t ms_id, void* data) {
    fake_state& state = fake();
    fake_call call;
    call.entry = entry;
    call.ms = ms_id;
    uint64_t serial = 0;
    {
        vel_lock_guard guard(state.lock);
        serial = state.next_session++;
        call.session = serial;
    }
    const call_effect effect = call_begin(std::move(call));
    const bool refused = effect.null || effect.result.value_or(0) != 0;
    if (!refused) {
        vel_lock_guard guard(state.lock);
        fake_session& session = state.sessions[serial];
        session.serial = serial;
        session.plays = plays;
        session.ms_id = ms_id;
        session.data = data;
        session.alive = true;
    }
    call_end(effect, refused ? -1 : 0);
    return refused ? nullptr : fake_handle(serial);
}

int32_t session_destroy(const char* entry, bool plays, void* handle) {
    fake_state& state = fake();
    const call_effect effect = call_begin(session_checked_call(entry, handle, plays));
    {
        vel_lock_guard guard(state.lock);
        const auto found = state.sessions.find(fake_handle_serial(handle));
        if (found != state.sessions.end()) {
            found->second.alive = false;
        }
    }
    return call_end(effect, effect.result.value_or(0));
}
