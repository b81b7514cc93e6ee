/* The service in the process of a fuzz target: players, media sources of the scripted plug-in, and,
 * if wanted, two connections whose requests go straight to the service's worker and whose replies
 * come back here. */
#ifndef FUZZ_SERVICE_RIG_H
#define FUZZ_SERVICE_RIG_H

#include <cstdint>
#include <string>

constexpr int RIG_CONNECTIONS = 2;
constexpr int RIG_SOURCES = 3;

/* The reply to a request. */
struct rig_reply {
    int32_t status = 0;
    std::string body;
};

/* Sets everything up, once. */
void rig_start(void);

/* Puts the plug-in and the settings back. `settings`: the log level, the progression mode and the
 * recursion depth, a few bits each. */
void rig_begin(unsigned settings);

/* Makes the two connections whose requests go straight to the worker. */
void rig_connect(void);

/* Waits for all track sessions that are being built. */
void rig_await_builds(void);

/* Waits until a plug-in has made the events that it owes. */
void rig_calm(int plugin);

/* Disconnects and closes all players. Whatever is left then is a finding. */
void rig_end(void);

/* One request, to its one reply. `await`: until the track session is built. */
rig_reply rig_request(int connection, const std::string& payload, bool await);

/* The client leaves without a word, and another one comes. */
void rig_reconnect(int connection);

/* A command to the scripted plug-in, 0, or to the one that plays the device, 1. Refusals do not
 * matter; its answer. */
std::string rig_command(int plugin, const std::string& command);

#endif
