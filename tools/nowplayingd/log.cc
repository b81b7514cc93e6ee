#include "log.h"

#include <ctime>
#include <unistd.h>

#include <veloran/slog.h>

#include "text.h"

namespace {

constexpr size_t LINE_MAX_BYTES = 1000;

bool to_system = false;
time_t second = 0;
int32_t lines = 0; /* asked for in this second */

time_t clock_seconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

void put(int32_t severity, const std::string& text) {
    if (to_system) {
        (void)slogb(0, severity, text.data(), text.size());
        return;
    }
    const std::string line = "nowplayingd: " + text + "\n";
    (void)!write(STDERR_FILENO, line.data(), line.size());
}

} // namespace

void log_to_system() {
    slog_open("nowplayingd");
    to_system = true;
}

void log_line(int32_t severity, const std::string& text) {
    const time_t now = clock_seconds();
    if (now != second) {
        if (lines > LOG_LINES_MAX) {
            put(LOG_ODD, std::to_string(lines - LOG_LINES_MAX) + " lines were left out");
        }
        second = now;
        lines = 0;
    }
    if (++lines <= LOG_LINES_MAX) {
        put(severity, text_printable(text.substr(0, LINE_MAX_BYTES)));
    }
}
