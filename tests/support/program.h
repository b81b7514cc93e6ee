/* Running programs as their users do. */
#ifndef TEST_PROGRAM_H
#define TEST_PROGRAM_H

#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

/* The texts as execv takes them; they stay the caller's. */
std::vector<char*> program_pointers(std::vector<std::string>& texts);

struct program_result {
    int status = -1; /* exit status, or 128 + the number of the signal that ended it */
    std::string out;
    std::string err;
};

/* A running one; it is killed when this process ends. */
struct program {
    pid_t pid = -1;
    int out = -1;
    int err = -1;
    program_result result; /* what was read so far */
};

/* Starts it with these words, the path of its file first, and its input being the null device;
 * `variables` are set in its environment. */
program program_start(const std::vector<std::string>& words,
                      const std::map<std::string, std::string>& variables = {});

/* The same on a terminal of its own of 80 columns and 24 rows; what it prints, and echoes, is
 * `out`. */
program program_start_on_terminal(const std::vector<std::string>& words);

/* Presses keys of that terminal. */
void program_press(const program& running, const std::string& keys);

/* Reads what it says until there is a text in it; false, and a failed test, when it ends first. */
bool program_await(program& running, const std::string& text);

/* Sends a signal (0: none) and waits for its end. */
program_result program_end(program& running, int signal = 0);

/* All of it at once. */
program_result program_run(const std::vector<std::string>& words);

#endif
