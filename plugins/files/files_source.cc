/* The list of media sources. */
#include "files_source.h"

#include <algorithm>
#include <utility>

#include <veloran/lock.h>

#include "files_log.h"
#include "files_scan.h"

struct source_entry {
    files_source_ref source;
    bool reported; /* since detection was switched on */
};

/* A source has the same id whenever it comes back. */
struct known_id {
    int32_t plugin_id;
    std::string uid;
    int32_t ms_id;
};

/* One lock for the lists; never held during a callback. */
static vel_mutex lists_lock;
static std::vector<files_plugin> plugins VEL_GUARDED_BY(lists_lock);
static std::vector<source_entry> sources VEL_GUARDED_BY(lists_lock);
static std::vector<known_id> known_ids VEL_GUARDED_BY(lists_lock);
static files_source_ref reporting VEL_GUARDED_BY(lists_lock); /* its id is not known yet */

/* Held during the report of a source; no entry of the plug-in takes it, so a report may call them
 * or wait for them. */
static vel_mutex report_lock;

/* --- plug-ins ------------------------------------------------------------------------------- */

void files_source_add_plugin(int32_t plugin_id, files_settings settings) {
    auto kept = std::make_shared<const files_settings>(std::move(settings));
    vel_lock_guard hold(lists_lock);
    plugins.push_back({plugin_id, std::move(kept)});
}

bool files_source_drop_plugin() noexcept {
    vel_lock_guard hold(lists_lock);
    if (!plugins.empty()) {
        const int32_t dropped = plugins.back().plugin_id;
        plugins.pop_back();
        std::erase_if(sources, [dropped](const source_entry& entry) {
            return entry.source->plugin_id == dropped;
        });
    }
    if (plugins.empty()) {
        known_ids.clear();
    }
    return plugins.empty();
}

std::vector<files_plugin> files_source_plugins() {
    vel_lock_guard hold(lists_lock);
    return plugins;
}

/* --- sources -------------------------------------------------------------------------------- */

static files_source_ref find(int32_t ms_id) noexcept VEL_REQUIRES(lists_lock) {
    if (reporting != nullptr && reporting->ms_id == ms_id) {
        return reporting;
    }
    for (const source_entry& entry : sources) {
        if (entry.source->ms_id == ms_id) {
            return entry.source;
        }
    }
    return nullptr;
}

bool files_source_any() noexcept {
    vel_lock_guard hold(lists_lock);
    return !sources.empty();
}

files_source_ref files_source_find(int32_t ms_id) noexcept {
    vel_lock_guard hold(lists_lock);
    return find(ms_id);
}

/* An id that nothing has had yet is that of the source that is just being reported. */
files_source_ref files_source_find_own(int32_t ms_id) noexcept {
    vel_lock_guard hold(lists_lock);
    files_source_ref found = find(ms_id);
    if (found != nullptr || reporting == nullptr || reporting->ms_id >= 0 || ms_id < 0) {
        return found;
    }
    for (const known_id& known : known_ids) {
        if (known.ms_id == ms_id) {
            return nullptr;
        }
    }
    reporting->ms_id = ms_id;
    return reporting;
}

std::vector<files_source_ref> files_source_list(int32_t plugin_id, int32_t type) {
    std::vector<files_source_ref> list;
    vel_lock_guard hold(lists_lock);
    for (const source_entry& entry : sources) {
        if (entry.source->plugin_id == plugin_id && entry.source->type == type) {
            list.push_back(entry.source);
        }
    }
    return list;
}

static int32_t report(const lyrane_internal_callbacks_table* callbacks,
                      const files_source& source) noexcept {
    return callbacks->mediasource_connected(source.plugin_id, source.uid.c_str(),
                                            source.name.c_str(), source.root.c_str(), source.type,
                                            FILES_CAPABILITIES, 1);
}

/* From here on the source is found, if its id is known from earlier. */
static void begin_report(const files_source_ref& source) {
    vel_lock_guard hold(lists_lock);
    sources.reserve(sources.size() + 1);
    for (const known_id& known : known_ids) {
        if (known.plugin_id == source->plugin_id && known.uid == source->uid) {
            source->ms_id = known.ms_id;
        }
    }
    reporting = source;
}

/* Enters the source under its id; -1: the report was refused. */
static void end_report(const files_source_ref& source, int32_t ms_id) {
    vel_lock_guard hold(lists_lock);
    reporting = nullptr;
    source->ms_id = ms_id;
    if (ms_id < 0) {
        source->gone = true;
        return;
    }
    sources.push_back({source, true});
    const bool known = std::any_of(known_ids.begin(), known_ids.end(),
                                   [ms_id](const known_id& id) { return id.ms_id == ms_id; });
    if (!known) {
        known_ids.push_back({source->plugin_id, source->uid, ms_id});
    }
}

void files_source_connect(const lyrane_internal_callbacks_table* callbacks,
                          const files_source_ref& source) {
    files_log(6, (source->uid + " is there: " + source->root).c_str());
    vel_lock_guard one_by_one(report_lock);
    begin_report(source);
    end_report(source, report(callbacks, *source));
    if (!source->gone) {
        files_scan_add(source);
    }
}

void files_source_disconnect(const lyrane_internal_callbacks_table* callbacks,
                             const files_source_ref& source) noexcept {
    source->gone = true;
    {
        vel_lock_guard hold(lists_lock);
        std::erase_if(sources,
                      [&source](const source_entry& entry) { return entry.source == source; });
    }
    callbacks->mediasource_disconnected(source->ms_id);
}

void files_source_confirm(const lyrane_internal_callbacks_table* callbacks,
                          const files_source_ref& source) noexcept {
    {
        vel_lock_guard hold(lists_lock);
        const auto entry =
            std::find_if(sources.begin(), sources.end(),
                         [&source](const source_entry& known) { return known.source == source; });
        if (entry == sources.end() || std::exchange(entry->reported, true)) {
            return;
        }
    }
    report(callbacks, *source);
    files_scan_add(source);
}

void files_source_detection_off() noexcept {
    vel_lock_guard hold(lists_lock);
    for (source_entry& entry : sources) {
        entry.reported = false;
    }
}

/* --- names ---------------------------------------------------------------------------------- */

/* FNV-1a over the bytes. */
std::string files_source_hash(const std::string& text) {
    uint64_t hash = UINT64_C(0xcbf29ce484222325);
    for (const char byte : text) {
        hash = (hash ^ static_cast<unsigned char>(byte)) * UINT64_C(0x100000001b3);
    }
    std::string digits;
    for (int shift = 60; shift >= 0; shift -= 4) {
        digits += "0123456789abcdef"[hash >> shift & 0xF];
    }
    return digits;
}

std::string files_source_last_part(const std::string& path) {
    return path == "/" ? path : path.substr(path.rfind('/') + 1);
}
