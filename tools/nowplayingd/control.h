/* The requests of persons and phone stacks, as they come over the arbiter object.
 *
 * Request and answer are one JSON object each: {"command": "play", "name": "radio"}. An answer has
 * "ok"; when it is false "why" says what is wrong, else "said" what was done. A status comes in
 * pages: as long as an answer has "more", the next request gives that number as "after". */
#ifndef NOWPLAYINGD_CONTROL_H
#define NOWPLAYINGD_CONTROL_H

#include <cstdint>
#include <string>

#include "arbiter.h"

constexpr char CONTROL_DEFAULT_KIND[] = "phone"; /* of who takes the focus by command */
constexpr size_t CONTROL_OUTSIDERS_MAX = 64;

/* Carries a request out. Messages for clients are appended to `out`; `fresh` is an id that nobody
 * has, for an outsider. Never more than a server object's message. */
std::string control_answer(arbiter* arbiter, const std::string& request, uint64_t fresh,
                           arbiter_messages* out);

#endif
