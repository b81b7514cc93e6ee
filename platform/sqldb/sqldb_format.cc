#include "sqldb_format.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>

namespace {

constexpr size_t NUMBER_SIZE = 32; /* any integer, any shortest double */

/* A number after a minus would make a comment of the rest of the line. */
void append_number(std::string* text, const char* number, size_t length) {
    if (number[0] == '-' && !text->empty() && text->back() == '-') {
        text->push_back(' ');
    }
    text->append(number, length);
}

void append_integer(std::string* text, int64_t value) {
    char number[NUMBER_SIZE];
    const auto result = std::to_chars(number, number + sizeof number, value);
    append_number(text, number, static_cast<size_t>(result.ptr - number));
}

/* The shortest text that reads back as the same double, and as a real, not as an integer. */
int32_t append_real(std::string* text, double value) {
    if (!std::isfinite(value)) {
        errno = EINVAL;
        return -1;
    }
    char number[NUMBER_SIZE + 2];
    char* end = std::to_chars(number, number + NUMBER_SIZE, value).ptr;
    const auto length = static_cast<size_t>(end - number);
    if (memchr(number, '.', length) == nullptr && memchr(number, 'e', length) == nullptr) {
        *end++ = '.';
        *end++ = '0';
    }
    append_number(text, number, static_cast<size_t>(end - number));
    return 0;
}

void append_quoted(std::string* text, const char* value) {
    if (value == nullptr) {
        return;
    }
    const char* quote = strchr(value, '\'');
    while (quote != nullptr) {
        text->append(value, static_cast<size_t>(quote + 1 - value)).push_back('\'');
        value = quote + 1;
        quote = strchr(value, '\'');
    }
    text->append(value);
}

/* The directive at the start of a text, quotes included, and how long it is; 0 for none that stands
 * for a value. */
char value_directive(const char* text, size_t* length) {
    static constexpr struct {
        std::string_view text;
        char kind;
    } DIRECTIVES[] = {{"'%q'", 'q'}, {"%llu", 'u'}, {"%d", 'd'}, {"%f", 'f'}};
    for (const auto& directive : DIRECTIVES) {
        if (strncmp(text, directive.text.data(), directive.text.size()) == 0) {
            *length = directive.text.size();
            return directive.kind;
        }
    }
    return '\0';
}

bool is_one_of(char letter, const char* letters) {
    return letter != '\0' && strchr(letters, letter) != nullptr;
}

} // namespace

bool sqldb_format_template(std::string* text, std::string* kinds, const char* format) {
    text->clear();
    kinds->clear();
    if (strncmp(format, "INSERT ", 7) != 0 || strcasestr(format, "SELECT") != nullptr) {
        return false;
    }
    while (*format != '\0') {
        if (!is_one_of(*format, "'%\"`[-/?:@$#")) {
            text->push_back(*format++);
            continue;
        }
        size_t length = 0;
        const char kind = value_directive(format, &length);
        if (kind == '\0' || !is_one_of(text->back(), " ,(") || !is_one_of(format[length], " ,)")) {
            return false;
        }
        kinds->push_back(kind);
        text->push_back('?');
        format += length;
    }
    return true;
}

int32_t sqldb_format(std::string* text, const char* format, va_list arguments) {
    text->clear();
    for (;;) {
        const size_t plain = strcspn(format, "%");
        text->append(format, plain);
        format += plain;
        if (format[0] == '\0') {
            return 0;
        }
        size_t taken = 2;
        if (format[1] == '%') {
            text->push_back('%');
        } else if (format[1] == 'q') {
            append_quoted(text, va_arg(arguments, const char*));
        } else if (format[1] == 'd') {
            append_integer(text, va_arg(arguments, int));
        } else if (format[1] == 'f') {
            if (append_real(text, va_arg(arguments, double)) != 0) {
                return -1;
            }
        } else if (strncmp(format, "%llu", 4) == 0) {
            append_integer(text, static_cast<int64_t>(va_arg(arguments, unsigned long long)));
            taken = 4;
        } else {
            errno = EINVAL;
            return -1;
        }
        format += taken;
    }
}
