/* Drives that are pulled out and come back while they are looked through. For root only. */
#include <filesystem>

#include <gtest/gtest.h>
#include <sched.h>

#include "host.h"
#include "host_log.h"
#include "media_files.h"
#include "sticks.h"

namespace fs = std::filesystem;

static constexpr int32_t TRACKS = 2000;

static void make_stick(const std::string& image, const std::string& type,
                       const std::string& point) {
    stick_make(image, type, "MUSIC");
    stick_plug(image, point);
    for (int32_t i = 0; i < TRACKS; ++i) {
        write_file(point + "/Album " + std::to_string(i / 100) + '/' + std::to_string(i) + ".mp3",
                   tagged_file("Song " + std::to_string(i)));
    }
    stick_unplug(point);
}

/* How many tracks a search of titles finds from one on, in one page; -1: it failed. */
static int32_t found(const lyrp_api* api, void* session, int32_t offset = 0) {
    int32_t count = -1;
    medianode* nodes = nullptr;
    if (api->browse_api->search(session, "title", "song", offset, &count, &nodes) != 0) {
        return -1;
    }
    free_medianodes(&nodes, count);
    return count;
}

TEST(files_index_sticks, are_pulled_out_in_the_midst) {
    std::string all_missing;
    int32_t types = 0;
    for (const char* type : {"vfat", "ext4"}) {
        SCOPED_TRACE(type);
        const std::string missing = sticks_missing(type);
        if (!missing.empty()) {
            all_missing += missing + ". ";
            continue;
        }
        ++types;
        const temporary_folder base;
        const std::string image = base.path + "/image";
        make_stick(image, type, base.path + "/filling");
        fs::create_directories(base.path + "/media");
        host_log_forget();
        const lyrp_api* api =
            host_start({{"mounts", base.path + "/media"}, {"cache", base.path + "/cache"}});
        ASSERT_EQ(api->set_mediasource_detection(1), 0);

        /* Each time a little later, under another name. */
        const auto plugged = [](const auto& sources) { return sources.size() == 1; };
        const auto pulled = [](const auto& sources) { return sources.empty(); };
        int32_t id = -1;
        for (int32_t wanted : {0, 1, 300, 600, 1000}) {
            const std::string point = base.path + "/media/at " + std::to_string(wanted);
            stick_plug(image, point);
            ASSERT_TRUE(host_wait_connected(plugged));
            id = host_connected().begin()->first;
            void* session = api->browse_api->create(id, nullptr);
            ASSERT_NE(session, nullptr);
            while (found(api, session) < wanted) {
                sched_yield();
            }
            stick_pull(point);
            ASSERT_TRUE(host_wait_connected(pulled));
            found(api, session);
            EXPECT_EQ(api->browse_api->destroy(session), 0);
        }

        const std::string point = base.path + "/media/last";
        const std::string all = std::to_string(TRACKS) + " tracks";
        const int32_t before = host_log_count(all);
        stick_plug(image, point);
        ASSERT_TRUE(host_log_wait(all, before + 1));
        EXPECT_EQ(host_log_count(" 0 gone"), host_log_count(" gone")) << "no drive lost a file";
        void* session = api->browse_api->create(id, nullptr);
        ASSERT_NE(session, nullptr) << "it is the same source";
        EXPECT_EQ(found(api, session, TRACKS - 2), 2) << "none was read that was not there";

        /* All is quiet now: it can be unmounted, and is known when it comes back. */
        stick_unplug(point);
        ASSERT_TRUE(host_wait_connected(pulled));
        stick_plug(image, point);
        ASSERT_TRUE(host_log_wait(all + ", 0 read, 0 gone", 1));
        stick_pull(point);
        ASSERT_TRUE(host_wait_connected(pulled));
        EXPECT_EQ(api->browse_api->destroy(session), 0);
        host_stop();
    }
    if (types == 0) {
        GTEST_SKIP() << all_missing;
    }
}
