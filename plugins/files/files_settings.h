/* The plug-in's settings, read from the dictionary that the service hands over. */
#ifndef LYRANE_FILES_SETTINGS_H
#define LYRANE_FILES_SETTINGS_H

#include <cstdint>
#include <string>
#include <vector>

#include <veloran/dict.h>

constexpr size_t FILES_FOLDERS_MOST = 64;
constexpr int32_t FILES_INTERVAL_DEFAULT = 250; /* ms */
constexpr int32_t FILES_INTERVAL_LEAST = 10;
constexpr int32_t FILES_INTERVAL_MOST = 60000;

/* Where drives that are plugged in get mounted, if nothing is said. */
constexpr const char* FILES_MOUNTS_DEFAULT = "/media:/run/media";

struct files_settings {
    /* Absolute, without a slash at the end, each once. */
    std::vector<std::string> folders;
    std::vector<std::string> mounts; /* drives mounted there or below are media sources */
    std::string audio_output;        /* GStreamer sink description, never empty */
    std::string video_output;        /* likewise; empty: none */
    int32_t update_interval = FILES_INTERVAL_DEFAULT;
    std::string cache; /* folder of what can be made again; empty: none */
    bool index = true; /* look through all files, so that they can be searched */
    bool virtual_folders = true;
};

/* Reads the settings; a missing one has its default, a senseless one is logged and left out. May
 * throw std::bad_alloc. */
files_settings files_settings_read(const strm_dict* dict);

#endif
