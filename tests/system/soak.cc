#include "soak.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "media_files.h"
#include "rig.h"
#include "soak_model.h"
#include "soak_watch.h"

namespace {

constexpr const char* HELP =
    "usage: soak [--seed N] [--life SECONDS] [--strict] SECONDS\n"
    "\n"
    "Runs a whole service with scripted plug-ins, the plug-in for folders on real files, an "
    "arbiter\n"
    "and last mode, under everything that clients, plug-ins and signals may do at once, and "
    "compares\n"
    "what it publishes with a model of its own. Now and then all is quiet and is measured; the\n"
    "service is ended and started again, by SIGTERM and SIGKILL, at quiet moments and in the "
    "midst.\n"
    "\n"
    "  --seed N        the seed of all draws; a new one without it\n"
    "  --life SECONDS  length of one run of the service; a quarter of SECONDS without it\n"
    "  --strict        also fail when the 99th percentile of a polite client's visits in a\n"
    "                  round while all are busy, the median of all such rounds, is above twice\n"
    "                  that alone, or when fewer than three of each can be compared: rounds\n"
    "                  in which a virtual machine was not given its processors do not count.\n"
    "                  The processors are kept awake meanwhile, where the user may do that\n"
    "\n"
    "Ends with 0 when nothing was different, else with 1. With the sanitizers the environment of\n"
    "the test soak_test is needed (ctest -V -N -R soak_test shows it).\n";

constexpr int SHARED_CLIENTS = 6;
constexpr int HOSTILE_CLIENTS = 2;
constexpr int64_t ROUND_MS = 10000;     /* between two quiet moments, at the most */
constexpr int64_t ALONE_PART = 3;       /* of a round, for the polite client */
constexpr int64_t LEAST_ROUNDS = 3;     /* of each load, to compare them */
constexpr int64_t QUIET_LIMIT = 120000; /* ms */
constexpr size_t LAST_WORDS = 400;      /* bytes of the log */

/* How a life ends. At a quiet moment what comes back is known. */
struct ending {
    int signal;
    bool is_quiet;
};
constexpr ending ENDINGS[] = {{SIGTERM, true}, {SIGKILL, true}, {SIGTERM, false}, {SIGKILL, false}};

void usage_error(const char* what) {
    fprintf(stderr, "soak: %s\n%s", what, HELP);
    exit(2);
}

int64_t number_of(const char* text) {
    char* end = nullptr;
    const int64_t number = text != nullptr ? strtoll(text, &end, 10) : -1;
    if (text == nullptr || *text == '\0' || *end != '\0' || number < 0) {
        usage_error("a number is missing");
    }
    return number;
}

void read_arguments(soak& soak, char** words) {
    bool has_seconds = false;
    soak.seed = static_cast<unsigned>(time(nullptr));
    for (; *words != nullptr; ++words) {
        if (strcmp(*words, "--help") == 0 || strcmp(*words, "-h") == 0) {
            fputs(HELP, stdout);
            exit(0);
        } else if (strcmp(*words, "--strict") == 0) {
            soak.is_strict = true;
        } else if (strcmp(*words, "--seed") == 0) {
            soak.seed = static_cast<unsigned>(number_of(*++words));
        } else if (strcmp(*words, "--life") == 0) {
            soak.life_seconds = number_of(*++words);
        } else {
            soak.seconds = number_of(*words);
            has_seconds = true;
        }
    }
    if (!has_seconds) {
        usage_error("for how long?");
    }
    if (soak.life_seconds == 0) {
        soak.life_seconds = soak.seconds / 4;
    }
}

void configure(soak& soak, const std::string& music) {
    test_daemon& daemon = soak.daemon;
    daemon_prepare(daemon);
    daemon.options = {"-l"};
    daemon.lastmode = R"({"checkpoint": "1", "timeout": "20", "device_type": ["HDD"]})";
    daemon.player["audio_output"] = "fakesink sync=true";
    daemon.player["update_interval"] = "100";
    /* The plug-ins' own memory is full soon, so that what grows is the service's. */
    const std::string tree = "keep 100\ntree\n /a|tree:2,2,10\n /f3|tracks:400\n";
    const std::string polite = "source " + std::string(SOAK_POLITE_SOURCE) +
                               "\ntree uid=" + SOAK_POLITE_SOURCE +
                               "\n /f|tracks:" + std::to_string(SOAK_POLITE_TRACKS) + "\n";
    daemon.plugins = {{"disk", "keep 100\n" + soak_model_script() + polite, {}},
                      {"spare", "source spare\n" + tree + "rule browse page=7\n", {}},
                      {"stick", "source stick type=0x2\ntypes 0x2\n" + tree, {}},
                      {"files", "", {{"folders", music}, {"mounts", ""}}, false, FILES_PLUGIN}};
    for (int i = 0; i < 4; ++i) {
        make_track(music + "/" + std::to_string(i) + ".flac", 400 + 100 * i, 2000,
                   {"title=Tone " + std::to_string(i)});
    }
}

/* Starts a life: the service is up, and the models are compared. */
bool begin_life(soak& soak, bool is_back) {
    std::ofstream(soak.daemon.root + "/log"); /* of the lives before */
    soak.is_dying = false;
    soak.deaf_opens = 0;
    soak.phase = soak::WORK;
    soak.actors = soak.parked = 0;
    if (!daemon_start(soak.daemon)) {
        return false;
    }
    soak_add(soak, SOAK_LIVES);
    soak_models_join(soak, is_back);
    return true;
}

void spawn_all(soak& soak) {
    soak_spawn(soak, soak_polite_client, 0);
    for (unsigned i = 0; i < SOAK_MODELS; ++i) {
        soak_spawn(soak, soak_model_client, i);
    }
    for (unsigned i = 0; i < SHARED_CLIENTS; ++i) {
        soak_spawn(soak, soak_shared_client, i);
    }
    for (unsigned i = 0; i < HOSTILE_CLIENTS; ++i) {
        soak_spawn(soak, soak_hostile_client, i);
    }
    soak_spawn(soak, soak_wind, 0);
    soak_spawn(soak, soak_wind, 1);
    soak_spawn(soak, soak_arbiter, 0);
}

/* Works until then; false when the service has died of itself. */
bool work(soak& soak, int64_t until) {
    pollfd ended = {soak.daemon.pidfd, POLLIN, 0};
    const int64_t left = until - soak_now();
    if (poll(&ended, 1, static_cast<int>(left > 0 ? left : 0)) != 0) {
        soak_differ(soak, "the service has ended");
        return false;
    }
    return true;
}

bool check_quiet(soak& soak, int64_t load_began) {
    if (!soak_quiet(soak)) {
        soak_differ(soak, "not all come to rest");
        daemon_signal(soak.daemon, SIGABRT);
        return false;
    }
    soak_end_arbiter(soak, true);
    soak_models_check(soak);
    soak_check_shared(soak);
    soak_watch(soak, soak_now() - load_began);
    soak_add(soak, SOAK_QUIETS);
    return true;
}

void end_life(soak& soak, const ending& how) {
    if (how.is_quiet && how.signal == SIGKILL) {
        soak_models_await_saved(soak);
    }
    soak.is_dying = !how.is_quiet;
    if (how.is_quiet) {
        soak_join(soak);
    }
    daemon_signal(soak.daemon, how.signal);
    const int status = daemon_wait(soak.daemon);
    if (!how.is_quiet) {
        soak_join(soak);
    }
    soak.is_dying = false; /* what is wrong from now on is told */
    soak_models_leave();
    soak_add(soak, SOAK_KILLS, how.signal == SIGKILL ? 1 : 0);
    if (status != (how.signal == SIGKILL ? 128 + SIGKILL : 0)) {
        const std::string log = daemon_log(soak.daemon);
        soak_differ(soak, "the service has ended with %d, and last said:\n%s", status,
                    log.substr(log.size() - std::min(log.size(), LAST_WORDS)).c_str());
    }
    if (how.signal == SIGTERM) {
        rig_expect_clean(soak.daemon);
    }
}

/* For what comes next, while nobody works. */
void set_load(soak& soak, soak_load load) {
    soak.pauses = load == SOAK_BUSY ? SOAK_BUSY_PAUSES : 1;
    soak_polite_load(load);
}

/* All in turn, and at the end of a life a rush. */
soak_load load_after(soak_load load, bool is_last) {
    return is_last ? SOAK_RUSH : static_cast<soak_load>((load + 1) % SOAK_LOADS);
}

/* When a round that begins now ends. */
int64_t end_of_round(soak_load load, int64_t round) {
    return soak_now() + (load == SOAK_ALONE ? round / ALONE_PART : round);
}

/* One life. False when nothing can follow it. */
bool live(soak& soak, bool is_back, int64_t until, const ending& how) {
    const int64_t began = soak_now();
    if (!begin_life(soak, is_back)) {
        soak_differ(soak, "the service does not start");
        return false;
    }
    soak_watch_begin(until - began);
    const int64_t rounds = (until - began) / ROUND_MS + 2;
    const int64_t round = (until - began) / rounds;
    set_load(soak, SOAK_BUSY);
    spawn_all(soak);
    soak_load load = SOAK_BUSY;
    for (int64_t next = soak_now() + round; next < until; next = end_of_round(load, round)) {
        if (!work(soak, next) || !check_quiet(soak, began)) {
            return false;
        }
        load = load_after(load, until - soak_now() < 2 * round);
        set_load(soak, load);
        soak_resume(soak, load);
    }
    if (!work(soak, until) || (how.is_quiet && !check_quiet(soak, began))) {
        return false;
    }
    end_life(soak, how);
    return true;
}

/* Processors that sleep while nobody works take their time to wake up, those of a virtual machine
 * most of all. They stay awake while the descriptor is open, which is to the end. */
void keep_processors_awake() {
    static constexpr const char* PATH = "/dev/cpu_dma_latency";
    const int32_t latency = 0; /* us */
    const int descriptor = open(PATH, O_WRONLY | O_CLOEXEC);
    if (descriptor < 0 || write(descriptor, &latency, sizeof latency) < 0) {
        printf("soak: the processors may sleep, and waking up is timed too: %s: %s\n", PATH,
               strerror(errno));
    }
}

/* Also when too few rounds tell. */
bool is_polite_one_held_up() {
    const soak_polite_times alone = soak_polite_result(SOAK_ALONE);
    const soak_polite_times busy = soak_polite_result(SOAK_BUSY);
    return std::min(alone.rounds, busy.rounds) < LEAST_ROUNDS || busy.round > 2 * alone.round;
}

void print_table(const soak& soak) {
    static constexpr const char* names[SOAK_COUNTS] = {"commands compared",
                                                       "objects compared",
                                                       "players that came back as they were",
                                                       "requests on shared players",
                                                       "gusts of events",
                                                       "sources that went and came",
                                                       "hostile connects",
                                                       "messages of garbage",
                                                       "clients that never read",
                                                       "clients that read late",
                                                       "arbiters that came and went",
                                                       "quiet moments",
                                                       "lives of the service",
                                                       "lives ended by SIGKILL"};
    for (int i = 0; i < SOAK_COUNTS; ++i) {
        printf("  %-40s %10lld\n", names[i], static_cast<long long>(soak.counts[i]));
    }
    static constexpr const char* loads[SOAK_LOADS] = {"alone", "while all are busy", "in a rush"};
    for (int load = 0; load < SOAK_LOADS; ++load) {
        const soak_polite_times polite = soak_polite_result(static_cast<soak_load>(load));
        printf("  99th percentile %-20s round %7lld us (of %lld), visit %7lld us, "
               "request %7lld us\n",
               loads[load], static_cast<long long>(polite.round),
               static_cast<long long>(polite.rounds), static_cast<long long>(polite.visit),
               static_cast<long long>(polite.request));
    }
    printf("  %-40s %10lld\n", "rounds left out, the machine being away",
           static_cast<long long>(soak_polite_left_out()));
    printf("  %-40s %10lld KiB\n", "most memory above that after a minute",
           static_cast<long long>(soak_watch_growth()));
    printf("  %-40s %10lld\n", "differences", static_cast<long long>(soak.differences));
}

} // namespace

