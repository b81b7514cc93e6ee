/* The plug-in's life, and the sessions on it. */
#include "host.h"

#include <cstdlib>

#include <dlfcn.h>
#include <link.h>

#include "call.h"
#include "check.h"

static thread_local bool own_thread;

host_record& host() {
    static host_record record;
    return record;
}

void host_adopt_thread() {
    own_thread = true;
}

bool host_owns_thread() {
    return own_thread;
}

void host_fault(const char* check, const std::string& text) {
    vel_lock_guard guard(host().lock);
    host().faults[check].push_back(text);
}

bool host_await(int32_t ms, const std::function<bool()>& done) {
    const timespec deadline = vel_deadline(ms);
    vel_lock_guard guard(host().lock);
    while (!done() && vel_wait_until(&host().changed, &host().lock, deadline)) {
    }
    return done();
}

/* The table, when it is the library's own and not one of a library that it links. */
static const lyrp_api* find_table(void* library) {
    void* symbol = dlsym(library, "lyrp");
    link_map* map = nullptr;
    link_map* owner = nullptr;
    Dl_info where = {};
    if (symbol == nullptr || dlinfo(library, RTLD_DI_LINKMAP, &map) != 0 ||
        dladdr1(symbol, &where, reinterpret_cast<void**>(&owner), RTLD_DL_LINKMAP) == 0 ||
        owner != map) {
        return nullptr;
    }
    return static_cast<const lyrp_api*>(symbol);
}

static void set_phase(host_phase phase) {
    vel_lock_guard guard(host().lock);
    host().phase = phase;
}

void host_load(const host_options& options) {
    host().options = options;
    host().sources.reserve(HOST_SOURCES_MOST); /* references stay valid */
    host_adopt_thread();
    check_note_call("dlopen");
    host().library = dlopen(options.library.c_str(), RTLD_NOW | RTLD_LOCAL);
    check_note_call(nullptr);
    if (host().library == nullptr) {
        check_give_up("%s", dlerror());
    }
    host().api = find_table(host().library);
    if (host().api == nullptr) {
        check_give_up("the library has no data object lyrp of its own");
    }
    set_phase(host_phase::loaded);
}

int32_t host_init(bool with_settings) {
    host().types = 0;
    host().last_result = 0;
    set_phase(host_phase::starting);
    if (host().api->init != nullptr) {
        strm_dict* settings = strm_dict_new();
        static const std::pair<const char*, const char*> of_player[] = {
            {"audio_output", "fakesink sync=true"},
            {"video_output", "fakesink sync=true"},
            {"update_interval", "100"},
            {"progression_mode", "ROSP"},
            {"recursion_depth", "-1"}};
        for (const auto& [key, value] : of_player) {
            (void)strm_dict_set(settings, key, value);
        }
        for (const auto& [key, value] : host().options.settings) {
            if (with_settings) {
                (void)strm_dict_set(settings, key.c_str(), value.c_str());
            }
        }
        check_note_call("init");
        host().last_result =
            host().api->init(0, settings, &lyrane_internal_callbacks, &host().types);
        strm_dict_destroy(settings);
        check_note_call(nullptr);
    }
    set_phase(host().last_result == -1 ? host_phase::ended : host_phase::running);
    return host().last_result;
}

int32_t host_detect(int32_t enable) {
    host().last_result = 0;
    if (enable != 0) {
        vel_lock_guard guard(host().lock);
        host().detecting = true;
        host().late.clear();
    }
    if (host().api->set_mediasource_detection != nullptr) {
        check_note_call("set_mediasource_detection");
        host().last_result = host().api->set_mediasource_detection(enable);
        check_note_call(nullptr);
    }
    if (enable == 0) {
        vel_lock_guard guard(host().lock);
        host().detecting = false;
    }
    return host().last_result;
}

int32_t host_cleanup() {
    set_phase(host_phase::ending);
    host().last_result = 0;
    if (host().api->cleanup != nullptr) {
        check_note_call("cleanup");
        host().last_result = host().api->cleanup();
        check_note_call(nullptr);
    }
    set_phase(host_phase::ended);
    return host().last_result;
}

bool host_stays() {
    link_map* map = nullptr;
    if (dlinfo(host().library, RTLD_DI_LINKMAP, &map) != 0) {
        return false;
    }
    for (const ElfW(Dyn)* entry = map->l_ld; entry->d_tag != DT_NULL; ++entry) {
        if (entry->d_tag == DT_FLAGS_1 && (entry->d_un.d_val & DF_1_NODELETE) != 0) {
            return true;
        }
    }
    return false;
}

bool host_unload() {
    check_note_call("dlclose");
    (void)dlclose(host().library);
    check_note_call(nullptr);
    void* still = dlopen(host().options.library.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (still != nullptr) {
        (void)dlclose(still);
    }
    host().library = nullptr;
    host().api = nullptr;
    return still == nullptr;
}

static const host_source* chosen_source() {
    for (const host_source& source : host().sources) {
        if (host().options.source.empty() || source.uid == host().options.source) {
            return &source;
        }
    }
    return nullptr;
}

const host_source* host_start(const host_options& options) {
    host_load(options);
    if (host_init() == -1) {
        check_give_up("init fails");
    }
    (void)host_detect(1);
    (void)host_await(options.wait, [] { return chosen_source() != nullptr; });
    vel_lock_guard guard(host().lock);
    return chosen_source();
}

host_session* host_session_open(const host_source& source, bool play, bool browse) {
    auto owner = std::make_unique<host_session>();
    host_session* session = owner.get();
    session->ms_id = source.id;
    session->capabilities = source.capabilities;
    {
        vel_lock_guard guard(host().lock);
        host().sessions.push_back(std::move(owner));
    }
    vel_lock_guard player(session->player_lock);
    void* browse_half = browse ? call_browse_create(source.id, session) : nullptr;
    void* play_half = play ? call_play_create(source.id, session) : nullptr;
    vel_lock_guard guard(host().lock);
    session->browse = browse_half;
    session->play = play_half;
    return session;
}

void host_session_close(host_session* session) {
    vel_lock_guard player(session->player_lock);
    if (session->closed) {
        return;
    }
    (void)call_play_destroy(session->play);
    (void)call_browse_destroy(session->browse);
    vel_lock_guard guard(host().lock);
    session->closed = true;
}

void host_report_events(bool all) {
    static const char* const rules[] = {"events.context", "events.phase", "events.session",
                                        "events.late",    "events.ends",  "events.values"};
    vel_lock_guard guard(host().lock);
    for (const char* rule : rules) {
        const std::vector<std::string>& faults = host().faults[rule];
        if (faults.empty() && !all) {
            continue;
        }
        check_begin(rule);
        for (const std::string& fault : faults) {
            check_fail("%s", fault.c_str());
        }
        check_end();
    }
}

void host_finish_sessions() {
    for (const auto& session : host().sessions) {
        host_session_close(session.get());
    }
}

void host_finish() {
    host_finish_sessions();
    (void)host_detect(0);
    (void)host_cleanup();
    host_report_events(false);
}
