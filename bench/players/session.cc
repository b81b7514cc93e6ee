/* What a track session costs. One line a figure: name, value, unit.
 *
 * import             tracks a second, in pages of 1,000, beside the plug-in's own time
 * build_1m           the same from the scripted plug-in, whose own time is included
 * bytes_per_track    of ours, beside the records and their strings
 * shuffle_1m         full shuffle over a bare loop of the same draws and swaps; median of pairs
 * first_attach       a session created in a folder of 100,000 tracks, until its first track is
 * first_attach_deep  attached, the plug-in's time included; 200 folders down; median
 */
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "msglog.h"
#include "player_registry.h"
#include "player_rig.h"
#include "trksession.h"
#include "trksession_build.h"
#include "trksession_shuffle.h"

namespace {

constexpr int32_t TRACKS = 1000000;
constexpr int32_t PAGE = 1000;
constexpr int ROUNDS = 9;
constexpr int ATTACH_ROUNDS = 51;

using steady = std::chrono::steady_clock;

double seconds_since(steady::time_point begin) {
    return std::chrono::duration<double>(steady::now() - begin).count();
}

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
        const steady::time_point begin = steady::now();
        (void)player_trksession_import(player, page.data(), PAGE);
        spent += seconds_since(begin);
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
    const steady::time_point begin = steady::now();
    for (int32_t i = 1; i < TRACKS; ++i) {
        const uint32_t draw = (static_cast<uint32_t>(rand()) << 15) + static_cast<uint32_t>(rand());
        const auto j = static_cast<int32_t>(1 + draw % range);
        std::swap(order[i], order[j]);
        inverse[order[i]] = i;
        inverse[order[j]] = j;
    }
    return seconds_since(begin);
}

double shuffle_ratio(trksession* session) {
    std::vector<double> ratios;
    for (int round = 0; round < ROUNDS; ++round) {
        const double bare = bare_shuffle(session);
        const steady::time_point begin = steady::now();
        (void)trksession_shuffle(session, 0, TRACKS, 0, TRKSESSION_KEEP_FIRST);
        ratios.push_back(seconds_since(begin) / bare);
    }
    std::sort(ratios.begin(), ratios.end());
    return ratios[ROUNDS / 2];
}

/* Creates sessions in a folder, and ends their builds; the median time of a creation. */
double first_attach(player* player, int32_t source, const std::string& folder) {
    std::vector<double> times;
    for (int round = 0; round < ATTACH_ROUNDS; ++round) {
        int32_t expected = -1;
        const steady::time_point begin = steady::now();
        (void)rig_create(player, source, folder, 0, &expected);
        times.push_back(seconds_since(begin));
        (void)rig_destroy(player);
    }
    std::sort(times.begin(), times.end());
    return times[ATTACH_ROUNDS / 2] * 1000;
}

/* A session of a folder of a million tracks, from its creation to the end of its build. */
double build_all(player_rig& rig, player* player) {
    const int32_t source = rig_source(rig, "million", LYR_CAP_PLAY | LYR_CAP_BROWSE,
                                      "/a|tracks:" + std::to_string(TRACKS) + "\n");
    int32_t expected = -1;
    const steady::time_point begin = steady::now();
    (void)rig_create(player, source, "/a", 0, &expected);
    rig_await_build(player);
    return TRACKS / seconds_since(begin);
}

void print_first_attach(player_rig& rig, player* player) {
    std::string deep;
    for (int i = 0; i < 200; ++i) {
        deep += "/d";
    }
    const int32_t source = rig_source(rig, "folders", LYR_CAP_PLAY | LYR_CAP_BROWSE,
                                      "/a|tracks:100000\n" + deep + "|tracks:100000\n");
    std::printf("first_attach %.3f ms\n", first_attach(player, source, "/a"));
    std::printf("first_attach_deep %.3f ms\n", first_attach(player, source, deep));
}

} // namespace

int main() {
    player_rig& rig = rig_fresh();
    msglog_set_level(2);
    const int32_t source = rig_source(rig, "bench", LYR_CAP_PLAY | LYR_CAP_BROWSE, "");
    player* player = rig_player(rig, "bench", source, "/", 0, -1);
    std::printf("import %.0f tracks/s\n", import_all(player));
    std::printf("bytes_per_track %.1f bytes\n", bytes_per_track(player->trksession));
    std::printf("shuffle_1m %.2f ratio\n", shuffle_ratio(player->trksession));
    std::printf("build_1m %.0f tracks/s\n", build_all(rig, player));
    print_first_attach(rig, player);
    player_close(&mmcontrol, "bench");
    return 0;
}