int64_t soak_now() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000 + time.tv_nsec / 1000000;
}

void soak_spawn(soak& soak, void (*actor)(::soak&, unsigned), unsigned number) {
    const std::lock_guard guard(soak.lock);
    soak.actors += 1;
    soak.threads.emplace_back(actor, std::ref(soak), number);
}

/* Goes on in the one phase and in the other, and ends when all is over. */
static bool await_turn(soak& soak, int work, int besides) {
    std::unique_lock guard(soak.lock);
    soak.parked += 1;
    soak.changed.notify_all();
    soak.changed.wait(guard, [&] {
        return soak.phase == work || soak.phase == besides || soak.phase == soak::OVER;
    });
    soak.parked -= 1;
    return soak.phase != soak::OVER && !soak.is_dying;
}

bool soak_turn(soak& soak) {
    return await_turn(soak, soak::WORK, soak::WORK);
}

bool soak_turn_polite(soak& soak) {
    return await_turn(soak, soak::WORK, soak::ALONE);
}

bool soak_quiet(soak& soak) {
    std::unique_lock guard(soak.lock);
    soak.phase = soak::QUIET;
    soak.pauses = 1; /* long ones would only hold it up */
    return soak.changed.wait_for(guard, std::chrono::milliseconds(QUIET_LIMIT),
                                 [&soak] { return soak.parked == soak.actors; });
}

