#include "fake_words.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

bool words_parse(const std::string& text, fake_words& words) {
    const size_t line_end = text.find('\n');
    const std::string line = text.substr(0, line_end);
    words.body = line_end == std::string::npos ? "" : text.substr(line_end + 1);
    size_t at = 0;
    while (true) {
        at = line.find_first_not_of(' ', at);
        if (at == std::string::npos) {
            return !words.plain.empty();
        }
        size_t equals = std::string::npos;
        std::string raw;
        bool quoted = false;
        for (; at < line.size() && (quoted || line[at] != ' '); ++at) {
            if (line[at] == '\\' && at + 1 < line.size()) {
                raw += line[at++];
            } else if (line[at] == '"') {
                quoted = !quoted;
                continue;
            } else if (line[at] == '=' && !quoted && equals == std::string::npos) {
                equals = raw.size();
            }
            raw += line[at];
        }
        if (quoted) {
            return false;
        }
        if (equals == std::string::npos) {
            words.plain.push_back(words_unescape(raw));
        } else {
            words.options.push_back(
                {raw.substr(0, equals), words_unescape(raw.substr(equals + 1))});
        }
    }
}

const std::string& words_at(const fake_words& words, size_t position) {
    static const std::string none;
    return position < words.plain.size() ? words.plain[position] : none;
}

std::optional<std::string> words_text(const fake_words& words, const char* key) {
    for (const fake_option& option : words.options) {
        if (option.key == key) {
            option.used = true;
            return option.value;
        }
    }
    return std::nullopt;
}

std::optional<int64_t> words_number(const fake_words& words, const char* key) {
    const std::optional<std::string> text = words_text(words, key);
    return text ? words_to_number(*text) : std::nullopt;
}

bool words_flag(const fake_words& words, const char* key) {
    return words_number(words, key).value_or(0) != 0;
}

void words_know(const fake_words& words, std::initializer_list<const char*> keys) {
    for (const char* key : keys) {
        words_text(words, key);
    }
}

std::string words_unused(const fake_words& words) {
    const auto unused = std::ranges::find(words.options, false, &fake_option::used);
    return unused == words.options.end() ? "" : unused->key;
}

std::optional<int64_t> words_to_number(const std::string& text) {
    char* end = nullptr;
    const uint64_t value = std::strtoull(text.c_str(), &end, text.starts_with("0x") ? 16 : 10);
    if (text.empty() || *end != '\0') {
        return std::nullopt;
    }
    return static_cast<int64_t>(value);
}

std::string words_unescape(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const char kind = text[++i];
        if (kind == 'n') {
            out += '\n';
        } else if (kind == 'x' && i + 2 < text.size()) {
            out += static_cast<char>(std::strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        } else {
            out += kind;
        }
    }
    return out;
}

std::string words_quote(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c >= ' ' && c < 0x7f) {
            out += c == '"' || c == '\\' ? "\\" : "";
            out += c;
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
            out += hex;
        }
    }
    return out + '"';
}
