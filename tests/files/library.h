/* A started plug-in, a pair of sessions on one of its sources, and what they answer. */
#ifndef LYRANE_TEST_LIBRARY_H
#define LYRANE_TEST_LIBRARY_H

#include <filesystem>

#include <gtest/gtest.h>

#include "host.h"
#include "media_files.h"

using lines = std::vector<std::string>;

/* All of it ends with the scope. */
struct library {
    temporary_folder folder;
    temporary_folder cache;
    std::string plugin; /* empty: the one that was built */
    const lyrp_api* api = nullptr;
    void* session = nullptr; /* for browsing */
    void* play = nullptr;    /* for playing */
    int32_t player = 0;      /* its address is the callback data */
    library() = default;
    ~library();
    library(const library&) = delete;
    library& operator=(const library&) = delete;
};

inline void open_sessions(library* lib, int32_t ms_id) {
    lib->session = lib->api->browse_api->create(ms_id, nullptr);
    lib->play = lib->api->play_api->create(ms_id, &lib->player);
    ASSERT_TRUE(lib->session != nullptr && lib->play != nullptr);
}

inline void close_sessions(library* lib) {
    if (lib->play != nullptr) {
        EXPECT_EQ(lib->api->play_api->destroy(std::exchange(lib->play, nullptr)), 0);
    }
    if (lib->session != nullptr) {
        EXPECT_EQ(lib->api->browse_api->destroy(std::exchange(lib->session, nullptr)), 0);
    }
}

inline void close_library(library* lib) {
    close_sessions(lib);
    host_stop();
}

inline library::~library() {
    close_library(this);
}

/* Starts the plug-in with these settings beside the usual ones. */
inline void start_plugin(library* lib, std::map<std::string, std::string> settings) {
    settings.insert({{"cache", lib->cache.path},
                     {"audio_output", "fakesink sync=true"},
                     {"update_interval", "20"}});
    lib->api = host_start(settings, lib->plugin);
    ASSERT_EQ(lib->api->set_mediasource_detection(1), 0);
}

/* The same with its folder as the only source. Its index is in the making. */
inline void start_library(library* lib, std::map<std::string, std::string> settings = {}) {
    settings.insert({"folders", lib->folder.path});
    start_plugin(lib, settings);
    ASSERT_EQ(host_now().sources.size(), 1U);
    open_sessions(lib, 0);
}

/* The same, and the index is made. */
inline void open_library(library* lib, const std::map<std::string, std::string>& settings = {}) {
    start_library(lib, settings);
    ASSERT_TRUE(host_log_wait("is indexed", 1));
}

inline void add(const library& lib, const std::string& id, const std::string& content) {
    write_file(lib.folder.path + id, content);
}

/* --- nodes ---------------------------------------------------------------------------------- */

inline const lines FAILED = {"failed"};

/* What browse or search has answered: folders as "id|name|count", videos as "id (video)", other
 * tracks as their ids. */
inline lines lines_of(int32_t result, int32_t asked, int32_t count, medianode* nodes) {
    if (result != 0) {
        EXPECT_EQ(nodes, nullptr);
        return FAILED;
    }
    EXPECT_TRUE(asked < 0 || count <= asked);
    lines all;
    for (int32_t i = 0; i < count; ++i) {
        const medianode& node = nodes[i];
        EXPECT_NE(node.ms_uid, nullptr);
        std::string line = node.id;
        EXPECT_EQ(node.url == nullptr, line.starts_with("/.by"));
        if (node.type == LYR_NODE_FOLDER) {
            line += std::string("|") + node.name + '|' + std::to_string(node.count);
        } else {
            EXPECT_EQ(node.name, std::filesystem::path(node.id).filename().string());
            line += node.type == LYR_NODE_VIDEO ? " (video)" : "";
        }
        all.push_back(line);
    }
    free_medianodes(&nodes, count);
    return all;
}

inline lines browse(const library& lib, const char* id, int32_t offset = 0, int32_t asked = -1) {
    medianode* nodes = nullptr;
    int32_t count = asked;
    const int32_t result = lib.api->browse_api->browse(lib.session, id, offset, &count, &nodes);
    return lines_of(result, asked, count, nodes);
}

inline lines search(const library& lib, const char* filter, const char* key, int32_t offset = 0,
                    int32_t asked = -1) {
    medianode* nodes = nullptr;
    int32_t count = asked;
    const int32_t result =
        lib.api->browse_api->search(lib.session, filter, key, offset, &count, &nodes);
    return lines_of(result, asked, count, nodes);
}

/* All pages, the way the service asks for them: until one comes back empty. */
inline lines walk(const std::function<lines(int32_t offset)>& page) {
    lines all;
    for (;;) {
        const lines more = page(static_cast<int32_t>(all.size()));
        if (more.empty() || more == FAILED) {
            EXPECT_TRUE(more.empty() || all.empty()) << "a walk that has begun fails";
            return more.empty() ? all : more;
        }
        all.insert(all.end(), more.begin(), more.end());
    }
}

inline lines walk(const library& lib, const std::string& id, int32_t size = -1) {
    return walk([&](int32_t offset) { return browse(lib, id.c_str(), offset, size); });
}

/* One text of the metadata of a track; "-": there is none. */
inline std::string about(const library& lib, const std::string& id, char* metadata::*text) {
    metadata* data = nullptr;
    EXPECT_EQ(lib.api->browse_api->get_metadata(lib.session, id.c_str(), &data), 0) << id;
    const std::string found = data != nullptr && data->*text != nullptr ? data->*text : "-";
    free_metadata(&data);
    return found;
}

/* --- playing -------------------------------------------------------------------------------- */

inline int32_t attach(const library& lib, std::string id, int32_t type = LYR_NODE_AUDIO) {
    medianode node = {};
    node.id = id.data();
    node.type = type;
    return lib.api->play_api->attach_medianode(lib.play, &node);
}

/* Plays until it moves. */
inline void play(const library& lib, const std::string& id) {
    host_forget();
    ASSERT_EQ(attach(lib, id), 0);
    ASSERT_EQ(lib.api->play_api->play(lib.play), 0);
    ASSERT_TRUE(host_wait_event(host_event::position, 1));
}

#endif
