#include "nowplaying_text.h"

#include <cstring>
#include <string_view>

namespace {

/* The lines of one message that matter. */
struct message_lines {
    int32_t count;
    bool phone; /* "-@phone" came first */
    bool track;
    bool revoke;
    bool acquire;
    bool revoked;
    int32_t data; /* NOWPLAYING_DO_* of the "dat::" lines, the smallest of several */
    bool headed;  /* has a "msg::" or "res::" line */
};

int32_t data_command(std::string_view line) {
    if (line.starts_with("dat::play")) {
        return NOWPLAYING_DO_PLAY;
    }
    if (line.starts_with("dat::pause")) {
        return NOWPLAYING_DO_PAUSE;
    }
    if (line.starts_with("dat::next")) {
        return NOWPLAYING_DO_NEXT;
    }
    return line.starts_with("dat::prev") ? NOWPLAYING_DO_PREVIOUS : NOWPLAYING_DO_NOTHING;
}

bool heads(std::string_view line) {
    return line.starts_with("msg::") || line.starts_with("res::");
}

/* Does this line belong to the next message? What stands behind "-@phone" makes it no notice, so it
 * is left there. */
bool begins_another(const message_lines& lines, std::string_view line) {
    const bool object = line.starts_with("@") || line.starts_with("-@");
    return lines.count > 0 && ((object && !lines.phone) || (lines.headed && heads(line)));
}

void take_line(message_lines* lines, std::string_view line) {
    lines->phone = lines->phone || (lines->count == 0 && line == "-@phone");
    ++lines->count;
    lines->headed = lines->headed || heads(line);
    lines->track = lines->track || line.starts_with("msg::track");
    lines->revoke = lines->revoke || line.starts_with("msg::revoke");
    lines->acquire = lines->acquire || line.starts_with("res::acquire");
    lines->revoked = lines->revoked || line.starts_with("err::revoked");
    const int32_t data = data_command(line);
    if (data != NOWPLAYING_DO_NOTHING &&
        (lines->data == NOWPLAYING_DO_NOTHING || data < lines->data)) {
        lines->data = data;
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
    const std::string_view whole(text, static_cast<size_t>(next - text));
    message->lost = whole.starts_with("-@control\n") || whole == "-@phone\n";
    return *next != '\0' ? next : nullptr;
}
