/* The arbiter as a program: its process, its clients, and its control command. Every wait has a
 * limit, which fails the test. */
#ifndef NOWPLAYINGD_TEST_RIG_H
#define NOWPLAYINGD_TEST_RIG_H

#include <string>
#include <vector>

#include "program.h"

constexpr int RIG_LIMIT = 120000; /* ms that anything may take, sanitizers included */

/* The runtime root of this process, made at its start and removed at its end. */
const std::string& rig_root();

/* Runs the program to its end; both of its outputs are `out`. */
program_result rig_run(const std::vector<std::string>& arguments);
/* The same for `ctl`, which must succeed: what it prints. */
std::string rig_ctl(const std::vector<std::string>& arguments);

/* Starts the arbiter and waits until it says that it is ready. */
program rig_start(const std::vector<std::string>& arguments = {});
/* Sends a signal and waits: the status of its result. */
int rig_end(program& arbiter, int signal);
/* What the manager's socket was told next. */
std::string rig_notice();

/* A client that has registered, or a bare connection when the name is empty. */
int rig_client(const std::string& name, const std::string& kind = "general");
void rig_say(int client, const std::string& text);
/* Says it again and again, at most so many times, and waits for room if asked to: the error that
 * ended it, or 0. */
int rig_say_until_refused(int client, const std::string& text, int limit, bool wait);
/* The next message, or "[end]". */
std::string rig_hear(int client);
/* Whether nothing has come. */
bool rig_silent(int client);

#endif
