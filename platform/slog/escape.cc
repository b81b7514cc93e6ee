#include <veloran/escape.h>

#include <charconv>
#include <cstring>

namespace {

struct escaped {
    char text[12];
    size_t length;
};

uint32_t least_code(size_t length) {
    return length == 2 ? 0x80 : length == 3 ? 0x800 : 0x10000;
}

/* "\x1b", "\u{202e}". */
escaped number(const char* opening, uint32_t value, const char* closing) {
    escaped out = {};
    char* at = stpcpy(out.text, opening);
    if (value < 0x10) {
        *at++ = '0';
    }
    at = std::to_chars(at, out.text + sizeof out.text - 1, value, 16).ptr;
    out.length = static_cast<size_t>(stpcpy(at, closing) - out.text);
    return out;
}

escaped character(uint32_t code) {
    switch (code) {
    case '\n':
        return {"\\n", 2};
    case '\r':
        return {"\\r", 2};
    case '\t':
        return {"\\t", 2};
    default:
        return code < 0x80 ? number("\\x", code, "") : number("\\u{", code, "}");
    }
}

} // namespace

escape_character escape_first(const char* text, size_t length) noexcept {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) {
        return {first, 1};
    }
    const size_t wanted = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || length < wanted) {
        return {ESCAPE_INVALID, 1};
    }
    uint32_t code = first & (0x7FU >> wanted);
    for (size_t i = 1; i < wanted; i++) {
        const auto next = static_cast<unsigned char>(text[i]);
        if ((next & 0xC0) != 0x80) {
            return {ESCAPE_INVALID, 1};
        }
        code = (code << 6) | (next & 0x3FU);
    }
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < least_code(wanted) || code > 0x10FFFF || surrogate) {
        return {ESCAPE_INVALID, 1};
    }
    return {code, wanted};
}

bool escape_needed(uint32_t code) noexcept {
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x061C || code == 0x200E ||
           code == 0x200F || (code >= 0x2028 && code <= 0x202E) ||
           (code >= 0x2066 && code <= 0x2069) || code == 0xFEFF;
}

size_t escape_text(char* shown, size_t room, const char* text, size_t length,
                   uint32_t options) noexcept {
    size_t written = 0;
    for (size_t at = 0; at < length;) {
        const escape_character next = escape_first(text + at, length - at);
        const auto byte = static_cast<unsigned char>(text[at]);
        const bool invalid = next.code == ESCAPE_INVALID;
        const bool kept = invalid ? byte >= 0xA0 && (options & ESCAPE_KEEP_BYTES) != 0
                                  : !escape_needed(next.code) ||
                                        (next.code == '\n' && (options & ESCAPE_KEEP_LINES) != 0);
        const escaped form = kept      ? escaped{}
                             : invalid ? number("\\x", byte, "")
                                       : character(next.code);
        const size_t taken = kept ? next.length : form.length;
        if (taken > room - written) {
            break;
        }
        memcpy(shown + written, kept ? text + at : form.text, taken);
        written += taken;
        at += next.length;
    }
    return written;
}
