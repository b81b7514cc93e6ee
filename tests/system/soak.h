/* A soak: a whole service with scripted plug-ins, real files and an arbiter, used and abused by
 * many at once for as long as one likes. Shared by the parts of the program `soak`.
 *
 * Actors are threads that do one thing after another ("turns"). At a quiet moment all of them are
 * parked between two turns, with nothing open but what they always have, so that the service can
 * be measured and compared with the models. */
#ifndef TEST_SOAK_H
#define TEST_SOAK_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "daemon.h"
#include "requests.h"

/* What is counted, for the table at the end. */
enum soak_count {
    SOAK_COMMANDS, /* of the players with a model, each compared */
    SOAK_OBJECTS,  /* published objects compared */
    SOAK_RETURNS,  /* players compared after a restart */
    SOAK_REQUESTS, /* of clients that share players */
    SOAK_EVENTS,   /* of the plug-ins, storms of them counted as one */
    SOAK_UNPLUGS,  /* sources that went and came */
    SOAK_CONNECTS, /* of hostile clients */
    SOAK_GARBAGE,  /* messages that are none, or half ones */
    SOAK_DEAF,     /* clients that stopped reading */
    SOAK_SLOW,     /* clients that read late */
    SOAK_ARBITERS, /* arbiters that came and went */
    SOAK_QUIETS,   /* quiet moments */
    SOAK_LIVES,    /* of the service */
    SOAK_KILLS,    /* of them ended by SIGKILL */
    SOAK_COUNTS
};

/* What goes on beside the polite client: nothing new, as much as many people and programs make, or
 * as much as all can. */
enum soak_load { SOAK_ALONE, SOAK_BUSY, SOAK_RUSH, SOAK_LOADS };
constexpr unsigned SOAK_BUSY_PAUSES = 20; /* times as long as in a rush */

struct soak {
    int64_t seconds = 60;
    int64_t life_seconds = 0; /* of one run of the service */
    unsigned seed = 0;
    bool is_strict = false; /* a 99th percentile above twice the one alone is a failure */

    test_daemon daemon;
    std::vector<std::thread> threads;
    std::atomic<int64_t> counts[SOAK_COUNTS] = {};
    std::atomic<int64_t> differences = 0;
    std::set<std::string> kept; /* players that last mode brought back; they stay to the end */
    std::atomic<unsigned> pauses = 1;    /* times as long as in a rush */
    std::atomic<bool> is_dying = false;  /* failed requests tell nothing any more */
    std::atomic<int64_t> deaf_opens = 0; /* players left open by the deaf in this life */
    /* Odd while an arbiter is there or coming: the focus moves players besides their commands. */
    std::atomic<unsigned> arbiter_epoch = 0;
    pid_t arbiter = -1;
    size_t arbiter_mark = 0; /* in the log, when it came */

    std::mutex lock;
    std::condition_variable changed;
    enum { WORK, ALONE, QUIET, OVER } phase = OVER; /* ALONE: work for the polite client */
    int actors = 0;
    int parked = 0;
};

int64_t soak_now(); /* ms */

/* Between two turns of an actor: parks while it is quiet, or another's time. False when the life is
 * over. */
bool soak_turn(soak& soak);
bool soak_turn_polite(soak& soak);
void soak_spawn(soak& soak, void (*actor)(::soak&, unsigned), unsigned number);
/* Waits until all are parked; false when they do not come. */
bool soak_quiet(soak& soak);
/* Lets all go on, or the polite client only. */
void soak_resume(soak& soak, soak_load load);
void soak_join(soak& soak);

/* The pause of somebody who does a thing now and then; without it all would only wait in line. */
void soak_pause(const soak& soak, std::mt19937& random, unsigned most_us);

/* Something that is not as it must be. Said at once, unless the service is being ended. */
void soak_differ(soak& soak, const char* format, ...) __attribute__((format(printf, 2, 3)));
void soak_add(soak& soak, soak_count what, int64_t number = 1);

/* soak_crowd.cc: actors that share players; sources that come and go. */
void soak_shared_client(soak& soak, unsigned number);
void soak_wind(soak& soak, unsigned number);
constexpr const char* SOAK_SHARED[] = {"left", "right", "album"};
/* At a quiet moment: what must hold of players that many command. */
void soak_check_shared(soak& soak);

/* soak_hostile.cc: actors that do what clients must not. */
void soak_hostile_client(soak& soak, unsigned number);
/* soak_arbiter.cc: an arbiter that comes and goes; it is taken away at quiet moments. */
void soak_arbiter(soak& soak, unsigned number);
void soak_end_arbiter(soak& soak, bool is_quiet);

/* soak_polite.cc: a client that is timed, on a source that is left alone by all others. */
constexpr const char* SOAK_POLITE_SOURCE = "polite";
constexpr int32_t SOAK_POLITE_TRACKS = 100;
void soak_polite_client(soak& soak, unsigned number);
/* For what comes next, while it is parked: the load beside it. Ends a round. */
void soak_polite_load(soak_load now);
/* 99th percentiles in microseconds: of a visit of some twenty requests, and of a single one. A
 * virtual machine that is not given a processor for a moment spoils the rounds of that moment, and
 * with them the percentile of all visits. `round` is the median of what the others had. */
struct soak_polite_times {
    int64_t rounds; /* that count */
    int64_t round, visit, request;
};
soak_polite_times soak_polite_result(soak_load under);
int64_t soak_polite_left_out(); /* rounds */

#endif
