/* A started plug-in with one folder, and a browse session on it. */
#ifndef LYRANE_TEST_LIBRARY_H
#define LYRANE_TEST_LIBRARY_H

#include <gtest/gtest.h>

#include "host.h"
#include "host_log.h"
#include "media_files.h"

struct library {
    temporary_folder folder;
    temporary_folder cache;
    const lyrp_api* api = nullptr;
    void* session = nullptr;
};

/* Starts the plug-in, with these settings beside its folder and its cache. Its index is in the
 * making. */
inline void start_library(library* lib, std::map<std::string, std::string> settings = {}) {
    settings.insert({{"folders", lib->folder.path}, {"cache", lib->cache.path}});
    host_log_forget();
    lib->api = host_start(settings);
    ASSERT_EQ(lib->api->set_mediasource_detection(1), 0);
    ASSERT_EQ(host_sources().size(), 1U);
    lib->session = lib->api->browse_api->create(0, nullptr);
    ASSERT_NE(lib->session, nullptr);
}

/* The same, and the index is made. */
inline void open_library(library* lib, const std::map<std::string, std::string>& settings = {}) {
    start_library(lib, settings);
    ASSERT_TRUE(host_log_wait("is indexed", 1));
}

inline void close_library(library* lib) {
    EXPECT_EQ(lib->api->browse_api->destroy(lib->session), 0);
    host_stop();
}

inline void add(const library& lib, const std::string& id, const std::string& content) {
    write_file(lib.folder.path + id, content);
}

#endif
