#include "notation.h"

#include <algorithm>
#include <charconv>

#include <gtest/gtest.h>

/* The number in [at, end), or -1. */
static int read_number(const std::string& text, size_t at, size_t end, int base) {
    int number = -1;
    const char* last = text.data() + std::min(end, text.size());
    const std::from_chars_result read = std::from_chars(text.data() + at, last, number, base);
    return read.ec == std::errc() && read.ptr == last ? number : -1;
}

std::vector<int> notation_read(const std::string& text) {
    std::vector<int> bytes;
    for (size_t at = 0; at < text.size();) {
        size_t end = at + 2;
        if (text[at] == ' ' || text[at] == '\n') {
            end = at + 1;
        } else if (text[at] == '#') {
            end = text.find('\n', at);
        } else if (text[at] == '\'') {
            end = text.find('\'', at + 1);
            for (size_t i = at + 1; i < std::min(end, text.size()); ++i) {
                bytes.push_back(static_cast<unsigned char>(text[i]));
            }
            end = end == std::string::npos ? end : end + 1;
        } else if (text.compare(at, 2, "..") == 0) {
            bytes.push_back(ANY_BYTE);
        } else if (text.compare(at, 2, "0*") == 0) {
            end = text.find_first_not_of("0123456789", at + 2);
            bytes.insert(bytes.end(), static_cast<size_t>(read_number(text, at + 2, end, 10)), 0);
        } else if (const int byte = read_number(text, at, end, 16); byte >= 0) {
            bytes.push_back(byte);
        } else {
            ADD_FAILURE() << "no bytes: " << text.substr(at);
            return bytes;
        }
        at = std::min(end, text.size());
    }
    return bytes;
}

std::string notation_bytes(const std::string& text) {
    std::string bytes;
    for (const int byte : notation_read(text)) {
        EXPECT_NE(byte, ANY_BYTE) << text;
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

std::string notation_show(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
        constexpr char DIGITS[] = "0123456789abcdef";
        text += DIGITS[static_cast<unsigned char>(byte) >> 4];
        text += DIGITS[static_cast<unsigned char>(byte) & 15];
        text += ' ';
    }
    return text;
}

void notation_expect(const std::string& bytes, const std::vector<int>& written,
                     const std::string& what) {
    std::string wanted;
    for (size_t i = 0; i < written.size(); ++i) {
        const bool any = written[i] == ANY_BYTE && i < bytes.size();
        wanted += any ? bytes[i] : static_cast<char>(written[i]);
    }
    EXPECT_EQ(notation_show(bytes), notation_show(wanted)) << what;
}
