/* The index of the `files` plug-in: how fast a source is looked through, and how long a search
 * takes. The files are small and have tags; they and the index are in memory.
 *
 * scan_first         files that are read and indexed in a second, of 10,000 in 100 folders
 * scan_again         files that are found unchanged in a second, of the same
 * search_page        one page of 100 tracks, the slowest of several searches
 * search_prefix      one page of a word of one letter, from the midst of its tracks
 * browse_artists     one page of 100 artists, the first
 * the same with _100k for 100,000 files in 1,000 folders; of the big sizes
 */
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <lyrane/plugin.h>

#include "bench.h"
#include "host.h"
#include "media_files.h"

namespace {

constexpr int ROUNDS = 21;
constexpr int32_t PAGE = 100;
constexpr int32_t FILES_IN_FOLDER = 100;

void make_files(const std::string& folder, int32_t count) {
    static const char* const WORDS[] = {"Night", "River", "Golden", "Heart",  "Blue",
                                        "Road",  "Dance", "Winter", "Summer", "Stone"};
    for (int32_t i = 0; i < count; ++i) {
        const int32_t album = i / FILES_IN_FOLDER;
        const std::string number = std::to_string(i);
        const std::string title =
            std::string(WORDS[i % 10]) + ' ' + WORDS[i / 10 % 10] + ' ' + number;
        write_file(folder + "/Album " + std::to_string(album) + '/' + number + " Song.mp3",
                   tagged_file(title, "Artist " + std::to_string(album / 3),
                               "Album " + std::to_string(album), WORDS[album % 10]));
    }
}

/* Starts the plug-in and waits until it has looked through everything: the seconds of that. */
double scan(const lyrp_api** api, const std::string& folder, const std::string& cache) {
    *api = host_start({{"folders", folder}, {"cache", cache}});
    const double begin = bench_now();
    if ((*api)->set_mediasource_detection(1) != 0 || !host_log_wait("is indexed", 1)) {
        bench_give_up("the source is not looked through");
    }
    return bench_now() - begin;
}

/* Milliseconds of one page. */
double search(const lyrp_api* api, void* session, const char* filter, const char* key,
              int32_t offset) {
    return 1000 * bench_rounds(ROUNDS, [&] {
               medianode* nodes = nullptr;
               int32_t count = PAGE;
               if (api->browse_api->search(session, filter, key, offset, &count, &nodes) != 0 ||
                   count != PAGE) {
                   bench_give_up(std::string("nothing is found: ") + key);
               }
               free_medianodes(&nodes, count);
           });
}

double slowest_search(const lyrp_api* api, void* session) {
    struct {
        const char *filter, *key;
    } const searches[] = {{nullptr, "golden"},  {"title", "golden river"}, {"artist", "artist 1"},
                          {"name", "song 1"},   {"genre", "blue"},         {nullptr, "win sum"},
                          {"album", "album 12"}};
    double slowest = 0;
    for (const auto& each : searches) {
        slowest = std::max(slowest, search(api, session, each.filter, each.key, 0));
    }
    return slowest;
}

double browse_artists(const lyrp_api* api, void* session) {
    return 1000 * bench_rounds(ROUNDS, [&] {
               medianode* nodes = nullptr;
               int32_t count = PAGE;
               if (api->browse_api->browse(session, "/.by/artist", 0, &count, &nodes) != 0) {
                   bench_give_up("no artists");
               }
               free_medianodes(&nodes, count);
           });
}

void measure(int32_t files, const std::string& ending, bool big) {
    const auto wanted = [&](const char* name) {
        return bench_wanted((name + ending).c_str(), big);
    };
    const bool any = wanted("scan_first") || wanted("scan_again") || wanted("search_page") ||
                     wanted("search_prefix") || wanted("browse_artists");
    if (!any) {
        return;
    }
    const auto figure = [&](const char* name, double value, const char* unit) {
        if (wanted(name)) {
            bench_figure((name + ending).c_str(), value, unit);
        }
    };
    const std::string folder = bench_folder();
    const std::string cache = bench_folder();
    make_files(folder, files);
    const lyrp_api* api = nullptr;
    figure("scan_first", files / scan(&api, folder, cache), "files/s");
    host_stop();
    figure("scan_again", files / scan(&api, folder, cache), "files/s");
    void* session = api->browse_api->create(0, nullptr);
    figure("search_page", slowest_search(api, session), "ms");
    figure("search_prefix", search(api, session, nullptr, "s", files / 4), "ms");
    figure("browse_artists", browse_artists(api, session), "ms");
    api->browse_api->destroy(session);
    host_stop();
}

} // namespace

int main(int argc, char** argv) {
    bench_begin(argc, argv);
    bench_use_memory();
    measure(10000, "", false);
    measure(100000, "_100k", true);
    return EXIT_SUCCESS;
}
