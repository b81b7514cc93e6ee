/* The play table, and the device that walks its own list. */
#include <algorithm>

#include "fake_calls.h"
#include "fake_events.h"

namespace {

/* What a device tells of itself after a change. */
void report_state(const fake_session& session) VEL_REQUIRES(state.lock) {
    if (state.device) {
        events_post("state session=this", session.serial);
    }
}

/* One call; `change` is what a successful one does to the session. */
template <typename function>
int32_t make(fake_call call, function change) {
    const call_effect effect = call_begin(std::move(call));
    {
        vel_lock_guard guard(state.lock);
        fake_session* session = fake_session_at(effect.session);
        if (session != nullptr && effect.result.value_or(0) == 0) {
            change(*session);
        }
    }
    return call_end(effect, effect.result.value_or(0));
}

/* An entry that leaves the device in `status`. */
int32_t set_status(const char* entry, void* handle, int32_t status) {
    return make(session_call(entry, handle, true), [&](fake_session& session) {
        session.state.status = status;
        report_state(session);
    });
}

/* The device goes `step` tracks on in the folder of its current one, and round at the ends. */
int32_t walk(const char* entry, void* handle, int32_t step) {
    return make(session_call(entry, handle, true), [&](fake_session& session) {
        std::vector<tree_item> tracks;
        if (state.device) {
            tree_page(fake_tree_of(session.ms_id), tree_parent(session.current), 0, INT32_MAX,
                      tracks);
        }
        std::erase_if(tracks, [](const tree_item& item) { return item.type == LYR_NODE_FOLDER; });
        if (const int64_t size = std::ssize(tracks); size > 0) {
            const int64_t at =
                std::ranges::find(tracks, session.current, &tree_item::id) - tracks.begin();
            session.current = tracks[static_cast<size_t>((at + step + size) % size)].id;
            events_post("changed session=this node=" + words_quote(session.current),
                        session.serial);
            report_state(session);
        }
    });
}

/* An entry with a mode, which the device keeps in `field`. */
int32_t set_mode(const char* entry, void* handle, int32_t mode,
                 int32_t lyr_playback_state::*field) {
    return make(session_call(entry, handle, true, std::to_string(mode)),
                [&](fake_session& session) {
                    session.state.*field = mode;
                    report_state(session);
                });
}

int32_t attach(void* handle, const medianode* node) noexcept {
    fake_call call = session_call("attach", handle, true);
    if (node != nullptr && node->id != nullptr) {
        call.id = node->id;
    } else {
        vel_lock_guard guard(state.lock);
        fake_violation("attach: no node, or one without id");
    }
    const std::string id = call.id.value_or("");
    return make(std::move(call), [&](fake_session& session) { session.current = id; });
}

int32_t set_rate(void* handle, float rate) noexcept {
    return make(session_call("rate", handle, true, std::to_string(rate)),
                [&](fake_session& session) { session.state.playback_rate = rate; });
}

int32_t seek(void* handle, int32_t position) noexcept {
    return make(session_call("seek", handle, true, std::to_string(position)), [](fake_session&) {});
}

} // namespace

constinit const lyr_play_api fake_play_entries = {
    .create = [](int32_t ms_id,
                 void* data) noexcept { return session_create("play.create", true, ms_id, data); },
    .destroy = [](void* handle) noexcept { return session_destroy("play.destroy", true, handle); },
    .reserved = nullptr,
    .attach_medianode = attach,
    .play = [](void* handle) noexcept { return set_status("play", handle, LYR_STATUS_PLAYING); },
    .pause = [](void* handle) noexcept { return set_status("pause", handle, LYR_STATUS_PAUSED); },
    .stop = [](void* handle) noexcept { return set_status("stop", handle, LYR_STATUS_STOPPED); },
    .set_playback_rate = set_rate,
    .seek = seek,
    .next = [](void* handle) noexcept { return walk("next", handle, 1); },
    .previous = [](void* handle) noexcept { return walk("previous", handle, -1); },
    .shuffle =
        [](void* handle, int32_t mode) noexcept {
            return set_mode("shuffle", handle, mode, &lyr_playback_state::shuffle_mode);
        },
    .repeat =
        [](void* handle, int32_t mode) noexcept {
            return set_mode("repeat", handle, mode, &lyr_playback_state::repeat_mode);
        },
};
