#include "plugin_load.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

#include <veloran/process.h>

#include "ascii.h"
#include "msglog.h"
#include "plugin_watch.h"

/* Id of the next plug-in; raised after a successful load only, so that ids equal positions. */
static int32_t next_plugin_id;

/* What a library may not change for the whole process. A plug-in's library may start threads, so
 * the termination signals are blocked while it loads: the threads inherit the mask, and the
 * signals stay the signal thread's. Meanwhile a thread of our own lets them in, so that a library
 * that hangs does not keep the process from being ended. */
struct process_state {
    sigset_t signals;
    sem_t loaded;
    pthread_t guard;
    bool has_guard;
    struct sigaction pipe_action;
    mode_t mask;
    vel_fd directory;
};

static void* let_signals_in(void* argument) noexcept {
    auto* state = static_cast<process_state*>(argument);
    process_restore_signals(&state->signals);
    while (sem_wait(&state->loaded) != 0) {
    }
    return nullptr;
}

static void process_state_take(process_state* state) noexcept {
    process_block_termination(&state->signals);
    sem_init(&state->loaded, 0, 0);
    state->has_guard =
        process_thread_start("plug-in load", 0, let_signals_in, state, &state->guard) == 0;
    sigaction(SIGPIPE, nullptr, &state->pipe_action);
    state->mask = umask(0);
    umask(state->mask);
    state->directory.value = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
}

static void process_state_put_back(process_state* state, const char* name) noexcept {
    struct sigaction now = {};
    sigaction(SIGPIPE, nullptr, &now);
    if (now.sa_handler != state->pipe_action.sa_handler) {
        sigaction(SIGPIPE, &state->pipe_action, nullptr);
        msglog(3, "Plug-in %s changed the handling of SIGPIPE; put back", name);
    }
    if (umask(state->mask) != state->mask) {
        msglog(3, "Plug-in %s changed the umask; put back", name);
    }
    struct stat before = {};
    struct stat after = {};
    if (state->directory.value >= 0 && fstat(state->directory.value, &before) == 0 &&
        stat(".", &after) == 0 &&
        (before.st_ino != after.st_ino || before.st_dev != after.st_dev) &&
        fchdir(state->directory.value) == 0) {
        msglog(3, "Plug-in %s changed the working directory; put back", name);
    }
    process_restore_signals(&state->signals);
    sem_post(&state->loaded);
    if (state->has_guard) {
        pthread_join(state->guard, nullptr);
    }
    sem_destroy(&state->loaded);
}

/* Opens a library; failure ends the process. */
static void* open_library(const char* name) noexcept {
    /* The loader takes the empty name for the program itself. */
    void* handle = name[0] != '\0' ? dlopen(name, RTLD_NOW | RTLD_LOCAL) : nullptr;
    if (handle == nullptr) {
        const char* reason = name[0] != '\0' ? dlerror() : "the name is empty";
        msglog(1, "Unable to load DLL \"%s\": %s.", name, reason);
    }
    return handle;
}

/* The library's own entry table. The loader also finds the symbol in libraries that this one
 * links; a table from there belongs to somebody else. Null when there is none. */
static const lyrp_api* find_table(void* handle) noexcept {
    void* symbol = dlsym(handle, "lyrp");
    link_map* library = nullptr;
    Dl_info where = {};
    link_map* owner = nullptr;
    if (symbol == nullptr || dlinfo(handle, RTLD_DI_LINKMAP, &library) != 0 ||
        dladdr1(symbol, &where, reinterpret_cast<void**>(&owner), RTLD_DL_LINKMAP) == 0 ||
        owner != library) {
        return nullptr;
    }
    return static_cast<const lyrp_api*>(symbol);
}

/* Name for messages: the table's, or the library's when the table has none. */
static const char* table_name(const lyrp_api* api, const char* library_name) noexcept {
    return api != nullptr && api->name != nullptr ? api->name : library_name;
}

/* A library loaded under a second name shares its statics with the first. */
static void warn_of_twin(control_block* control, void* handle, const char* name) noexcept {
    vel_lock_guard guard(control->registry_leaf);
    for (int32_t i = 0; i < control->plugins.count; ++i) {
        const plugin* other = static_cast<const plugin*>(control->plugins.items[i]);
        if (other->handle == handle) {
            msglog(3, "Plug-in %s is the same library as %s, loaded once for both", name,
                   other->name);
        }
    }
}

[[noreturn]] static void refuse_library(void* handle, const char* name) noexcept {
    char copy[MSGLOG_LINE_SIZE];
    snprintf(copy, sizeof copy, "%s", name); /* the text may lie in the library */
    dlclose(handle);
    msglog(2, "Error initializing DLL \"%s\".", copy);
    process_end(1);
}

