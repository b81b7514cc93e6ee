/* The folders that are media sources. */
#include "files_source.h"

#include <utility>
#include <vector>

#include <sys/stat.h>

#include <veloran/lock.h>

struct plugin_entry {
    int32_t plugin_id;
    std::shared_ptr<const files_settings> settings;
};

struct source_entry {
    files_source_ref source;
    bool reported; /* since detection was switched on */
};

/* One lock for the lists; never held during a callback. */
static vel_mutex lists_lock;
static std::vector<plugin_entry> plugins VEL_GUARDED_BY(lists_lock);
static std::vector<source_entry> sources VEL_GUARDED_BY(lists_lock);

/* A short text that is the same for a path in every run, and differs for paths that differ by
 * letter case alone, which uids may not: FNV-1a over the bytes. */
static std::string uid_of(const std::string& path) {
    uint64_t hash = UINT64_C(0xcbf29ce484222325);
    for (const char byte : path) {
        hash = (hash ^ static_cast<unsigned char>(byte)) * UINT64_C(0x100000001b3);
    }
    std::string uid = "folder-";
    for (int shift = 60; shift >= 0; shift -= 4) {
        uid += "0123456789abcdef"[hash >> shift & 0xF];
    }
    return uid;
}

static std::string name_of(const std::string& path) {
    return path == "/" ? path : path.substr(path.rfind('/') + 1);
}

static bool is_folder(const std::string& path) {
    struct stat facts = {};
    return stat(path.c_str(), &facts) == 0 && S_ISDIR(facts.st_mode);
}

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
    return plugins.empty();
}

static bool was_reported(int32_t plugin_id, const std::string& root) {
    vel_lock_guard hold(lists_lock);
    for (const source_entry& entry : sources) {
        if (entry.reported && entry.source->plugin_id == plugin_id && entry.source->root == root) {
            return true;
        }
    }
    return false;
}

/* Enters a source under its id; an earlier entry of that id is the same folder. */
static void enter(files_source_ref source) {
    vel_lock_guard hold(lists_lock);
    for (source_entry& entry : sources) {
        if (entry.source->ms_id == source->ms_id) {
            entry = {std::move(source), true};
            return;
        }
    }
    sources.push_back({std::move(source), true});
}

/* Reports one folder. Between the report and the entry here the service may already ask for the
 * source; it is told that there is none, and asks again. */
static void report(const lyrane_internal_callbacks_table* callbacks, const plugin_entry& plugin,
                   const std::string& root) {
    auto source = std::make_shared<files_source>();
    source->plugin_id = plugin.plugin_id;
    source->uid = uid_of(root);
    source->root = root;
    source->name = name_of(root);
    source->settings = plugin.settings;
    source->ms_id = callbacks->mediasource_connected(plugin.plugin_id, source->uid.c_str(),
                                                     source->name.c_str(), root.c_str(),
                                                     LYR_MS_TYPE_HDD, FILES_CAPABILITIES, 1);
    if (source->ms_id >= 0) {
        enter(std::move(source));
    }
}

void files_source_detect(const lyrane_internal_callbacks_table* callbacks) {
    std::vector<plugin_entry> all;
    {
        vel_lock_guard hold(lists_lock);
        all = plugins;
    }
    for (const plugin_entry& plugin : all) {
        for (const std::string& root : plugin.settings->folders) {
            if (is_folder(root) && !was_reported(plugin.plugin_id, root)) {
                report(callbacks, plugin, root);
            }
        }
    }
}

void files_source_detection_off() noexcept {
    vel_lock_guard hold(lists_lock);
    for (source_entry& entry : sources) {
        entry.reported = false;
    }
}

files_source_ref files_source_find(int32_t ms_id) noexcept {
    vel_lock_guard hold(lists_lock);
    for (const source_entry& entry : sources) {
        if (entry.source->ms_id == ms_id) {
            return entry.source;
        }
    }
    return nullptr;
}
