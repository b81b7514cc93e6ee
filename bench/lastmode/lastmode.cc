/* What last mode costs at the end and at the start.
 *
 * save_100k             a player with 100,000 tracks is saved, its two backups included, in the
 *                       place of what was saved before
 * save_100k_over_shell  the same over the time that SQLite's own shell takes for the same
 *                       statements in one transaction, without backups
 * restore_100k          from the start of the database service to the track being attached,
 *                       without what the plug-in does to bring the tracks up to date
 * save_1m, restore_1m   the same with a million tracks; of the big sizes
 */
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench.h"
#include "lastmode.h"
#include "msglog.h"
#include "player_registry.h"
#include "player_rig.h"

namespace {

constexpr int32_t TRACKS = 100000;
constexpr int ROUNDS = 7;
constexpr int32_t BIG_TRACKS = 1000000;
constexpr int BIG_ROUNDS = 3;

double save() {
    const double begin = bench_now();
    if (players_save_state(&mmcontrol) != 0) {
        bench_give_up("the players cannot be saved");
    }
    const double took = bench_now() - begin;
    lastmode_database_stop();
    return took;
}

double restore(player_rig& rig, int32_t tracks) {
    player_close(&mmcontrol, "bench");
    fake_do(rig.fake, "clear");
    const double begin = bench_now();
    lastmode_database_start(&mmcontrol);
    if (lastmode_restore(&mmcontrol) != 0) {
        bench_give_up("the players cannot be restored");
    }
    fake_do(rig.fake, "await attach 1 returned=1");
    const double took = bench_now() - begin;
    lastmode_end(); /* the rest of the thread */
    if (rig_attribute(rig, "bench", "trksession", "length") != ":n:" + std::to_string(tracks)) {
        bench_give_up("not all tracks came back");
    }
    return took;
}

/* The statements of a save, for the shell. */
void write_statements(const std::string& path, int32_t tracks) {
    std::ofstream file(path);
    file << "PRAGMA journal_mode=WAL;\nPRAGMA synchronous=FULL;\nBEGIN;\n"
            "DELETE FROM trksession_medianodes;\n"
            "DELETE FROM sqlite_sequence WHERE name='trksession_medianodes';\n"
            "DELETE FROM trksessions;\nDELETE FROM players;\n"
            "INSERT INTO players(name, ts_id, status, shuffle_mode,repeat_mode,playback_rate) "
            "VALUES('bench',0,4,0,0,1.0);\n"
            "INSERT INTO trksessions(ts_id, ms_plugin_name, ms_type, ms_uid, mn_id, length, "
            "trk_id, trk_pos) VALUES(0, 'fake', 1, 'bench', '/a', "
         << tracks << ", 0, 0);\n";
    for (int32_t i = 0; i < tracks; ++i) {
        file << "INSERT INTO trksession_medianodes(ts_id, mn_id, name, url, mn_type, ms_uid, "
                "ms_type) VALUES(0, '/a/t"
             << i << "', 'Track " << i + 1 << "', 'fake:/a/t" << i << "', 2, 'bench', 1);\n";
    }
    file << "COMMIT;\n";
}

/* Seconds that the shell takes; below 0 when there is none. */
double shell(const std::string& database, const std::string& statements) {
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 0, statements.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files, 1, "/dev/null", O_WRONLY, 0);
    char name[] = "sqlite3";
    char batch[] = "-batch";
    std::string path = database;
    char* arguments[] = {name, batch, path.data(), nullptr};
    pid_t child = -1;
    int status = -1;
    const double begin = bench_now();
    const int error = posix_spawnp(&child, name, &files, nullptr, arguments, environ);
    const bool ended = error == 0 && waitpid(child, &status, 0) == child;
    const double took = bench_now() - begin;
    posix_spawn_file_actions_destroy(&files);
    if (error == ENOENT) {
        return -1;
    }
    if (!ended || status != 0) {
        bench_give_up("sqlite3 failed");
    }
    return took;
}

/* Has a player with so many tracks, saved once, so that every further save has something to
 * replace. */
void prepare(player_rig& rig, const std::string& source, int32_t tracks) {
    const int32_t id = rig_source(rig, source, "/a|tracks:" + std::to_string(tracks) + "\n",
                                  LYR_CAP_PLAY | LYR_CAP_BROWSE);
    rig_player("bench", id, 0, -1, "/a");
    fake_do(rig.fake, "rule update result=0");
    lastmode_database_start(&mmcontrol);
    if (database_initialize(&mmcontrol) != 0) {
        bench_give_up("there is no database");
    }
    save();
}

struct medians {
    double save;
    double restore;
    double over_shell; /* below 0: there is no shell */
};

medians measure(player_rig& rig, int32_t tracks, int rounds) {
    const std::string copy = rig.root + "/shell.db";
    const std::string statements = rig.root + "/shell.sql";
    std::filesystem::copy_file(rig.root + "/state/db/lyrane.db", copy,
                               std::filesystem::copy_options::overwrite_existing);
    write_statements(statements, tracks);
    std::vector<double> saves;
    std::vector<double> restores;
    std::vector<double> ratios;
    for (int round = 0; round < rounds; ++round) {
        restores.push_back(restore(rig, tracks));
        saves.push_back(save());
        ratios.push_back(saves.back() / shell(copy, statements));
    }
    return {bench_median(saves), bench_median(restores), bench_median(ratios)};
}

} // namespace

int main(int argc, char** argv) {
    bench_begin(argc, argv);
    setenv("VELORAN_SQLDB_DEFAULTS", SCHEMA_FILES, 1);
    player_rig& rig = rig_fresh();
    msglog_set_level(2);
    mmcontrol.database = "/db/lyrane.db";
    mmcontrol.lastmode_devices = LYR_MS_TYPE_HDD;
    prepare(rig, "bench", TRACKS);
    const medians usual = measure(rig, TRACKS, ROUNDS);
    if (bench_wanted("save_100k")) {
        bench_figure("save_100k", usual.save, "s");
    }
    if (bench_wanted("restore_100k")) {
        bench_figure("restore_100k", usual.restore, "s");
    }
    if (bench_wanted("save_1m", true) || bench_wanted("restore_1m", true)) {
        player_close(&mmcontrol, "bench");
        prepare(rig, "big", BIG_TRACKS);
        const medians big = measure(rig, BIG_TRACKS, BIG_ROUNDS);
        bench_figure("save_1m", big.save, "s");
        bench_figure("restore_1m", big.restore, "s");
    }
    if (bench_wanted("save_100k_over_shell")) {
        if (usual.over_shell < 0) {
            bench_give_up("no program sqlite3, which is in the package sqlite3");
        }
        bench_figure("save_100k_over_shell", usual.over_shell, "ratio");
    }
    return 0;
}
