#include "check.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

static constexpr int32_t TOLD_MOST = 3;
static constexpr size_t TEXT_SIZE = 600;

static check_channel channel_in_use;
static int32_t failures; /* of the check in progress */

static void send(char letter, const char* text) {
    std::string line = std::string(1, letter) + '\t' + text;
    std::replace(line.begin(), line.end(), '\n', ' ');
    line += '\n';
    size_t sent = 0;
    while (sent < line.size()) {
        const ssize_t part = write(channel_in_use.pipe, line.data() + sent, line.size() - sent);
        if (part > 0) {
            sent += static_cast<size_t>(part);
        } else if (part < 0 && errno != EINTR) {
            _exit(1); /* nobody listens any more */
        }
    }
}

static void send_formatted(char letter, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));
static void send_formatted(char letter, const char* format, va_list arguments) {
    char text[TEXT_SIZE];
    (void)vsnprintf(text, sizeof text, format, arguments);
    send(letter, text);
}

void check_open(const check_channel& channel) {
    channel_in_use = channel;
}

void check_begin(const char* id) {
    failures = 0;
    send('B', id);
}

void check_fail(const char* format, ...) {
    if (++failures > TOLD_MOST) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    send_formatted('F', format, arguments);
    va_end(arguments);
}

void check_skip(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    send_formatted('S', format, arguments);
    va_end(arguments);
}

void check_tell(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    send_formatted('T', format, arguments);
    va_end(arguments);
}

void check_end() {
    if (failures > TOLD_MOST) {
        send('F', ("and " + std::to_string(failures - TOLD_MOST) + " more").c_str());
    }
    send('E', "");
}

bool check_failed() {
    return failures > 0;
}

void check_give_up(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    send_formatted('X', format, arguments);
    va_end(arguments);
    _exit(0);
}

void check_note_call(const char* entry) {
    channel_in_use.shared->call = entry;
}
