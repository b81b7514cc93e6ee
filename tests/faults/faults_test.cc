/* One call into the C library fails in each run of a fixed scenario: start, restore, a session that
 * is made and played, the save at the end. Whatever call it is, the process ends with a status that
 * it documents or goes on, it never hangs, and the next start finds what was saved before or what
 * was saved now, whole.
 *
 * LYRANE_ROUNDS asks for more points than the short form's, LYRANE_FAULT_TABLE for a file that gets
 * the outcomes as a table. */
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <unistd.h>

#include <veloran/lock.h>

#include "fault_layer.h"
#include "rig.h"

namespace {

constexpr int HANG_MS = 30000;

const char* const names[FAULT_CALLS] = {"allocation", "open",   "write",      "rename",
                                        "sync",       "accept", "new thread", "dlopen"};

struct scene {
    struct rig rig;
    fault_plan* plan = nullptr;
    std::string saved; /* the database before the run */
};

std::string database(const scene& scene) {
    return scene.rig.daemon.root + "/state/db/lyrane.db";
}

std::string read_all(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void make_plan(scene& scene) {
    const std::string path = scene.rig.daemon.root + "/plan";
    const vel_fd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(ftruncate(file.value, sizeof(fault_plan)), 0);
    void* memory =
        mmap(nullptr, sizeof(fault_plan), PROT_READ | PROT_WRITE, MAP_SHARED, file.value, 0);
    ASSERT_NE(memory, MAP_FAILED);
    scene.plan = static_cast<fault_plan*>(memory);
    setenv("FAULT_FILE", path.c_str(), 1);
}

bool is_over(const test_daemon& daemon, int wait_ms) {
    pollfd ended = {daemon.pidfd, POLLIN, 0};
    return poll(&ended, 1, wait_ms) == 1;
}

/* Connects as soon as the service takes connections; false when it ends instead. */
bool connect(scene& scene) {
    while (!is_over(scene.rig.daemon, 0)) {
        if (request_connect_wire(scene.rig.client, rig_socket(scene.rig.daemon),
                                 scene.rig.daemon.service)) {
            return true;
        }
        request_disconnect(scene.rig.client);
        usleep(1000);
    }
    return false;
}

/* What a client does; every request may fail. */
void use(scene& scene) {
    request_client& client = scene.rig.client;
    fake_client disk;
    std::string answer;
    if (fake_connect(disk, scene.rig.daemon.root + "/disk.ctl")) {
        (void)fake_execute(disk, "tree\n/a|tracks:5\n", answer);
    }
    fake_close(disk);
    uint64_t ts_id = 0;
    int32_t number = 0;
    std::vector<request_node> nodes;
    (void)request_sources(client);
    (void)request_open(client, "kept");
    (void)request_session(client, &ts_id, &number);
    (void)request_browse(client, 0, "/a", 0, 10, nodes);
    (void)request_create(client, 0, "/a", -1, 1, &ts_id);
    (void)request_simple(client, LYR_MSG_PLAY);
    (void)request_simple(client, LYR_MSG_NEXT);
    (void)request_number(client, LYR_MSG_SHUFFLE, 1);
    (void)request_number(client, LYR_MSG_REPEAT, 1);
    (void)request_current(client);
    (void)request_position(client, &number);
    (void)request_tracks(client, ts_id, 0, -1, nodes);
}

/* Runs the scenario; the exit status as of daemon_wait, -1 when it hung. */
int run(scene& scene) {
    test_daemon& daemon = scene.rig.daemon;
    for (auto& count : scene.plan->counts) {
        count = 0;
    }
    setenv("LD_PRELOAD", FAULT_LAYER, 1);
    const bool is_running = daemon_spawn(daemon);
    unsetenv("LD_PRELOAD");
    if (!is_running) {
        return -1;
    }
    /* Whoever waits for a service that hangs is let go by its end. */
    std::atomic<bool> hung = false;
    std::thread guard([&daemon, &hung] {
        if (!is_over(daemon, HANG_MS)) {
            hung = true;
            daemon_signal(daemon, SIGKILL);
        }
    });
    if (connect(scene)) {
        use(scene);
    }
    daemon_signal(daemon, SIGTERM);
    guard.join();
    request_disconnect(scene.rig.client);
    const int status = daemon_wait(daemon);
    return hung ? -1 : status;
}

/* What the log of a run tells of its end. */
struct last_lines {
    std::string warning; /* the last line at level 3 or below, none of a stack, without its place */
    std::string culprit; /* of a crash: the first frame that is none of the system's */
};

last_lines read_last_lines(const std::string& log, const std::string& root) {
    static constexpr char FRAME[] = "2 lyrane:   /";
    last_lines found;
    size_t frames = 0;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, strlen(FRAME), FRAME) == 0) {
            const bool is_system = line.find("/lib/", strlen(FRAME) - 1) != std::string::npos;
            /* The outermost call is the handler's own. */
            if (frames++ > 0 && !is_system && found.culprit.empty()) {
                found.culprit = line;
            }
        } else if (line[0] >= '1' && line[0] <= '3') {
            found.warning = line;
        }
    }
    const size_t place = found.warning.find(root);
    if (place != std::string::npos) {
        found.warning.replace(place, root.size(), "...");
    }
    return found;
}

