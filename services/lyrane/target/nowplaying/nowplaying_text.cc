#include "nowplaying_text.h"

#include <cstring>
#include <string_view>

namespace {

/* The lines of one message that matter. */
struct message_lines {
    int32_t count;
    bool object_lost; /* "-@control" came first */
    bool phone_lost;  /* "-@phone" came first */
    bool track;
    bool revoke;
    bool acquire;
    bool revoked;
    int32_t data; /* NOWPLAYING_DO_* of the "dat::" line */
    bool headed;  /* has a "msg::" or "res::" line */
};

int32_t data_command(std::string_view word) {
    if (word == "play") {
        return NOWPLAYING_DO_PLAY;
    }
    if (word == "pause") {
        return NOWPLAYING_DO_PAUSE;
    }
    if (word == "next") {
        return NOWPLAYING_DO_NEXT;
    }
    return word == "prev" || word == "previous" ? NOWPLAYING_DO_PREVIOUS : NOWPLAYING_DO_NOTHING;
}

bool heads(std::string_view line) {
    return line.starts_with("msg::") || line.starts_with("res::");
}

/* Does this line belong to the next message? */
bool begins_another(const message_lines& lines, std::string_view line) {
    return lines.count > 0 &&
           (line.starts_with("@") || line.starts_with("-@") || (lines.headed && heads(line)));
}

void take_line(message_lines* lines, std::string_view line) {
    if (lines->count == 0) {
        lines->object_lost = line == "-@control";
        lines->phone_lost = line == "-@phone";
    }
    ++lines->count;
    lines->headed = lines->headed || heads(line);
    lines->track = lines->track || line == "msg::track";
    lines->revoke = lines->revoke || line == "msg::revoke";
    lines->acquire = lines->acquire || line == "res::acquire";
    lines->revoked = lines->revoked || line == "err::revoked";
    if (line.starts_with("dat::") && lines->data == NOWPLAYING_DO_NOTHING) {
        lines->data = data_command(line.substr(5));
    }
}

} // namespace

const char* nowplaying_read(const char* text, nowplaying_message* message) noexcept {
    message_lines lines = {};
    const char* next = text;
    while (*next != '\0') {
        const size_t length = strcspn(next, "\n");
        const std::string_view line(next, length);
        if (begins_another(lines, line)) {
            break;
        }
        if (!line.empty()) {
            take_line(&lines, line);
        }
        next += length + (next[length] == '\n' ? 1 : 0);
    }
    message->command = lines.track    ? lines.data
                       : lines.revoke ? NOWPLAYING_DO_REVOKE
                                      : NOWPLAYING_DO_NOTHING;
    message->answer = lines.acquire;
    message->refused = lines.revoked;
    message->lost = lines.object_lost || (lines.phone_lost && lines.count == 1);
    return *next != '\0' ? next : nullptr;
}
