/* The arbiter's two server objects: clients come to the one, persons and phone stacks to the other.
 *
 * Everybody is bounded: how many may come, altogether and of one user; what one client may say in a
 * while (a client that floods is read slowly, the others as ever); what waits for a client that
 * does not read (its socket; when that is full the client is dropped). Sleeps while nothing comes.
 */
#ifndef NOWPLAYINGD_SERVER_H
#define NOWPLAYINGD_SERVER_H

#include <string>

#include "policy.h"

constexpr char SERVER_CLIENTS[] = "/pps/services/multimedia/mediaplayer/control";
constexpr char SERVER_PERSONS[] = "/pps/services/multimedia/mediaplayer/arbiter";

/* Serves until SIGINT, SIGTERM or SIGHUP; the objects are gone then. False with *why when it cannot
 * begin, for instance because another arbiter runs. Tells the service manager. */
bool server_run(const policy& rules, std::string* why);

#endif
