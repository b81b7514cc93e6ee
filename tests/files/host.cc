/* A small host for the plug-in. */
#include "host.h"

#include <cerrno>
#include <ctime>

#include <dlfcn.h>

#include <gtest/gtest.h>

#include "media_files.h"

static constexpr time_t WAIT_SECONDS = 300;

vel_mutex host_player_lock;

static vel_mutex record_lock;
static pthread_cond_t record_changed = PTHREAD_COND_INITIALIZER;
static std::vector<host_event> events VEL_GUARDED_BY(record_lock);
static std::vector<host_source> sources VEL_GUARDED_BY(record_lock);
static std::map<int32_t, host_source> now_connected VEL_GUARDED_BY(record_lock);
static int32_t begun VEL_GUARDED_BY(record_lock);

static vel_mutex hooks_lock; /* held during the call */
static std::function<void(int32_t)> on_connected VEL_GUARDED_BY(hooks_lock);
static std::function<void(int32_t)> on_disconnected VEL_GUARDED_BY(hooks_lock);
static std::function<void(const host_event&)> on_track VEL_GUARDED_BY(host_player_lock);

static std::string library_path = FILES_PLUGIN;
static void* library;
static const lyrp_api* table;

/* --- callbacks ------------------------------------------------------------------------------ */

static int32_t connected(int32_t, const char* uid, const char* name, const char* view_name,
                         int32_t type, uint64_t capabilities, int32_t) noexcept {
    host_source source = {0, uid, name, view_name, type, capabilities, 0};
    {
        vel_lock_guard hold(record_lock);
        source.id = static_cast<int32_t>(sources.size());
        for (const host_source& known : sources) {
            if (known.uid == uid) {
                source.id = known.id;
            }
        }
        source.report = sources.size();
        sources.push_back(source);
    }
    {
        vel_lock_guard hold(hooks_lock);
        if (on_connected) {
            on_connected(source.id);
        }
    }
    vel_lock_guard hold(record_lock);
    now_connected[source.id] = source;
    pthread_cond_broadcast(&record_changed);
    return source.id;
}

static int32_t disconnected(int32_t id) noexcept {
    {
        vel_lock_guard hold(hooks_lock);
        if (on_disconnected) {
            on_disconnected(id);
        }
    }
    vel_lock_guard hold(record_lock);
    EXPECT_EQ(now_connected.erase(id), 1U) << "it was not connected";
    pthread_cond_broadcast(&record_changed);
    return 0;
}

static int32_t status_changed(int32_t, int32_t) noexcept {
    return 0;
}
static int32_t capability_changed(int32_t, uint64_t) noexcept {
    return 0;
}

static void begin() {
    vel_lock_guard hold(record_lock);
    ++begun;
    pthread_cond_broadcast(&record_changed);
}

static int32_t add(const host_event& event) {
    begin();
    vel_lock_guard player(host_player_lock);
    {
        vel_lock_guard hold(record_lock);
        events.push_back(event);
        pthread_cond_broadcast(&record_changed);
    }
    if (on_track && event.kind != host_event::position) {
        on_track(event);
    }
    return 0;
}

static int32_t position_updated(void* session, void* data, int32_t position) noexcept {
    return add({host_event::position, session, data, position});
}
static int32_t track_finished(void* session, void* data) noexcept {
    return add({host_event::finished, session, data, 0});
}
static int32_t track_changed(void*, void*, const medianode*) noexcept {
    return -1;
}
static int32_t state_updated(void*, void*, const lyr_playback_state*) noexcept {
    return -1;
}
static int32_t play_error(void* session, void* data, int32_t error) noexcept {
    return add({host_event::error, session, data, error});
}
static int32_t browse_error(void*, void*) noexcept {
    return -1;
}

static const lyrane_internal_callbacks_table callbacks = {
    connected,      disconnected,  status_changed, capability_changed, position_updated,
    track_finished, track_changed, state_updated,  play_error,         browse_error,
};

/* --- loading -------------------------------------------------------------------------------- */

const lyrp_api* host_start(const std::map<std::string, std::string>& settings) {
    host_forget();
    {
        vel_lock_guard hold(record_lock);
        sources.clear();
        now_connected.clear();
        begun = 0;
    }
    library = dlopen(library_path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        ADD_FAILURE() << dlerror();
        std::abort();
    }
    table = static_cast<const lyrp_api*>(dlsym(library, "lyrp"));
    strm_dict* dict = strm_dict_new();
    strm_dict_set(dict, "mounts", "");
    static const temporary_folder cache; /* removed at the end of the program */
    strm_dict_set(dict, "cache", cache.path.c_str());
    for (const auto& [key, value] : settings) {
        strm_dict_set(dict, key.c_str(), value.c_str());
    }
    uint32_t types = 0;
    EXPECT_EQ(table->init(0, dict, &callbacks, &types), 0);
    EXPECT_EQ(types, uint32_t{LYR_MS_TYPE_HDD | LYR_MS_TYPE_USB});
    strm_dict_destroy(dict);
    return table;
}

void host_use(const char* plugin) {
    library_path = plugin != nullptr ? plugin : FILES_PLUGIN;
}

void host_stop() {
    EXPECT_EQ(table->cleanup(), 0);
    EXPECT_EQ(dlclose(library), 0);
    host_on_connected(nullptr);
    host_on_disconnected(nullptr);
    host_on_track(nullptr);
}

void host_on_connected(std::function<void(int32_t)> call) {
    vel_lock_guard hold(hooks_lock);
    on_connected = std::move(call);
}
void host_on_disconnected(std::function<void(int32_t)> call) {
    vel_lock_guard hold(hooks_lock);
    on_disconnected = std::move(call);
}
void host_on_track(std::function<void(const host_event&)> call) {
    vel_lock_guard player(host_player_lock);
    on_track = std::move(call);
}

/* --- the record ----------------------------------------------------------------------------- */

/* Waits for a change of the record; false when the time is up. */
static bool wait_change(const timespec& limit) VEL_REQUIRES(record_lock) {
    return pthread_cond_timedwait(&record_changed, &record_lock.native, &limit) != ETIMEDOUT;
}

static timespec wait_limit() {
    timespec limit = {};
    clock_gettime(CLOCK_REALTIME, &limit);
    limit.tv_sec += WAIT_SECONDS;
    return limit;
}

std::vector<host_source> host_sources() {
    vel_lock_guard hold(record_lock);
    return sources;
}

std::vector<host_event> host_events() {
    vel_lock_guard hold(record_lock);
    return events;
}

void host_forget() {
    vel_lock_guard hold(record_lock);
    events.clear();
}

std::map<int32_t, host_source> host_connected() {
    vel_lock_guard hold(record_lock);
    return now_connected;
}

bool host_wait_connected(const std::function<bool(const std::map<int32_t, host_source>&)>& enough) {
    const timespec limit = wait_limit();
    vel_lock_guard hold(record_lock);
    while (!enough(now_connected)) {
        if (!wait_change(limit)) {
            return false;
        }
    }
    return true;
}

int32_t host_begun() {
    vel_lock_guard hold(record_lock);
    return begun;
}

bool host_wait(const std::function<bool(const std::vector<host_event>&)>& enough) {
    const timespec limit = wait_limit();
    vel_lock_guard hold(record_lock);
    while (!enough(events)) {
        if (!wait_change(limit)) {
            return false;
        }
    }
    return true;
}

bool host_wait_begun(int32_t least) {
    const timespec limit = wait_limit();
    vel_lock_guard hold(record_lock);
    while (begun < least) {
        if (!wait_change(limit)) {
            return false;
        }
    }
    return true;
}
