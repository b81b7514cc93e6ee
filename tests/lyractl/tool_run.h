/* Running lyractl as its users do. */
#ifndef TOOL_RUN_H
#define TOOL_RUN_H

#include <string>
#include <vector>

#include <sys/types.h>

struct tool_result {
    int status = -1; /* exit status, or 128 + the number of the signal that ended it */
    std::string out;
    std::string err;
};

/* A running one. */
struct tool {
    pid_t pid = -1;
    int out = -1;
    int err = -1;
    tool_result result; /* what was read so far */
};

/* Starts it with these arguments, its input being the null device. */
tool tool_start(const std::vector<std::string>& arguments);

/* The same on a terminal of its own of 80 columns and 24 rows; what it prints, and echoes, is
 * `out`. */
tool tool_start_on_terminal(const std::vector<std::string>& arguments);

/* Presses keys of that terminal. */
void tool_press(const tool& running, const std::string& keys);

/* Reads its output until there is a text in it; a failed test when it ends first. */
void tool_await(tool& running, const std::string& text);

/* Waits for its end. */
tool_result tool_end(tool& running);

/* All of it at once. */
tool_result tool_run(const std::vector<std::string>& arguments);

#endif