void soak_resume(soak& soak, soak_load load) {
    const std::lock_guard guard(soak.lock);
    soak.phase = load == SOAK_ALONE ? soak::ALONE : soak::WORK;
    soak.changed.notify_all();
}

void soak_join(soak& soak) {
    {
        const std::lock_guard guard(soak.lock);
        soak.phase = soak::OVER;
        soak.changed.notify_all();
    }
    for (std::thread& thread : soak.threads) {
        thread.join();
    }
    soak.threads.clear();
}

void soak_pause(const soak& soak, std::mt19937& random, unsigned most_us) {
    usleep(static_cast<unsigned>(random() % most_us) * soak.pauses);
}

void soak_differ(soak& soak, const char* format, ...) {
    if (soak.is_dying) {
        return;
    }
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    printf("soak: DIFFERENCE: %s\n", text);
    fflush(stdout);
    soak.differences += 1;
}

void soak_add(soak& soak, soak_count what, int64_t number) {
    soak.counts[what] += number;
}

int main(int argc, char** argv) {
    (void)argc;
    static soak soak;
    read_arguments(soak, argv + 1);
    testing::InitGoogleTest();
    /* The runtime root is in memory on every system; on a disk each update of an object waits. */
    setenv("TMPDIR", "/dev/shm", 0);
    signal(SIGPIPE, SIG_IGN);
    printf("soak: seed %u, %lld s\n", soak.seed, static_cast<long long>(soak.seconds));
    if (soak.is_strict) {
        keep_processors_awake();
    }
    const temporary_folder music;
    configure(soak, music.path);
    const int64_t end = soak_now() + soak.seconds * 1000;
    bool is_back = false;
    bool goes_on = true;
    for (size_t i = 0; goes_on && soak_now() < end; ++i) {
        const ending& how = ENDINGS[i % std::size(ENDINGS)];
        const int64_t until = std::min(end, soak_now() + soak.life_seconds * 1000);
        goes_on = live(soak, is_back, until, how);
        is_back = how.is_quiet;
    }
    print_table(soak);
    const bool is_slow = soak.is_strict && is_polite_one_held_up();
    /* What the support for daemons found wrong, a sanitizer's report for instance, is counted
     * there. */
    const bool is_bad = !goes_on || is_slow || soak.differences > 0 ||
                        testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed();
    printf("soak: %s, seed %u\n", is_bad ? "FAILED" : "all is well", soak.seed);
    fflush(stdout);
    if (!goes_on) { /* threads may hang in a service that does not answer */
        daemon_remove(soak.daemon);
        _exit(1);
    }
    daemon_remove(soak.daemon);
    return is_bad ? 1 : 0;
}
