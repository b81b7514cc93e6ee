/* The arbiter as a program: its process, and its control command, under a runtime root of this
 * process. */
#ifndef NOWPLAYINGD_TEST_RIG_H
#define NOWPLAYINGD_TEST_RIG_H

#include <string>
#include <vector>

#include "program.h"

/* Runs the program to its end; both of its outputs are `out`. */
program_result rig_run(std::vector<std::string> arguments);
/* The same for `ctl`, which must succeed: what it prints. */
std::string rig_ctl(std::vector<std::string> arguments);

/* Starts the arbiter and waits until it says that it is ready. */
program rig_start();
/* What the manager's socket was told next. */
std::string rig_notice();

/* Waits for an event of poll(); false, and a failed test, at a limit that only a hang reaches. */
bool rig_await(int fd, short event);

#endif
