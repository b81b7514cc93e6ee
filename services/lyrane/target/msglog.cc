#include "msglog.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <poll.h>
#include <unistd.h>

#include <veloran/process.h>
#include <veloran/slog.h>

int32_t log_level = 4;
int32_t background = 1;

namespace {

constexpr int32_t LEVEL_ABORT = 1;
constexpr int32_t LEVEL_END = 2;
constexpr int FATAL_ECHO_WAIT = 1000; /* ms for the last words of the process */

/* Composes "program: text" and returns its length, at most MSGLOG_LINE_SIZE - 1. One more byte
 * behind the NUL is the caller's. */
size_t compose(char* line, const char* format, va_list arguments) {
    constexpr size_t room = MSGLOG_LINE_SIZE;
    const char* program = msglog_program();
    size_t length = strnlen(program, room - 1);
    memcpy(line, program, length);
    for (const char* separator = ": "; *separator != '\0' && length < room - 1; separator++) {
        line[length++] = *separator;
    }
    line[length] = '\0';
    const int wanted = vsnprintf(line + length, room - length, format, arguments);
    if (wanted < 0) {
        line[length] = '\0';
        return length;
    }
    const size_t left = room - 1 - length;
    return length + (static_cast<size_t>(wanted) < left ? static_cast<size_t>(wanted) : left);
}

/* One write a line, so that lines of several threads stay apart. Any lock may be held here, so a
 * standard error that nobody reads loses lines instead of stopping the service. */
void echo(int32_t level, char* line, size_t length) {
    pollfd standard_error = {STDERR_FILENO, POLLOUT, 0};
    const int wait = level == LEVEL_ABORT || level == LEVEL_END ? FATAL_ECHO_WAIT : 0;
    if (poll(&standard_error, 1, wait) != 1) {
        return;
    }
    line[length] = '\n';
    ssize_t written = 0;
    do {
        written = write(STDERR_FILENO, line, length + 1);
    } while (written < 0 && errno == EINTR);
}

} // namespace

int32_t msglog_level(void) noexcept {
    return __atomic_load_n(&log_level, __ATOMIC_RELAXED);
}

void msglog_set_level(int32_t level) noexcept {
    __atomic_store_n(&log_level, level, __ATOMIC_RELAXED);
}

int32_t msglog(int32_t level, const char* format, ...) noexcept {
    const int saved = errno;
    int32_t result = 0;
    fflush(stdout);
    if (level <= msglog_level()) {
        char line[MSGLOG_LINE_SIZE + 1];
        va_list arguments;
        va_start(arguments, format);
        errno = saved; /* for %m */
        const size_t length = compose(line, format, arguments);
        va_end(arguments);
        result = slogb(MSGLOG_CODE, level, line, length);
        if (background == 0) {
            echo(level, line, length);
        }
    }
    if (level == LEVEL_ABORT) {
        (void)signal(SIGABRT, SIG_DFL); /* the line says it all: no trace of a crash behind it */
        abort();
    }
    if (level == LEVEL_END) {
        process_end(EXIT_FAILURE);
    }
    errno = saved;
    return result;
}

void msglog_direct(int32_t severity, const char* text) noexcept {
    slogb(MSGLOG_CODE, severity, text, strlen(text));
}

void msglog_append(char* line, const char* text) noexcept {
    const size_t length = strlen(line);
    const size_t taken = strnlen(text, MSGLOG_LINE_SIZE - 1 - length);
    memcpy(line + length, text, taken);
    line[length + taken] = '\0';
}

void msglog_append_number(char* line, int32_t number) noexcept {
    char digits[16];
    *std::to_chars(digits, digits + sizeof digits - 1, number).ptr = '\0';
    msglog_append(line, digits);
}

const char* msglog_program(void) noexcept {
    return program_invocation_short_name;
}

const char* msglog_error_text(int32_t error) noexcept {
    /* Not strerror_r: its text follows the language that some library may have set. */
    const char* known = strerrordesc_np(error);
    if (known != nullptr) {
        return known;
    }
    static thread_local char unknown[32];
    snprintf(unknown, sizeof unknown, "Unknown error %d", error);
    return unknown;
}
