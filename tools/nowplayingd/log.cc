#include "log.h"

#include <algorithm>
#include <climits>
#include <ctime>

#include <unistd.h>

#include <veloran/process.h>
#include <veloran/slog.h>

#include "text.h"

namespace {

constexpr size_t LINE_MAX_BYTES = 1000;

bool to_system = false;
time_t second = 0;
int32_t lines = 0;    /* asked for in this second */
int32_t left_out = 0; /* since this was told */

time_t clock_seconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

/* False when nobody reads the standard error: all players wait for the arbiter, so it waits for
 * nobody. */
bool put(int32_t severity, const std::string& text) {
    if (to_system) {
        (void)slogb(0, severity, text.data(), text.size());
        return true;
    }
    std::string line = "nowplayingd: " + text;
    line.resize(std::min<size_t>(line.size(), PIPE_BUF - 1));
    line += '\n';
    return process_write_now(STDERR_FILENO, line.data(), line.size()) > 0;
}

} // namespace

void log_to_system() {
    slog_open("nowplayingd");
    to_system = true;
}

void log_line(int32_t severity, const std::string& text) {
    const time_t now = clock_seconds();
    if (now != second) {
        if (left_out > 0 && put(LOG_ODD, std::to_string(left_out) + " lines were left out")) {
            left_out = 0;
        }
        second = now;
        lines = 0;
    }
    if (++lines > LOG_LINES_MAX || !put(severity, text_printable(text.substr(0, LINE_MAX_BYTES)))) {
        ++left_out;
    }
}
