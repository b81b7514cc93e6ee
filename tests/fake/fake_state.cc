#include "fake_state.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

/* Handles lie in the image's own read-only data as numbers only; they are never followed. */
const char handle_base[16] = {};
constexpr uint64_t HANDLE_STEP = 16;
constexpr size_t SESSIONS_KEPT = 256;
constexpr time_t WAIT_LIMIT = 300; /* s */

/* A copy of a text as the interface wants it: malloc()ed, null for none. */
char* copy_of(const std::optional<std::string>& text) {
    return text ? strdup(text->c_str()) : nullptr;
}

} // namespace

fake_state::fake_state() {
    tree_parse(trees[""], "");
}

fake_state state;

bool fake_await(const std::function<bool()>& done) {
    timespec until = {};
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += WAIT_LIMIT;
    while (!done()) {
        if (state.stopping || pthread_cond_clockwait(&state.changed, &state.lock.native,
                                                     CLOCK_MONOTONIC, &until) != 0) {
            return false;
        }
    }
    return true;
}

void fake_wake() {
    pthread_cond_broadcast(&state.changed);
}

void fake_violation(const std::string& what) {
    if (state.violations.size() < 100) {
        state.violations.push_back(what);
    }
}

fake_source* fake_source_by_id(int32_t id) {
    const auto found = std::ranges::find(state.sources, id, &fake_source::id);
    return id < 0 || found == state.sources.end() ? nullptr : &*found;
}

fake_source* fake_source_by_uid(const std::string& uid) {
    const auto found = std::ranges::find(state.sources, uid, &fake_source::uid);
    return found == state.sources.end() ? nullptr : &*found;
}

const tree& fake_tree_of(int32_t ms_id) {
    const fake_source* source = fake_source_by_id(ms_id);
    const auto own = state.trees.find(source != nullptr ? source->uid : "");
    return own != state.trees.end() ? own->second : state.trees[""];
}

void* fake_handle(uint64_t serial) {
    const uintptr_t base = reinterpret_cast<uintptr_t>(handle_base);
    return reinterpret_cast<void*>(base + serial * HANDLE_STEP + 1);
}

uint64_t fake_handle_serial(const void* handle) {
    const uintptr_t base = reinterpret_cast<uintptr_t>(handle_base);
    const uintptr_t distance = reinterpret_cast<uintptr_t>(handle) - base - 1;
    return distance % HANDLE_STEP == 0 ? distance / HANDLE_STEP : 0;
}

fake_session* fake_session_at(uint64_t serial) {
    const auto found = state.sessions.find(serial);
    return found == state.sessions.end() ? nullptr : &found->second;
}

fake_session* fake_session_of(const void* handle, bool plays, const char* entry) {
    const uint64_t serial = fake_handle_serial(handle);
    fake_session* session = fake_session_at(serial);
    if (session == nullptr || !session->alive || session->plays != plays) {
        const char* fault = session == nullptr ? ": unknown session "
                            : !session->alive  ? ": destroyed session "
                                               : ": session of the other kind ";
        fake_violation(entry + (fault + std::to_string(serial)));
        return nullptr;
    }
    /* Only so many dead ones are kept for events with stale handles. */
    for (auto at = state.sessions.begin();
         state.sessions.size() > SESSIONS_KEPT && at != state.sessions.end();) {
        at = at->second.alive ? std::next(at) : state.sessions.erase(at);
    }
    return session;
}

void fake_fill_node(const tree_item& item, const fake_source* source, int32_t ms_id,
                    medianode& node) {
    node = {};
    node.id = copy_of(item.id);
    node.name = copy_of(item.name);
    node.url = copy_of(item.url);
    node.type = item.type;
    node.count = item.count;
    node.ms_id = ms_id;
    node.ms_type = source != nullptr ? source->type : 0;
    node.ms_uid = source != nullptr ? copy_of(source->uid) : nullptr;
}

void fake_free_node(medianode& node) {
    for (char* text : {node.id, node.name, node.url, node.ms_uid}) {
        std::free(text);
    }
}
