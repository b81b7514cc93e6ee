#include "text.h"

#include <algorithm>
#include <charconv>

#include <clocale>
#include <cwchar>
#include <wchar.h>

namespace {

constexpr char32_t INVALID = 0xFFFFFFFF;
constexpr std::string_view ELLIPSIS = "\u2026";

struct decoded {
    char32_t code; /* INVALID: one byte that is no UTF-8 */
    size_t length;
};

char32_t least_code(size_t length) {
    return length == 2 ? 0x80 : length == 3 ? 0x800 : 0x10000;
}

/* The first character; only the shortest form of a character that exists is accepted. */
decoded decode(std::string_view bytes) {
    const auto first = static_cast<unsigned char>(bytes[0]);
    if (first < 0x80) {
        return {first, 1};
    }
    const size_t length = first >= 0xF0 && first < 0xF8 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || bytes.size() < length) {
        return {INVALID, 1};
    }
    char32_t code = first & (0x7FU >> length);
    for (size_t i = 1; i < length; i++) {
        const auto next = static_cast<unsigned char>(bytes[i]);
        if ((next & 0xC0) != 0x80) {
            return {INVALID, 1};
        }
        code = (code << 6) | (next & 0x3FU);
    }
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < least_code(length) || code > 0x10FFFF || surrogate) {
        return {INVALID, 1};
    }
    return {code, length};
}

/* Controls, line and paragraph separators, and marks that turn the reading direction. */
bool must_escape(char32_t code) {
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x061C ||
           (code >= 0x200E && code <= 0x200F) || (code >= 0x2028 && code <= 0x202E) ||
           (code >= 0x2066 && code <= 0x2069) || code == 0xFEFF;
}

void append_hex(std::string& out, const char* opening, uint32_t value, const char* closing) {
    char digits[8];
    const auto end = std::to_chars(digits, digits + sizeof digits, value, 16).ptr;
    out += opening;
    if (end - digits < 2) {
        out += '0';
    }
    out.append(digits, end);
    out += closing;
}

void append_escaped(std::string& out, char32_t code) {
    switch (code) {
    case '\n':
        out += "\\n";
        break;
    case '\r':
        out += "\\r";
        break;
    case '\t':
        out += "\\t";
        break;
    default:
        if (code < 0x80) {
            append_hex(out, "\\x", code, "");
        } else {
            append_hex(out, "\\u{", code, "}");
        }
    }
}

/* Columns of one character. The table is the C library's for its own UTF-8 locale, so that the
 * answer is the same whatever the user's locale is. */
int32_t code_width(char32_t code) {
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (code < 0x80 || utf8 == nullptr) {
        return 1;
    }
    const locale_t earlier = uselocale(utf8);
    const int width = wcwidth(static_cast<wchar_t>(code));
    uselocale(earlier);
    return width < 0 ? 1 : width;
}

char folded(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

std::string number_text(int64_t value, size_t digits) {
    std::string text = std::to_string(value);
    return text.size() < digits ? std::string(digits - text.size(), '0') + text : text;
}

} // namespace

std::string text_printable(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    while (!bytes.empty()) {
        const decoded character = decode(bytes);
        if (character.code == INVALID) {
            append_hex(out, "\\x", static_cast<unsigned char>(bytes[0]), "");
        } else if (must_escape(character.code)) {
            append_escaped(out, character.code);
        } else {
            out.append(bytes.substr(0, character.length));
        }
        bytes.remove_prefix(character.length);
    }
    return out;
}

int32_t text_width(std::string_view printable) {
    int32_t width = 0;
    while (!printable.empty()) {
        const decoded character = decode(printable);
        width += code_width(character.code);
        printable.remove_prefix(character.length);
    }
    return width;
}

std::string text_cut(std::string_view printable, int32_t width) {
    if (text_width(printable) <= width) {
        return std::string(printable);
    }
    if (width < 1) {
        return {};
    }
    size_t kept = 0;
    int32_t used = 1; /* the ellipsis */
    while (kept < printable.size()) {
        const decoded character = decode(printable.substr(kept));
        used += code_width(character.code);
        if (used > width) {
            break;
        }
        kept += character.length;
    }
    return std::string(printable.substr(0, kept)).append(ELLIPSIS);
}

std::string text_pad(std::string_view printable, int32_t width, bool right) {
    const int32_t missing = std::max(0, width - text_width(printable));
    const std::string blanks(static_cast<size_t>(missing), ' ');
    return right ? blanks + std::string(printable) : std::string(printable) + blanks;
}

std::string text_clock(int64_t milliseconds) {
    if (milliseconds < 0) {
        return "-:--";
    }
    const int64_t seconds = milliseconds / 1000;
    const std::string tail = ":" + number_text(seconds % 60, 2);
    if (seconds < 3600) {
        return number_text(seconds / 60, 1) + tail;
    }
    return number_text(seconds / 3600, 1) + ":" + number_text(seconds / 60 % 60, 2) + tail;
}

bool text_same(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return folded(a) == folded(b); });
}

bool text_number(std::string_view text, int64_t* number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), *number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() && !text.empty();
}

bool text_position(std::string_view text, int64_t* milliseconds, bool* relative) {
    *relative = !text.empty() && (text[0] == '+' || text[0] == '-');
    const bool back = !text.empty() && text[0] == '-';
    if (*relative) {
        text.remove_prefix(1);
    }
    int64_t seconds = 0;
    for (int parts = 0;; ++parts) {
        const std::string_view part = text.substr(0, text.find(':'));
        int64_t number = 0;
        const bool digits = !part.empty() && part[0] != '-' && text_number(part, &number);
        if (!digits || parts > 2 || number > INT32_MAX || (parts > 0 && number > 59)) {
            return false;
        }
        seconds = seconds * 60 + number;
        if (part.size() == text.size()) {
            *milliseconds = (back ? -1 : 1) * seconds * 1000;
            return true;
        }
        text.remove_prefix(part.size() + 1);
    }
}
