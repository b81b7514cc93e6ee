#include "text.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include <clocale>
#include <cwchar>
#include <wchar.h>

#include <veloran/escape.h>

namespace {

constexpr std::string_view ELLIPSIS = "\u2026";

escape_character decode(std::string_view bytes) {
    return escape_first(bytes.data(), bytes.size());
}

/* Columns of one character. The table is the C library's for its own UTF-8 locale, so that the
 * answer is the same whatever the user's locale is. */
int32_t code_width(uint32_t code) {
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
    std::string out(ESCAPE_GROWTH * bytes.size(), '\0');
    out.resize(escape_text(out.data(), out.size(), bytes.data(), bytes.size(), 0));
    return out;
}

/* Characters outside ASCII stand in texts only, where they may be written as numbers. Those that
 * need it have four digits. */
std::string text_json(std::string_view document) {
    std::string out;
    while (!document.empty()) {
        const escape_character next = decode(document);
        if (escape_needed(next.code)) {
            char number[8];
            std::snprintf(number, sizeof number, "\\u%04x", next.code & 0xFFFFU);
            out += number;
        } else {
            out += document.substr(0, next.length);
        }
        document.remove_prefix(next.length);
    }
    return out;
}

int32_t text_width(std::string_view printable) {
    int32_t width = 0;
    while (!printable.empty()) {
        const escape_character character = decode(printable);
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
        const escape_character character = decode(printable.substr(kept));
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
