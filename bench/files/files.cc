/* How long it takes until the first track of a folder is there, with the `files` plug-in: from the
 * request that makes a track session to its answer. The service is started anew for each, so that
 * it knows nothing of the folder; the system has read it before.
 *
 * first_track_tree     a tree of 100 folders with 1,000 files each
 * first_track_flat     one folder of 100,000 files
 * first_track_flat_1m  one folder of a million files; of the big sizes
 */
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "bench_service.h"

namespace {

constexpr int ROUNDS = 9;
constexpr int32_t FILES = 100000;
constexpr int32_t BIG_FILES = 1000000;
constexpr int32_t FOLDERS = 100;

/* Names as music has them, one after the other in no order. */
void make_files(const std::string& folder, int32_t count) {
    std::filesystem::create_directories(folder);
    const int place = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int32_t i = 0; i < count; ++i) {
        char name[64];
        const auto number = static_cast<uint32_t>(i) * 7919U % static_cast<uint32_t>(count);
        std::snprintf(name, sizeof name, "%07u Some Song.mp3", number);
        const int file = openat(place, name, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (file < 0) {
            bench_give_up("cannot make the files");
        }
        close(file);
    }
    close(place);
}

/* Milliseconds of one session that is made by a service of its own. */
double first_track(const std::string& folder) {
    bench_service service;
    bench_service_start(service, {"files", "", {{"folders", folder}}, false, FILES_PLUGIN}, 1);
    uint64_t ts_id = 0;
    const double begin = bench_now();
    const int32_t result = request_create(service.clients[0], 0, "/", -1, 0, &ts_id);
    const double took = bench_now() - begin;
    if (result != 0 || request_current(service.clients[0]).index != 0) {
        bench_give_up("no first track");
    }
    bench_service_stop(service);
    return took * 1000;
}

double median_first_track(const std::string& folder) {
    std::vector<double> times;
    for (int i = 0; i < ROUNDS; ++i) {
        times.push_back(first_track(folder));
    }
    return bench_median(std::move(times));
}

} // namespace

int main(int argc, char** argv) {
    bench_begin(argc, argv);
    bench_use_memory();
    const std::string folder = bench_folder();
    if (bench_wanted("first_track_tree")) {
        for (int32_t i = 0; i < FOLDERS; ++i) {
            make_files(folder + "/tree/Album " + std::to_string(i), FILES / FOLDERS);
        }
        bench_figure("first_track_tree", median_first_track(folder + "/tree"), "ms");
    }
    if (bench_wanted("first_track_flat")) {
        make_files(folder + "/flat", FILES);
        bench_figure("first_track_flat", median_first_track(folder + "/flat"), "ms");
    }
    if (bench_wanted("first_track_flat_1m", true)) {
        make_files(folder + "/big", BIG_FILES);
        bench_figure("first_track_flat_1m", median_first_track(folder + "/big"), "ms");
    }
    return EXIT_SUCCESS;
}
