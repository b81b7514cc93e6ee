// What the main functions of our small daemons have in common.
#ifndef TOOLS_DAEMON_MAIN_H
#define TOOLS_DAEMON_MAIN_H

#include <functional>
#include <string>

#include <CLI/CLI.hpp>

/* Reads the command line that `declare` describes, and runs. `run` tells why when it fails. The
 * exit status: 0, 1 when it failed, which is said on the standard error, 2 when the command line
 * was wrong. [main] */
int daemon_main(int argc, char** argv, const char* name, const char* about,
                const std::function<void(CLI::App*)>& declare,
                const std::function<bool(const CLI::App&, std::string* why)>& run);

#endif
