/* Services to be measured. */
#ifndef BENCH_SERVICE_H
#define BENCH_SERVICE_H

#include <vector>

#include "bench.h"
#include "daemon.h"
#include "requests.h"

/* A service, and connections to it that have each opened a player: "player0" and so on. */
struct bench_service {
    test_daemon daemon;
    std::vector<request_client> clients;
};

/* Starts it with one plug-in and so many players; its runtime root is in memory. */
void bench_service_start(bench_service& service, const daemon_plugin& plugin, size_t players);
void bench_service_stop(bench_service& service);

/* The scripted plug-in, with one source. */
daemon_plugin bench_scripted();

#endif
