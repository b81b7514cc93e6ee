/* The exported table: what the service calls first and last, and the taking out of entries. */
#include <cstdio>
#include <cstring>

#include "fake_calls.h"
#include "fake_control.h"
#include "fake_events.h"

/* The service exports its dictionary; a test that loads this library need not. */
extern "C" {
__attribute__((weak)) extern decltype(strm_dict_count) strm_dict_count;
__attribute__((weak)) extern decltype(strm_dict_at) strm_dict_at;
}

namespace {

lyr_play_api play_table = fake_play_entries;
lyr_browse_api browse_table = fake_browse_entries;
char table_name[512] = "fake";

void read_settings(const strm_dict* settings) VEL_REQUIRES(state.lock) {
    state.settings.clear();
    if (settings == nullptr || strm_dict_count == nullptr || strm_dict_at == nullptr) {
        return;
    }
    const int32_t count = strm_dict_count(settings);
    for (int32_t i = 0; i < count; ++i) {
        const char* key = nullptr;
        const char* value = nullptr;
        if (strm_dict_at(settings, i, &key, &value) == 0) {
            state.settings[key] = value;
        }
    }
}

extern "C" {

static int32_t fake_init(int32_t plugin_id, const strm_dict* settings,
                         const lyrane_internal_callbacks_table* callbacks,
                         uint32_t* types) noexcept {
    std::string script;
    std::string control;
    {
        vel_lock_guard guard(state.lock);
        state.plugin_id = plugin_id;
        state.callbacks = callbacks;
        state.stopping = false;
        read_settings(settings);
        script = state.settings["script"];
        control = state.settings["control"];
    }
    control_run_script(script);
    const call_effect effect = call_begin({"init"});
    {
        vel_lock_guard guard(state.lock);
        *types = state.types;
    }
    int32_t result = effect.result.value_or(0);
    if (result != -1 && !control.empty() && !control_listen(control)) {
        result = -1;
    }
    return call_end(effect, result);
}

static int32_t fake_detection(int32_t enable) noexcept {
    const call_effect effect = call_begin({"detection"});
    {
        vel_lock_guard guard(state.lock);
        state.detecting = enable != 0;
    }
    if (enable != 0 && !effect.result) {
        events_report_sources();
    }
    return call_end(effect, effect.result.value_or(0));
}

static int32_t fake_cleanup(void) noexcept {
    const call_effect effect = call_begin({"cleanup"});
    {
        vel_lock_guard guard(state.lock);
        for (const auto& [serial, session] : state.sessions) {
            if (session.alive) {
                fake_violation("cleanup: session " + std::to_string(serial) + " is alive");
            }
        }
        /* The last chance of a test in another process to learn of it. */
        for (const std::string& line : state.violations) {
            std::fprintf(stderr, "fake.so: violation: %s\n", line.c_str());
        }
        state.stopping = true;
        fake_wake();
        pthread_cond_broadcast(&state.work);
    }
    events_end_threads();
    control_end();
    {
        vel_lock_guard guard(state.lock);
        state.callbacks = nullptr;
        state.detecting = false;
    }
    return call_end(effect, effect.result.value_or(0));
}
}

} // namespace

extern "C" {
__attribute__((visibility("default"))) extern lyrp_api lyrp;
lyrp_api lyrp = {table_name,   nullptr,     fake_init,    fake_detection,
                 fake_cleanup, &play_table, &browse_table};
}

namespace {

/* One word of a table, by name. */
struct table_slot {
    const char* name;
    void* address;       /* of the word in use */
    const void* initial; /* of the word as it is at first */
};

const lyrp_api initial_table = lyrp;

const table_slot slots[] = {
    {"init", &lyrp.init, &initial_table.init},
    {"detection", &lyrp.set_mediasource_detection, &initial_table.set_mediasource_detection},
    {"cleanup", &lyrp.cleanup, &initial_table.cleanup},
    {"play_api", &lyrp.play_api, &initial_table.play_api},
    {"browse_api", &lyrp.browse_api, &initial_table.browse_api},
    {"play.create", &play_table.create, &fake_play_entries.create},
    {"play.destroy", &play_table.destroy, &fake_play_entries.destroy},
    {"attach", &play_table.attach_medianode, &fake_play_entries.attach_medianode},
    {"play", &play_table.play, &fake_play_entries.play},
    {"pause", &play_table.pause, &fake_play_entries.pause},
    {"stop", &play_table.stop, &fake_play_entries.stop},
    {"rate", &play_table.set_playback_rate, &fake_play_entries.set_playback_rate},
    {"seek", &play_table.seek, &fake_play_entries.seek},
    {"next", &play_table.next, &fake_play_entries.next},
    {"previous", &play_table.previous, &fake_play_entries.previous},
    {"shuffle", &play_table.shuffle, &fake_play_entries.shuffle},
    {"repeat", &play_table.repeat, &fake_play_entries.repeat},
    {"browse.create", &browse_table.create, &fake_browse_entries.create},
    {"browse.destroy", &browse_table.destroy, &fake_browse_entries.destroy},
    {"browse", &browse_table.browse, &fake_browse_entries.browse},
    {"search", &browse_table.search, &fake_browse_entries.search},
    {"metadata", &browse_table.get_metadata, &fake_browse_entries.get_metadata},
    {"extended", &browse_table.get_extended_metadata, &fake_browse_entries.get_extended_metadata},
    {"update", &browse_table.update_medianodes, &fake_browse_entries.update_medianodes},
    {"cancel", &browse_table.cancel_browse, &fake_browse_entries.cancel_browse},
};

const table_slot* slot_of(const std::string& entry) {
    for (const table_slot& slot : slots) {
        if (entry == slot.name) {
            return &slot;
        }
    }
    return nullptr;
}

} // namespace

bool fake_table_set(const std::string& entry, bool present) {
    const table_slot* slot = slot_of(entry);
    const void* none = nullptr;
    if (slot != nullptr) {
        std::memcpy(slot->address, present ? slot->initial : &none, sizeof none);
    }
    return slot != nullptr;
}

bool fake_table_knows(const std::string& entry) {
    return slot_of(entry) != nullptr;
}

void fake_table_name(const std::string& name) {
    table_name[name.copy(table_name, sizeof table_name - 1)] = '\0';
}
