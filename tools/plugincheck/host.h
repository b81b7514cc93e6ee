/* A stand-in for the service around one plug-in: it loads the plug-in, takes its callbacks with the
 * service's locks, and notes what comes at a wrong time or from a wrong place. One to a process. */
#ifndef PLUGINCHECK_HOST_H
#define PLUGINCHECK_HOST_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <lyrane/plugin.h>
#include <veloran/lock.h>

#include "nodes.h"

struct host_options {
    std::string library;
    std::vector<std::pair<std::string, std::string>> settings;
    std::string source;  /* uid of the media source to check; empty: the first */
    int32_t wait = 5000; /* ms that a report may take */
    int32_t loops = 5;
};

constexpr size_t HOST_SOURCES_MOST = 1024;

enum class host_phase { loaded, starting, running, ending, ended };

struct host_source {
    int32_t id = 0;
    int32_t plugin_id = 0;
    int32_t type = 0;
    uint64_t capabilities = 0;
    std::string uid;
};

/* What a player has on one media source. Lives until the process ends: its address is the
 * callback_data, also of a late callback. */
struct host_session {
    int32_t ms_id = 0;
    uint64_t capabilities = 0;
    vel_mutex player_lock = {};
    /* The host's lock. */
    void* play = nullptr;
    void* browse = nullptr;
    bool closed = false;
    int32_t waiting = 0; /* callbacks that wait for the player lock */
    int32_t reports = 0; /* positions, ends, errors, states */
    int32_t ends = 0;
    int32_t plays = 0;         /* calls of play */
    int32_t advanced = 0;      /* ends after which the next track was attached and played */
    std::string advance_fault; /* why that failed */
    std::set<int32_t> late;    /* threads that have come after the end */
    /* The player lock. */
    std::vector<node_copy> tracks; /* to go on with at an end; empty: do not */
    size_t track = 0;
};

struct host_record {
    host_options options;
    void* library = nullptr;
    const lyrp_api* api = nullptr;
    uint32_t types = 0;
    int32_t last_result = 0; /* of init, detection or cleanup */
    vel_mutex lock = {};
    pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
    host_phase phase = host_phase::ended;
    bool detecting = false;
    std::set<int32_t> late; /* threads that reported a source after detection was switched off */
    std::vector<host_source> sources;
    std::vector<std::unique_ptr<host_session>> sessions;
    std::map<std::string, std::vector<std::string>> faults; /* by check, see facts.h */
};
host_record& host();

/* Opens the library; gives up (check.h) when that fails or it has no table. */
void host_load(const host_options& options);
/* init with the options' settings, or with none; its result. */
int32_t host_init(bool with_settings = true);
int32_t host_detect(int32_t enable);
int32_t host_cleanup();
/* Whether the library was linked to stay in the process for good. */
bool host_stays();
/* True when the library has left the process. */
bool host_unload();

/* Load, init, detection on; then the media source that is to be checked, or null when none was
 * reported in time. A failing init gives up. */
const host_source* host_start(const host_options& options);
/* Everything back in the service's order, and the lines of what was noted under `events`. The
 * library stays: a thread that was left behind may still be in it, and reports name its code. */
void host_finish();
void host_finish_sessions();
/* With `all` also the lines of the rules that were kept. */
void host_report_events(bool all);

/* A new session with the halves that the plug-in has. Borrowed. */
host_session* host_session_open(const host_source& source, bool play, bool browse);
void host_session_close(host_session* session);

/* Waits until `done`, which is called under the host's lock; false when it took `ms`. */
bool host_await(int32_t ms, const std::function<bool()>& done);

/* Notes a fault under a check of the group "events". [any thread] */
void host_fault(const char* check, const std::string& text);

/* Marks the calling thread as one of the service's. */
void host_adopt_thread();
bool host_owns_thread();

#endif
