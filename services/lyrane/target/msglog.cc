#include "msglog.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <poll.h>
#include <unistd.h>

#include <veloran/escape.h>
#include <veloran/process.h>
#include <veloran/slog.h>

#include "msglog_bound.h"

int32_t log_level = 4;
int32_t background = 1;

namespace {

constexpr int32_t LEVEL_ABORT = 1;
constexpr int32_t LEVEL_END = 2;
constexpr int32_t LEVEL_GAP = 3;
constexpr int FATAL_ECHO_WAIT = 1000; /* ms for the last words of the process */
constexpr size_t SHOWN_SIZE = ESCAPE_GROWTH * MSGLOG_LINE_SIZE;
static_assert(SHOWN_SIZE <= PIPE_BUF && SHOWN_SIZE <= SLOG_TEXT_MAX, "a line is written whole");

thread_local int64_t client = MSGLOG_NO_CLIENT;

/* Composes "program: text" and returns its length, at most MSGLOG_LINE_SIZE - 1. */
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

/* Line feeds that the format ends with stay, and all of them when it has one before its end: that
 * is a text of several lines. The rest is a single line, whatever its arguments hold. Returns the
 * length, at most SHOWN_SIZE - 1. */
size_t show(char* shown, const char* line, size_t length, const char* format) {
    size_t end = strlen(format);
    while (end > 0 && length > 0 && format[end - 1] == '\n' && line[length - 1] == '\n') {
        --end;
        --length;
    }
    const bool has_lines = memchr(format, '\n', end) != nullptr;
    size_t written = escape_text(shown, SHOWN_SIZE - 1, line, length,
                                 ESCAPE_KEEP_BYTES | (has_lines ? ESCAPE_KEEP_LINES : 0));
    while (line[length] == '\n' && written < SHOWN_SIZE - 1) {
        shown[written++] = line[length++];
    }
    return written;
}

/* One write a line, so that lines of several threads stay apart. Any lock may be held here, so a
 * standard error that nobody reads loses lines instead of stopping the service. One more byte
 * behind the line is this function's. */
void echo(int32_t level, char* line, size_t length) {
    if (level == LEVEL_ABORT || level == LEVEL_END) {
        pollfd standard_error = {STDERR_FILENO, POLLOUT, 0};
        (void)poll(&standard_error, 1, FATAL_ECHO_WAIT);
    }
    line[length] = '\n';
    (void)process_write_now(STDERR_FILENO, line, length + 1);
}

int32_t put(int32_t level, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

int32_t put(int32_t level, const char* format, va_list arguments) {
    char line[MSGLOG_LINE_SIZE];
    char shown[SHOWN_SIZE];
    const size_t length = show(shown, line, compose(line, format, arguments), format);
    const int32_t result = slogb(MSGLOG_CODE, level, shown, length);
    if (background == 0) {
        echo(level, shown, length);
    }
    return result;
}

void put_gap(const char* format, ...) __attribute__((format(printf, 1, 2)));

void put_gap(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    (void)put(LEVEL_GAP, format, arguments);
    va_end(arguments);
}

/* Lines that were left out are told once, by whoever comes next. */
void tell_gap() {
    const msglog_gap gap = msglog_take_gap();
    const auto lines = static_cast<unsigned long long>(gap.lines);
    if (lines == 0) {
        return;
    }
    if (gap.writer == MSGLOG_WRITER_OTHERS) {
        put_gap("%llu log lines left out: too many writers at once", lines);
    } else {
        put_gap("%llu log lines of %s %lld left out: more than %d in a second", lines,
                gap.writer < 0 ? "thread" : "user",
                static_cast<long long>(gap.writer < 0 ? -gap.writer : gap.writer),
                MSGLOG_LINES_MAX);
    }
}

/* Lines that end the process are never left out. */
bool is_admitted(int32_t level) {
    return level <= LEVEL_END ||
           msglog_admit(client == MSGLOG_NO_CLIENT ? -int64_t{process_thread_id()} : client);
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
    process_flush_output();
    if (level <= msglog_level()) {
        if (msglog_has_gap()) {
            tell_gap();
        }
        if (is_admitted(level)) {
            va_list arguments;
            va_start(arguments, format);
            errno = saved; /* for %m */
            result = put(level, format, arguments);
            va_end(arguments);
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

void msglog_set_client(int64_t user) noexcept {
    client = user;
    if (msglog_has_gap()) {
        const int saved = errno;
        tell_gap();
        errno = saved;
    }
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
