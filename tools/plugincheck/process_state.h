/* What a process has, to be compared: threads, descriptors, and what a library may not change. */
#ifndef PLUGINCHECK_PROCESS_STATE_H
#define PLUGINCHECK_PROCESS_STATE_H

#include <csignal>
#include <cstdint>
#include <map>
#include <string>

#include <sys/types.h>

struct process_settings {
    mode_t mask = 0;
    std::string directory;
    std::string locale;
    struct sigaction actions[NSIG] = {};
};
process_settings process_settings_take();
/* What differs, for a message; empty: nothing. */
std::string process_settings_changed(const process_settings& before, const process_settings& after);

/* Starts and ends a thread: a sanitizer may have one of its own from the first one on. */
void process_warm_up();

/* Id and name of every thread. */
using process_threads = std::map<int32_t, std::string>;
process_threads process_threads_take();
/* Waits until there are no others than `before`, for a thread that was joined is gone a little
 * later. The names of those that stay; empty: none. */
std::string process_threads_left(const process_threads& before);

/* Number and target of every descriptor. */
using process_files = std::map<int32_t, std::string>;
process_files process_files_take();
/* Those that are new and fulfil the condition, for a message. */
std::string process_files_new(const process_files& before, const process_files& after);
std::string process_files_inherited(const process_files& before, const process_files& after);

#endif
