/* The measurements of requests to a whole service; all of it runs on one core. */
#ifndef MEASURE_H
#define MEASURE_H

#include <cstddef>
#include <cstdint>

#include <lyrane/client.h>

#include "bench.h"

/* What get_current_state is on the socket: the transport's header, then the frame of the reply. */
constexpr size_t STATE_REQUEST = 28 + sizeof(lyr_request);
constexpr size_t STATE_REPLY = 16 + 28 + sizeof(lyr_state_reply);

/* One get_current_state. */
void state_round(msgclient_t* client);

/* 1,000 connections that say nothing, from several processes: one may not have that many. */
struct idle_crowd {
    int stop; /* closing it ends them */
    pid_t processes[4];
};
idle_crowd crowd_begin(const char* service);
void crowd_end(idle_crowd& crowd);

/* Requests a second of 32 clients at once over those of a bare server; `service` is its name. */
double throughput_32(const char* service);

/* Seconds from the sending of a request that changes the player's state to the moment when a
 * watcher, another thread, has read the new content; a median. `folder` holds the player's
 * objects. */
struct watch_bench;
watch_bench* watch_begin(const char* object, msgclient_t* client);
double watch_seconds(watch_bench* bench, int rounds);
void watch_end(watch_bench* bench);

#endif
