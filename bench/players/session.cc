/* What a track session costs.
 *
 * import           tracks a second, in pages of 1,000, beside the plug-in's own time
 * bytes_per_track  of ours, beside the records and their strings
 * shuffle_1m       a full shuffle over a bare loop of the same draws and swaps
 * build_1m         tracks a second from the scripted plug-in, its own time included; of the big
 *                  sizes
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "bench.h"
#include "msglog.h"
#include "player_registry.h"
#include "player_rig.h"
#include "trksession.h"
#include "trksession_build.h"
#include "trksession_shuffle.h"

namespace {

constexpr int32_t TRACKS = 1000000;
constexpr int32_t PAGE = 1000;
constexpr int PAIRS = 9;

/* A page as a plug-in hands it over. */
std::vector<medianode> make_page(int32_t first) {
    std::vector<medianode> page(PAGE);
    for (int32_t i = 0; i < PAGE; ++i) {
        char id[32];
        std::snprintf(id, sizeof id, "/album/%d.flac", first + i);
        page[static_cast<size_t>(i)] = {strdup(id), strdup(id), nullptr, 2, 0, 0, 1, nullptr};
    }
    return page;
}

double import_all(player* player) {
    double spent = 0;
    for (int32_t first = 0; first < TRACKS; first += PAGE) {
        std::vector<medianode> page = make_page(first);
        const double begin = bench_now();
        (void)player_trksession_import(player, page.data(), PAGE);
        spent += bench_now() - begin;
    }
    return TRACKS / spent;
}

double bytes_per_track(trksession* session) {
    vel_lock_guard guard(session->lock);
    const double records = sizeof(medianode);
    return session->capacity * (records + 2 * sizeof(int32_t)) / session->length - records;
}

/* What a shuffle cannot do without, on the same memory: where the pages lie changes more than the
 * code does. */
double bare_shuffle(trksession* session) {
    vel_lock_guard guard(session->lock);
    int32_t* order = session->order;
    int32_t* inverse = session->inverse_order;
    const auto range = static_cast<uint32_t>(session->length - 1);
    const double begin = bench_now();
    for (int32_t i = 1; i < TRACKS; ++i) {
        const uint32_t draw = (static_cast<uint32_t>(rand()) << 15) + static_cast<uint32_t>(rand());
        const auto j = static_cast<int32_t>(1 + draw % range);
        std::swap(order[i], order[j]);
        inverse[order[i]] = i;
        inverse[order[j]] = j;
    }
    return bench_now() - begin;
}

double shuffle(trksession* session) {
    const double begin = bench_now();
    (void)trksession_shuffle(session, 0, TRACKS, 0, TRKSESSION_KEEP_FIRST);
    return bench_now() - begin;
}

/* A session of a folder of a million tracks, from its creation to the end of its build. */
double build_all(player_rig& rig, player* player) {
    const int32_t source = rig_source(rig, "million", "/a|tracks:" + std::to_string(TRACKS) + "\n",
                                      LYR_CAP_PLAY | LYR_CAP_BROWSE);
    const double begin = bench_now();
    (void)rig_create(player, source, 0, -1, "/a");
    rig_await_build(player);
    return TRACKS / (bench_now() - begin);
}

} // namespace

int main(int argc, char** argv) {
    bench_begin(argc, argv);
    bench_pin();
    bench_use_memory();
    player_rig& rig = rig_fresh();
    msglog_set_level(2);
    const int32_t source = rig_source(rig, "bench", "", LYR_CAP_PLAY | LYR_CAP_BROWSE);
    player* player = rig_player("bench", source, 0, -1);
    const double import = import_all(player);
    trksession* session = player->trksession;
    if (bench_wanted("import")) {
        bench_figure("import", import, "tracks/s");
    }
    if (bench_wanted("bytes_per_track")) {
        bench_figure("bytes_per_track", bytes_per_track(session), "bytes");
    }
    if (bench_wanted("shuffle_1m")) {
        const double ratio = bench_ratio(
            PAIRS, [&] { return shuffle(session); }, [&] { return bare_shuffle(session); });
        bench_figure("shuffle_1m", ratio, "ratio");
    }
    if (bench_wanted("build_1m", true)) {
        bench_figure("build_1m", build_all(rig, player), "tracks/s");
    }
    player_close(&mmcontrol, "bench");
    return 0;
}