/* What became of one run; an empty text is what must not happen. The scripted plug-in has an answer
 * to want of memory that is as bad as any: an exception that nobody catches. The service must only
 * name it. */
std::string judge(int call, int status, const last_lines& last) {
    if (status == 0) {
        return "goes on";
    }
    if (status == EXIT_FAILURE && !last.warning.empty()) {
        return "ends, status 1";
    }
    if (status == 128 + SIGABRT && last.warning[0] == '1') {
        return "ends, aborted";
    }
    if (status == 128 + SIGABRT && call == FAULT_ALLOCATE &&
        last.culprit.find("/disk.so(") != std::string::npos) {
        return "the plug-in aborts";
    }
    return status == 127 && call <= FAULT_OPEN ? "was not loaded" : ""; /* the loader's own call */
}

/* The database as it was saved by a run without a fault. */
void put_back(const scene& scene) {
    for (const char* suffix : {"-wal", "-shm"}) {
        unlink((database(scene) + suffix).c_str());
    }
    std::ofstream(database(scene), std::ios::binary | std::ios::trunc) << scene.saved;
}

/* The database is whole and has its player, with all tracks of a session. Only a client that made a
 * session in a folder that could not be read leaves one without tracks, and only a row that was
 * refused, with a line about it, is missing. */
void expect_whole(const scene& scene, const std::string& log) {
    sqlite3* file = nullptr;
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_open(database(scene).c_str(), &file), SQLITE_OK);
    ASSERT_EQ(sqlite3_prepare_v2(file,
                                 "SELECT count(*), max(length) FROM trksessions NATURAL JOIN "
                                 "players JOIN trksession_medianodes USING (ts_id)",
                                 -1, &statement, nullptr),
              SQLITE_OK)
        << sqlite3_errmsg(file);
    ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
    const int tracks = sqlite3_column_int(statement, 0);
    if (log.find("sqldb_statement on TABLE") == std::string::npos) {
        EXPECT_EQ(tracks, sqlite3_column_int(statement, 1)) << log;
    }
    EXPECT_TRUE(tracks > 0 || log.find("Destroy current trksession") != std::string::npos) << log;
    sqlite3_finalize(statement);
    sqlite3_close(file);
}

} // namespace

TEST(Faults, EveryCallMayFail) {
    scene scene;
    std::mt19937 random(std::random_device{}());
    daemon_prepare(scene.rig.daemon);
    scene.rig.daemon.options = {"-l", "-vvvvvvv"};
    scene.rig.daemon.lastmode = R"({"keep_missing": "1"})";
    scene.rig.daemon.plugins = {{"disk", "source disk", {}}};
    make_plan(scene);
    scene.plan->call = FAULT_CALLS;
    ASSERT_EQ(run(scene), 0); /* makes the session that is restored from now on */
    ASSERT_EQ(run(scene), 0);
    int64_t counts[FAULT_CALLS];
    std::copy(std::begin(scene.plan->counts), std::end(scene.plan->counts), counts);
    scene.saved = read_all(database(scene));

    const char* rounds = std::getenv("LYRANE_ROUNDS");
    const int64_t wanted = FAULT_POINTS * int64_t{rounds != nullptr ? std::atoi(rounds) : 1};
    std::map<std::string, std::pair<int, std::string>> table;
    int points = 0;
    for (int call = 0; call < FAULT_CALLS; ++call) {
        const int64_t step = std::max<int64_t>(1, counts[call] / wanted);
        int64_t number = 1 + static_cast<int64_t>(random() % static_cast<uint64_t>(step));
        for (; number <= counts[call]; number += step, ++points) {
            SCOPED_TRACE(std::string(names[call]) + " " + std::to_string(number));
            const size_t mark = daemon_log_mark(scene.rig.daemon);
            scene.plan->call = call;
            scene.plan->number = number;
            put_back(scene);
            const int status = run(scene);
            const std::string log = daemon_log(scene.rig.daemon).substr(mark);
            const last_lines last = read_last_lines(log, scene.rig.daemon.root);
            const std::string outcome = judge(call, status, last);
            EXPECT_NE(outcome, "") << "status " << status << '\n' << log;
            auto& [runs, line] = table[std::string(names[call]) + " | " + outcome];
            runs += 1;
            line = last.warning;
            expect_whole(scene, log);
        }
        scene.plan->call = FAULT_CALLS;
        EXPECT_EQ(run(scene), 0) << names[call];
        expect_whole(scene, "");
    }
    const char* path = std::getenv("LYRANE_FAULT_TABLE");
    std::ofstream file(path != nullptr ? path : "/dev/null");
    file << "# What became of a call that failed\n\nWritten by `faults_test` with "
            "LYRANE_FAULT_TABLE: "
         << points << " runs of one scenario,\nin each of which one call fails.\n\n"
         << "| call | outcome | runs | a last line |\n| --- | --- | --- | --- |\n";
    for (const auto& [name, entry] : table) {
        file << "| " << name << " | " << entry.first << " | " << entry.second << " |\n";
    }
    RecordProperty("points", points);
    munmap(scene.plan, sizeof(fault_plan));
    daemon_remove(scene.rig.daemon);
}
