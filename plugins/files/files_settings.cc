/* The plug-in's settings. */
#include "files_settings.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "files_log.h"

static std::string text_of(const strm_dict* dict, const char* key) {
    const char* value = dict != nullptr ? strm_dict_find(dict, key) : nullptr;
    return value != nullptr ? value : "";
}

/* One spelling for one folder: no doubled slash, none at the end. */
static std::string tidy_path(const std::string& path) {
    std::string tidy;
    for (const char byte : path) {
        if (byte != '/' || tidy.empty() || tidy.back() != '/') {
            tidy += byte;
        }
    }
    if (tidy.size() > 1 && tidy.back() == '/') {
        tidy.pop_back();
    }
    return tidy;
}

static void add_folder(std::vector<std::string>* folders, const std::string& path) {
    if (path.empty()) {
        return;
    }
    const std::string folder = tidy_path(path);
    if (folder[0] != '/') {
        files_log(3, ("not an absolute path: " + folder).c_str());
    } else if (folders->size() >= FILES_FOLDERS_MOST) {
        files_log(3, ("too many folders, left out: " + folder).c_str());
    } else if (std::find(folders->begin(), folders->end(), folder) == folders->end()) {
        folders->push_back(folder);
    }
}

/* Paths with ':' between them; "\:" and "\\" stand for the bytes themselves. */
static std::vector<std::string> split_folders(const std::string& list) {
    std::vector<std::string> folders;
    std::string path;
    for (size_t i = 0; i < list.size(); ++i) {
        const bool escape =
            list[i] == '\\' && i + 1 < list.size() && (list[i + 1] == ':' || list[i + 1] == '\\');
        if (escape) {
            path += list[++i];
        } else if (list[i] == ':') {
            add_folder(&folders, path);
            path.clear();
        } else {
            path += list[i];
        }
    }
    add_folder(&folders, path);
    return folders;
}

static int32_t interval_of(const std::string& text) {
    int32_t interval = 0;
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, interval);
    if (parsed.ec != std::errc{} || parsed.ptr != end || interval <= 0) {
        return FILES_INTERVAL_DEFAULT;
    }
    return std::clamp(interval, FILES_INTERVAL_LEAST, FILES_INTERVAL_MOST);
}

/* Where programs keep what they can make again: the user's place for it, or the system's. */
static std::string default_cache() {
    const char* place = std::getenv("XDG_CACHE_HOME"); // NOLINT(concurrency-mt-unsafe): [start]
    if (place != nullptr && place[0] == '/') {
        return tidy_path(std::string(place) + "/lyrane");
    }
    const char* home = std::getenv("HOME"); // NOLINT(concurrency-mt-unsafe): [start]
    return home != nullptr && home[0] == '/' ? tidy_path(std::string(home) + "/.cache/lyrane")
                                             : "/var/cache/lyrane";
}

static std::string cache_of(const strm_dict* dict) {
    const std::string cache = tidy_path(text_of(dict, "cache"));
    if (!cache.empty() && cache[0] != '/') {
        files_log(3, ("not an absolute path: " + cache).c_str());
        return "";
    }
    return cache.empty() ? default_cache() : cache;
}

files_settings files_settings_read(const strm_dict* dict) {
    files_settings settings;
    settings.folders = split_folders(text_of(dict, "folders"));
    const bool mounts = dict != nullptr && strm_dict_find(dict, "mounts") != nullptr;
    settings.mounts = split_folders(mounts ? text_of(dict, "mounts") : FILES_MOUNTS_DEFAULT);
    settings.audio_output = text_of(dict, "audio_output");
    if (settings.audio_output.empty()) {
        settings.audio_output = "autoaudiosink";
    }
    settings.video_output = text_of(dict, "video_output");
    settings.update_interval = interval_of(text_of(dict, "update_interval"));
    settings.cache = cache_of(dict);
    settings.index = text_of(dict, "index") != "0";
    settings.virtual_folders = text_of(dict, "virtual_folders") != "0";
    return settings;
}
