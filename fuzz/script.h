/* What an input says to the service: requests with well-formed fields, and commands for the
 * scripted plug-in that make it misbehave. */
#ifndef FUZZ_SCRIPT_H
#define FUZZ_SCRIPT_H

#include <cstdint>
#include <string>

#include "input.h"

/* The header of a request: its number, and zeros. */
std::string script_header(uint16_t type);

/* A request with fields made from a byte or two each. `session`: the track session that was named
 * last. */
std::string script_request(fuzz_input* input, uint16_t type, uint64_t session);

/* A request to open or to close that player. */
std::string script_named(uint16_t type, const std::string& name);

/* The name of a player that script_request can choose, too. */
std::string script_name(fuzz_input* input);

/* A command for the scripted plug-in. */
std::string script_happening(fuzz_input* input);

#endif
