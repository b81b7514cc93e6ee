/* The play table, and the device that walks its own list. */
#include <algorithm>

#include "fake_events.h"
#include "fake_sessions.h"

namespace {

/* The session of a handle, or null; says nothing. */
fake_session* find(fake_state& state, const void* handle) VEL_REQUIRES(state.lock) {
    const auto found = state.sessions.find(fake_handle_serial(handle));
    return found == state.sessions.end() ? nullptr : &found->second;
}

/* What a device tells of itself after a change. */
void report_state(fake_state& state, const fake_session& session) VEL_REQUIRES(state.lock) {
    events_post(state, "state session=this", session.serial);
}

/* One entry without further arguments, which leaves the device in `status` (-1: as it was). */
int32_t simple(const char* entry, void* handle, int32_t status) {
    const call_effect effect = call_begin(session_checked_call(entry, handle, true));
    const int32_t result = effect.result.value_or(0);
    fake_state& state = fake();
    {
        vel_lock_guard guard(state.lock);
        fake_session* session = find(state, handle);
        if (session != nullptr && result == 0 && status >= 0) {
            session->state.status = status;
            if (state.device) {
                report_state(state, *session);
            }
        }
    }
    return call_end(effect, result);
}

/* The device goes `step` tracks on in the folder of its current one, and round at the ends. */
void walk(fake_state& state, fake_session& session, int32_t step) VEL_REQUIRES(state.lock) {
    const tree& source = fake_tree_of(state, session.ms_id);
    const std::string folder = tree_parent(session.current);
    std::vector<std::string> tracks;
    const int32_t count = tree_count(source, folder);
    for (int32_t i = 0; i < count; ++i) {
        tree_item item;
        tree_child(source, folder, i, item);
        if (item.type != LYR_NODE_FOLDER) {
            tracks.push_back(item.id);
        }
    }
    if (tracks.empty()) {
        return;
    }
    const int64_t size = static_cast<int64_t>(tracks.size());
    const int64_t at = std::find(tracks.begin(), tracks.end(), session.current) - tracks.begin();
    session.current = tracks[static_cast<size_t>((at + step + size) % size)];
    events_post(state, "changed session=this node=" + words_quote(session.current), session.serial);
    report_state(state, session);
}

int32_t step(const char* entry, void* handle, int32_t by) {
    const call_effect effect = call_begin(session_checked_call(entry, handle, true));
    const int32_t result = effect.result.value_or(0);
    fake_state& state = fake();
    {
        vel_lock_guard guard(state.lock);
        fake_session* session = find(state, handle);
        if (session != nullptr && state.device && result == 0) {
            walk(state, *session, by);
        }
    }
    return call_end(effect, result);
}

/* An entry with a number, which the device keeps in `field`. */
int32_t number(const char* entry, void* handle, int32_t value, int32_t lyr_playback_state::*field) {
    fake_call call = session_checked_call(entry, handle, true);
    call.arguments = call_word("value", value);
    const call_effect effect = call_begin(std::move(call));
    const int32_t result = effect.result.value_or(0);
    fake_state& state = fake();
    {
        vel_lock_guard guard(state.lock);
        fake_session* session = find(state, handle);
        if (session != nullptr && field != nullptr && result == 0) {
            session->state.*field = value;
            if (state.device) {
                report_state(state, *session);
            }
        }
    }
    return call_end(effect, result);
}

extern "C" {

static void* fake_play_create(int32_t ms_id, void* data) noexcept {
    return session_create("play.create", true, ms_id, data);
}

static int32_t fake_play_destroy(void* handle) noexcept {
    return session_destroy("play.destroy", true, handle);
}

static int32_t fake_attach(void* handle, const medianode* node) noexcept {
    fake_call call = session_checked_call("attach", handle, true);
    if (node != nullptr && node->id != nullptr) {
        call.id = node->id;
        call.arguments = call_word("name", node->name) + call_word("url", node->url) +
                         call_word("type", node->type) + call_word("count", node->count) +
                         call_word("node_ms", node->ms_id);
    } else {
        fake_state& state = fake();
        vel_lock_guard guard(state.lock);
        fake_violation(state, "attach: no node, or one without id");
    }
    const std::string id = call.id.value_or("");
    const call_effect effect = call_begin(std::move(call));
    const int32_t result = effect.result.value_or(0);
    fake_state& state = fake();
    {
        vel_lock_guard guard(state.lock);
        fake_session* session = find(state, handle);
        if (session != nullptr && result == 0) {
            session->current = id;
        }
    }
    return call_end(effect, result);
}

static int32_t fake_play(void* handle) noexcept {
    return simple("play", handle, LYR_STATUS_PLAYING);
}

static int32_t fake_pause(void* handle) noexcept {
    return simple("pause", handle, LYR_STATUS_PAUSED);
}

static int32_t fake_stop(void* handle) noexcept {
    return simple("stop", handle, LYR_STATUS_STOPPED);
}

static int32_t fake_rate(void* handle, float rate) noexcept {
    fake_call call = session_checked_call("rate", handle, true);
    call.arguments = call_word("value", std::to_string(rate).c_str());
    const call_effect effect = call_begin(std::move(call));
    fake_state& state = fake();
    {
        vel_lock_guard guard(state.lock);
        fake_session* session = find(state, handle);
        if (session != nullptr && effect.result.value_or(0) == 0) {
            session->state.playback_rate = rate;
        }
    }
    return call_end(effect, effect.result.value_or(0));
}

static int32_t fake_seek(void* handle, int32_t position) noexcept {
    return number("seek", handle, position, nullptr);
}

static int32_t fake_next(void* handle) noexcept {
    return step("next", handle, 1);
}

static int32_t fake_previous(void* handle) noexcept {
    return step("previous", handle, -1);
}

static int32_t fake_shuffle(void* handle, int32_t mode) noexcept {
    return number("shuffle", handle, mode, &lyr_playback_state::shuffle_mode);
}

static int32_t fake_repeat(void* handle, int32_t mode) noexcept {
    return number("repeat", handle, mode, &lyr_playback_state::repeat_mode);
}
}

} // namespace

const lyr_play_api fake_play_entries = {
    fake_play_create, fake_play_destroy, nullptr,    fake_attach, fake_play,
    fake_pause,       fake_stop,         fake_rate,  fake_seek,   fake_next,
    fake_previous,    fake_shuffle,      fake_repeat};