extern "C" {

int32_t plugin_load(control_block* control, const char* name, const strm_dict* settings) noexcept {
    const char* mode = strm_dict_find(settings, "mode");
    const int32_t player_mode = mode != nullptr && ascii_equal_nocase(mode, "device") ? 0 : 1;
    uint32_t types = 0;

    process_state state;
    process_state_take(&state);
    void* handle = open_library(name);
    const lyrp_api* api = find_table(handle);
    if (api == nullptr) {
        refuse_library(handle, name);
    }
    warn_of_twin(control, handle, name);
    watch_slot* slot = plugin_watch_enter({name, nullptr, "init", -1});
    const int32_t started = api->init != nullptr ? api->init(next_plugin_id, settings,
                                                             &lyrane_internal_callbacks, &types)
                                                 : 0;
    plugin_watch_leave(slot);
    if (started == -1) {
        refuse_library(handle, table_name(api, name));
    }
    process_state_put_back(&state, name);

    plugin* record = static_cast<plugin*>(calloc(1, sizeof(plugin)));
    char* own_name = strdup(name);
    int32_t pushed = -1;
    if (record != nullptr && own_name != nullptr) {
        *record = {next_plugin_id, own_name, api, handle, types, player_mode};
        vel_lock_guard guard(control->registry_leaf);
        pushed = array_push(0, &control->plugins, record);
    }
    if (pushed < 0) {
        free(own_name);
        free(record);
        msglog(2, "plug-in usage cannot be created - out of memeory");
        return -1;
    }
    ++next_plugin_id;
    msglog(5, "plug-in %s loaded", table_name(api, name));
    return 0;
}

/* Cleans up and closes; 0, or -1 when either failed. */
static int32_t let_go(plugin* record) noexcept {
    int32_t result = 0;
    watch_slot* slot = plugin_watch_enter({record->name, nullptr, "cleanup", -1});
    const int32_t cleaned = record->api->cleanup != nullptr ? record->api->cleanup() : 0;
    plugin_watch_leave(slot);
    if (cleaned == -1) {
        msglog(3, "Failed to clean up %s", table_name(record->api, record->name));
        result = -1;
    }
    if (dlclose(record->handle) != 0) {
        msglog(3, "Unable to close DLL \"%s\": %s.", record->name, dlerror());
        result = -1;
    }
    msglog(5, "Unloaded plugin %s", record->name);
    return result;
}

int32_t plugin_unload(control_block* control, plugin* record) noexcept {
    (void)control;
    if (plugin_watch_inside(record->name) != 0) {
        /* The code must stay, and so must what the thread, the watch and a crash's report read. */
        msglog(3, "Plug-in %s is left loaded: a call into it does not return", record->name);
        return -1;
    }
    const int32_t result = let_go(record);
    record->api = nullptr;
    free(record->name);
    record->name = nullptr;
    return result;
}

void plugins_unload(control_block* control) noexcept {
    for (;;) {
        plugin* record = nullptr;
        {
            vel_lock_guard guard(control->registry_leaf);
            if (control->plugins.count > 0) {
                record = static_cast<plugin*>(array_pop(0, &control->plugins));
            }
        }
        if (record == nullptr) {
            return;
        }
        (void)plugin_unload(control, record);
        if (record->name == nullptr) {
            free(record);
        }
    }
}

int32_t plugins_find_by_id(int32_t ignored, const pointer_array* list, int32_t id) noexcept {
    (void)ignored;
    for (int32_t i = 0; i < list->count; ++i) {
        if (static_cast<const plugin*>(list->items[i])->id == id) {
            return i;
        }
    }
    return -1;
}

int32_t plugins_find_by_type(int32_t ignored, const pointer_array* list, uint32_t mask) noexcept {
    (void)ignored;
    for (int32_t i = 0; i < list->count; ++i) {
        if ((static_cast<const plugin*>(list->items[i])->types & mask) != 0) {
            return i;
        }
    }
    return -1;
}

void plugins_set_mediasource_detection(control_block* control, int32_t enable) noexcept {
    /* The list does not change while the service runs; the lock cannot be held over the call,
     * since plug-ins report sources from inside it. */
    for (int32_t i = 0;; ++i) {
        const plugin* record = nullptr;
        {
            vel_lock_guard guard(control->registry_leaf);
            if (i < control->plugins.count) {
                record = static_cast<const plugin*>(control->plugins.items[i]);
            }
        }
        if (record == nullptr) {
            return;
        }
        watch_slot* slot =
            plugin_watch_enter({record->name, nullptr, "set_mediasource_detection", -1});
        const int32_t result = record->api->set_mediasource_detection != nullptr
                                   ? record->api->set_mediasource_detection(enable)
                                   : 0;
        plugin_watch_leave(slot);
        if (result == -1) {
            msglog(6, "Failed to set media source detection: %s",
                   table_name(record->api, record->name));
        }
    }
}
}

plugin* plugin_by_id(control_block* control, int32_t id) noexcept {
    vel_lock_guard guard(control->registry_leaf);
    const int32_t position = plugins_find_by_id(0, &control->plugins, id);
    return position < 0 ? nullptr : static_cast<plugin*>(control->plugins.items[position]);
}
