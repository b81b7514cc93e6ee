/* A small host for the plug-in. */
#include "host.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include <dlfcn.h>

#include <gtest/gtest.h>

#include "media_files.h"

static constexpr time_t WAIT_SECONDS = 200;

vel_mutex host_player_lock;

static vel_mutex record_lock;
static pthread_cond_t record_changed = PTHREAD_COND_INITIALIZER;
static host_record record VEL_GUARDED_BY(record_lock);

static vel_mutex hook_lock; /* held during the call */
static std::function<void(int32_t)> on_source VEL_GUARDED_BY(hook_lock);
static std::function<void(const host_event&)> on_track VEL_GUARDED_BY(host_player_lock);

static void* library;
static const lyrp_api* table;

/* --- the record ----------------------------------------------------------------------------- */

static void change(const std::function<void()>& how) {
    vel_lock_guard hold(record_lock);
    how();
    pthread_cond_broadcast(&record_changed);
}

host_record host_now() {
    vel_lock_guard hold(record_lock);
    return record;
}

bool host_wait(const std::function<bool(const host_record&)>& enough) {
    const timespec limit = vel_deadline(WAIT_SECONDS * 1000);
    vel_lock_guard hold(record_lock);
    while (!enough(record)) {
        if (!vel_wait_until(&record_changed, &record_lock, limit)) {
            return false;
        }
    }
    return true;
}

bool host_wait_sources(size_t count) {
    return host_wait([count](const host_record& now) { return now.connected.size() == count; });
}

bool host_wait_begun(int32_t before) {
    return host_wait([before](const host_record& now) { return now.begun > before; });
}

void host_forget() {
    change([] { record.events.clear(); });
}

static int32_t count_events(const host_record& now, host_event::what kind, int32_t least,
                            int32_t most) {
    return static_cast<int32_t>(
        std::count_if(now.events.begin(), now.events.end(), [=](const host_event& event) {
            return event.kind == kind && event.value >= least && event.value <= most;
        }));
}

int32_t host_events(host_event::what kind, int32_t least, int32_t most) {
    return count_events(host_now(), kind, least, most);
}

bool host_wait_event(host_event::what kind, int32_t least, int32_t most) {
    return host_wait(
        [=](const host_record& now) { return count_events(now, kind, least, most) > 0; });
}

static int32_t count_lines(const host_record& now, const std::string& text) {
    return static_cast<int32_t>(
        std::count_if(now.lines.begin(), now.lines.end(), [&text](const std::string& line) {
            return line.find(text) != std::string::npos;
        }));
}

int32_t host_log_count(const std::string& text) {
    return count_lines(host_now(), text);
}

bool host_log_wait(const std::string& text, int32_t least) {
    return host_wait([&](const host_record& now) { return count_lines(now, text) >= least; });
}

void host_on_source(std::function<void(int32_t)> call) {
    vel_lock_guard hold(hook_lock);
    on_source = std::move(call);
}

void host_on_track(std::function<void(const host_event&)> call) {
    vel_lock_guard player(host_player_lock);
    on_track = std::move(call);
}

/* --- callbacks ------------------------------------------------------------------------------ */

/* What the plug-in finds in the place of the service's log. */
extern "C" int32_t msglog(int32_t level, const char* format, ...) noexcept {
    char line[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "%d %s\n", level, line);
    change([&line] { record.lines.emplace_back(line); });
    return 0;
}

static void call_on_source(int32_t id) {
    vel_lock_guard hold(hook_lock);
    if (on_source) {
        on_source(id);
    }
}

static int32_t connected(int32_t, const char* uid, const char* name, const char* view_name,
                         int32_t type, uint64_t capabilities, int32_t) noexcept {
    host_source source = {0, uid, name, view_name, type, capabilities};
    change([&source] {
        const auto known =
            std::find_if(record.sources.begin(), record.sources.end(),
                         [&source](const host_source& each) { return each.uid == source.uid; });
        source.id =
            known != record.sources.end() ? known->id : static_cast<int32_t>(record.sources.size());
        record.sources.push_back(source);
    });
    call_on_source(source.id);
    change([&source] { record.connected[source.id] = source; });
    return source.id;
}

static int32_t disconnected(int32_t id) noexcept {
    call_on_source(id);
    change([id] { EXPECT_EQ(record.connected.erase(id), 1U) << "it was not connected"; });
    return 0;
}

static int32_t add(const host_event& event) {
    change([] { ++record.begun; });
    vel_lock_guard player(host_player_lock);
    change([&event] { record.events.push_back(event); });
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
static int32_t play_error(void* session, void* data, int32_t error) noexcept {
    return add({host_event::error, session, data, error});
}
/* This plug-in has no use for the others. */
static const lyrane_internal_callbacks_table callbacks = {
    connected,      disconnected, nullptr, nullptr,    position_updated,
    track_finished, nullptr,      nullptr, play_error, nullptr,
};

/* --- loading -------------------------------------------------------------------------------- */

const lyrp_api* host_start(const std::map<std::string, std::string>& settings,
                           const std::string& plugin) {
    change([] { record = host_record{}; });
    library = dlopen(plugin.empty() ? FILES_PLUGIN : plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
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

void host_stop() {
    if (library == nullptr) {
        return;
    }
    EXPECT_EQ(table->cleanup(), 0);
    EXPECT_EQ(dlclose(library), 0);
    library = nullptr;
    host_on_source(nullptr);
    host_on_track(nullptr);
}
