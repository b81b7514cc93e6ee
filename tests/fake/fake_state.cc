#include "fake_state.h"

#include <cstring>
#include <ctime>

namespace {

/* Handles lie in the image's own read-only data as numbers only; they are never followed. */
const char handle_base[16] = {};
constexpr uint64_t HANDLE_STEP = 16;
constexpr size_t SESSIONS_KEPT = 256;

struct image_state {
    image_state() {
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        pthread_cond_init(&state.changed, &attributes);
        pthread_cond_init(&state.work, &attributes);
        pthread_condattr_destroy(&attributes);
        tree_parse(state.trees[""], "");
    }
    fake_state state;
};

} // namespace

fake_state& fake() {
    static image_state image;
    return image.state;
}

bool fake_wait(fake_state& state, const timespec& until) {
    return pthread_cond_timedwait(&state.changed, &state.lock.native, &until) == 0;
}

void fake_wake(fake_state& state) {
    pthread_cond_broadcast(&state.changed);
}

timespec fake_after(int64_t milliseconds) {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    const int64_t nanoseconds = time.tv_nsec + (milliseconds % 1000) * 1000000;
    time.tv_sec += milliseconds / 1000 + nanoseconds / 1000000000;
    time.tv_nsec = nanoseconds % 1000000000;
    return time;
}

void fake_violation(fake_state& state, const std::string& what) {
    if (state.violations.size() < 100) {
        state.violations.push_back(what);
    }
}

fake_source* fake_source_by_id(fake_state& state, int32_t id) {
    for (fake_source& source : state.sources) {
        if (source.id == id && id >= 0) {
            return &source;
        }
    }
    return nullptr;
}

fake_source* fake_source_by_uid(fake_state& state, const std::string& uid) {
    for (fake_source& source : state.sources) {
        if (source.uid == uid) {
            return &source;
        }
    }
    return nullptr;
}

const tree& fake_tree_of(fake_state& state, int32_t ms_id) {
    const fake_source* source = fake_source_by_id(state, ms_id);
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

fake_session* fake_session_of(fake_state& state, const void* handle, bool plays,
                              const char* entry) {
    const uint64_t serial = fake_handle_serial(handle);
    const auto found = state.sessions.find(serial);
    const char* fault = nullptr;
    if (found == state.sessions.end()) {
        fault = "unknown session";
    } else if (!found->second.alive) {
        fault = "destroyed session";
    } else if (found->second.plays != plays) {
        fault = "session of the other kind";
    }
    if (fault != nullptr) {
        fake_violation(state, std::string(entry) + ": " + fault + " " + std::to_string(serial));
        return nullptr;
    }
    /* Only so many dead ones are kept for events with stale handles. */
    for (auto at = state.sessions.begin();
         state.sessions.size() > SESSIONS_KEPT && at != state.sessions.end();) {
        at = at->second.alive ? std::next(at) : state.sessions.erase(at);
    }
    return &found->second;
}

char* fake_text(const std::optional<std::string>& text) {
    return text ? strdup(text->c_str()) : nullptr;
}

void fake_fill_node(const tree_item& item, const fake_source* source, int32_t ms_id,
                    medianode& node) {
    node = {};
    node.id = fake_text(item.id);
    node.name = fake_text(item.name);
    node.url = fake_text(item.url);
    node.type = item.type;
    node.count = item.count;
    node.ms_id = ms_id;
    node.ms_type = source != nullptr ? source->type : 0;
    node.ms_uid = source != nullptr ? fake_text(source->uid) : nullptr;
}
