#include "policy_file.h"

#include <cerrno>
#include <fstream>
#include <set>
#include <sstream>
#include <system_error>
#include <vector>

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

constexpr size_t WORD_MAX = 63; /* longer words of clients are cut to this */

/* The first complaint counts; `why` is empty as long as there is none. */
struct reading {
    std::string file;
    std::string why;
};

bool complain(reading* reading, const std::string& key, const std::string& what) {
    if (reading->why.empty()) {
        reading->why = reading->file + ": " + (key.empty() ? "" : key + ": ") + what;
    }
    return false;
}

bool only_keys(reading* reading, const json& object, const std::string& path,
               const std::set<std::string>& known) {
    if (!object.is_object()) {
        return complain(reading, path, "must be an object");
    }
    for (const auto& [key, value] : object.items()) {
        if (!known.contains(key)) {
            return complain(reading, path.empty() ? key : path + "." + key, "there is no such key");
        }
    }
    return true;
}

bool read_rank(reading* reading, const json& value, const std::string& key, int32_t* rank) {
    if (!value.is_number_integer() || value.get<double>() < INT16_MIN ||
        value.get<double>() > INT16_MAX) {
        return complain(reading, key, "must be a whole number from -32768 to 32767");
    }
    *rank = value.get<int32_t>();
    return true;
}

bool read_bool(reading* reading, const json& value, const std::string& key, bool* result) {
    if (!value.is_boolean()) {
        return complain(reading, key, "must be true or false");
    }
    *result = value.get<bool>();
    return true;
}

bool good_word(reading* reading, const std::string& key, const std::string& word) {
    return (!word.empty() && word.size() <= WORD_MAX) ||
           complain(reading, key, "a word has 1 to " + std::to_string(WORD_MAX) + " bytes");
}

/* A table of words is taken as a whole: it replaces the one built in. */
bool is_table(reading* reading, const json& table, const std::string& key) {
    return (table.is_object() && !table.empty()) ||
           complain(reading, key, "must be an object with at least one entry");
}

bool read_kinds(reading* reading, const json& table, policy* rules) {
    if (!is_table(reading, table, "kinds")) {
        return false;
    }
    rules->kinds.clear();
    for (const auto& [word, entry] : table.items()) {
        const std::string path = "kinds." + word;
        policy_kind kind;
        if (!good_word(reading, path, word) ||
            !only_keys(reading, entry, path, {"rank", "resume"})) {
            return false;
        }
        if (!entry.contains("rank")) {
            return complain(reading, path + ".rank", "is missing");
        }
        if (!read_rank(reading, entry["rank"], path + ".rank", &kind.rank) ||
            (entry.contains("resume") &&
             !read_bool(reading, entry["resume"], path + ".resume", &kind.resume))) {
            return false;
        }
        rules->kinds[word] = kind;
    }
    return true;
}

bool read_priorities(reading* reading, const json& table, policy* rules) {
    if (!is_table(reading, table, "priorities")) {
        return false;
    }
    rules->priorities.clear();
    for (const auto& [word, rank] : table.items()) {
        const std::string path = "priorities." + word;
        if (!good_word(reading, path, word) ||
            !read_rank(reading, rank, path, &rules->priorities[word])) {
            return false;
        }
    }
    return true;
}

struct choice {
    const char* word;
    policy_answer answer;
};
const std::vector<choice> OF_EQUALS = {
    {"takes", POLICY_TAKES}, {"waits", POLICY_WAITS}, {"refused", POLICY_REFUSED}};
const std::vector<choice> OF_LOWER = {{"waits", POLICY_WAITS}, {"refused", POLICY_REFUSED}};

bool read_choice(reading* reading, const json& value, const std::string& key,
                 const std::vector<choice>& choices, policy_answer* answer) {
    std::string words;
    for (const choice& known : choices) {
        if (value == known.word) {
            *answer = known.answer;
            return true;
        }
        words += (words.empty() ? "\"" : ", \"") + std::string(known.word) + "\"";
    }
    return complain(reading, key, "must be one of " + words);
}

bool read_text(reading* reading, const json& value, const std::string& key, std::string* text) {
    if (!value.is_string()) {
        return complain(reading, key, "must be a text");
    }
    *text = value.get<std::string>();
    return true;
}

bool read_key(reading* reading, const std::string& key, const json& value, policy* rules) {
    if (key == "kinds") {
        return read_kinds(reading, value, rules);
    }
    if (key == "priorities") {
        return read_priorities(reading, value, rules);
    }
    if (key == "unknown_kind") {
        return read_text(reading, value, key, &rules->unknown_kind);
    }
    if (key == "unknown_priority") {
        return read_text(reading, value, key, &rules->unknown_priority);
    }
    if (key == "equal") {
        return read_choice(reading, value, key, OF_EQUALS, &rules->equal);
    }
    if (key == "lower") {
        return read_choice(reading, value, key, OF_LOWER, &rules->lower);
    }
    if (key == "resume_equal") {
        return read_bool(reading, value, key, &rules->resume_equal);
    }
    return complain(reading, key, "there is no such key");
}

bool read_all(reading* reading, const json& document, policy* rules) {
    if (!document.is_object()) {
        return complain(reading, "", "must be a JSON object");
    }
    for (const auto& [key, value] : document.items()) {
        if (!read_key(reading, key, value, rules)) {
            return false;
        }
    }
    if (!rules->kinds.contains(rules->unknown_kind)) {
        return complain(reading, "unknown_kind",
                        "\"" + rules->unknown_kind + "\" is none of the kinds");
    }
    if (!rules->priorities.contains(rules->unknown_priority)) {
        return complain(reading, "unknown_priority",
                        "\"" + rules->unknown_priority + "\" is none of the priorities");
    }
    return true;
}

/* Told twice is told wrong: which one counts would be a guess. */
json parse_document(const std::string& text, reading* reading) {
    std::vector<std::set<std::string>> open;
    return json::parse(
        text,
        [&open, reading](int, json::parse_event_t event, json& value) {
            if (event == json::parse_event_t::object_start) {
                open.emplace_back();
            } else if (event == json::parse_event_t::object_end) {
                open.pop_back();
            } else if (event == json::parse_event_t::key &&
                       !open.back().insert(value.get<std::string>()).second) {
                complain(reading, value.get<std::string>(), "is given twice");
            }
            return true;
        },
        true, true);
}

} // namespace

bool policy_file_parse(const std::string& text, const std::string& file, policy* rules,
                       std::string* why) {
    reading reading{file, {}};
    policy read = policy_default();
    try {
        const json document = parse_document(text, &reading);
        if (reading.why.empty() && read_all(&reading, document, &read)) {
            *rules = read;
            return true;
        }
    } catch (const json::exception& failure) {
        const std::string what = failure.what();
        const size_t tag = what.find("] ");
        complain(&reading, "", tag == std::string::npos ? what : what.substr(tag + 2));
    }
    *why = reading.why;
    return false;
}

bool policy_file_read(const std::string& file, policy* rules, std::string* why) {
    errno = 0;
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    if (!stream.is_open() || errno != 0) {
        *why = file + ": " + std::system_category().message(errno);
        return false;
    }
    return policy_file_parse(text.str(), file, rules, why);
}
