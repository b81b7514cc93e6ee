/* The watching side: runs a group of checks in a process of its own, so that a plug-in that
 * crashes, hangs or ends its process costs one finding and not the report. */
#ifndef PLUGINCHECK_RUNNER_H
#define PLUGINCHECK_RUNNER_H

#include <cstdint>
#include <string>
#include <vector>

#include "host.h"

enum class check_state { fine, failed, skipped };

struct check_result {
    std::string id;
    check_state state = check_state::fine;
    std::string text; /* what is wrong, why it was skipped, or what was looked at */
};

struct group_result {
    std::vector<check_result> checks;
    std::string unusable; /* not empty: the plug-in cannot be checked, and why */
    std::string output;   /* what the process wrote */
};

/* A group of checks; runs in the new process, with the threads, descriptors and memory that are
 * there. */
struct check_group {
    const char* name;
    void (*run)(const host_options& options);
};
extern const std::vector<check_group> check_groups;

/* Runs one group. `limit` is the most seconds between two signs of life. Throws
 * std::runtime_error when there can be no process. [main], no other thread */
group_result runner_run(const check_group& group, const host_options& options, int32_t limit);

#endif
