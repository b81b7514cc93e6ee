#include "fake_control.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "fake.h"
#include "fake_calls.h"
#include "fake_events.h"
#include "fake_words.h"

namespace {

using answer_text = std::optional<std::string>;

void add_source(fake_state& state, const fake_words& words) VEL_REQUIRES(state.lock) {
    constexpr uint64_t everything = LYR_CAP_PLAY | LYR_CAP_PAUSE | LYR_CAP_NEXT | LYR_CAP_PREVIOUS |
                                    LYR_CAP_SEEK | LYR_CAP_MODES | LYR_CAP_STOP | LYR_CAP_METADATA |
                                    LYR_CAP_SEARCH | LYR_CAP_BROWSE | LYR_CAP_EXTENDED_METADATA;
    const std::string& uid = words_at(words, 1);
    fake_source* known = fake_source_by_uid(state, uid);
    if (known == nullptr) {
        known = &state.sources.emplace_back();
        known->uid = uid;
    }
    known->name = words_text(words, "name").value_or(uid);
    known->view_name = words_text(words, "view");
    if (words_number(words, "noname")) {
        known->name = std::nullopt;
    }
    known->type = static_cast<int32_t>(words_number(words, "type").value_or(LYR_MS_TYPE_HDD));
    known->capabilities = static_cast<uint64_t>(
        words_number(words, "caps").value_or(static_cast<int64_t>(everything)));
    known->status = static_cast<int32_t>(words_number(words, "status").value_or(1));
    known->automatic = words_number(words, "auto").value_or(1) != 0;
}

void set_metadata(fake_state& state, const fake_words& words) VEL_REQUIRES(state.lock) {
    std::map<std::string, std::string>& data = state.metadata[words_at(words, 1)];
    data.clear();
    for (const char* key : {"title", "artwork", "artist", "album", "genre", "year", "extra",
                            "duration", "width", "height", "disc", "track"}) {
        if (const auto value = words_text(words, key)) {
            data[key] = *value;
        }
    }
}

std::string list_sessions(const fake_state& state) VEL_REQUIRES(state.lock) {
    std::string text;
    for (const auto& [serial, session] : state.sessions) {
        if (session.alive) {
            text += std::to_string(serial) + (session.plays ? " play" : " browse") +
                    call_word("ms", session.ms_id) + '\n';
        }
    }
    return text;
}

/* What the plug-in knows. Nothing when it is not such a command. */
answer_text ask(fake_state& state, const fake_words& words) VEL_REQUIRES(state.lock) {
    const std::string& verb = words_at(words, 0);
    std::string text;
    if (verb == "sessions") {
        return list_sessions(state);
    }
    if (verb == "settings") {
        for (const auto& [key, value] : state.settings) {
            text += key + '=' + value + '\n';
        }
        return text;
    }
    if (verb == "violations") {
        for (const std::string& line : state.violations) {
            text += line + '\n';
        }
        return text;
    }
    if (verb == "id") {
        const fake_source* source = fake_source_by_uid(state, words_at(words, 1));
        return std::to_string(source == nullptr ? -1 : source->id);
    }
    if (verb == "plugin") {
        return std::to_string(state.plugin_id);
    }
    if (verb == "detection") {
        return state.detecting ? "1" : "0";
    }
    return std::nullopt;
}

/* Changes the world. Nothing when it is not such a command, or is wrong (then with the reason). */
answer_text change(fake_state& state, const fake_words& words, std::string& fault)
    VEL_REQUIRES(state.lock) {
    const std::string& verb = words_at(words, 0);
    const std::string& first = words_at(words, 1);
    if (verb == "tree") {
        fault = tree_parse(state.trees[words_text(words, "uid").value_or("")], words.body);
    } else if (verb == "meta") {
        set_metadata(state, words);
    } else if (verb == "ext") {
        state.extended[first][words_at(words, 2)] = words_at(words, 3);
    } else if (verb == "source") {
        add_source(state, words);
    } else if (verb == "types") {
        state.types = static_cast<uint32_t>(words_to_number(first).value_or(0));
    } else if (verb == "name") {
        fake_table_name(words.plain.size() > 1 ? first.c_str() : nullptr);
    } else if (verb == "keep") {
        state.calls_kept = static_cast<size_t>(words_to_number(first).value_or(0));
    } else if (verb == "device") {
        state.device = first == "on";
    } else if (verb == "null" || verb == "restore") {
        fault = fake_table_set(first, verb == "restore") ? "" : "no such entry: " + first;
    } else if (verb == "reset") {
        state.violations.clear();
        calls_reset(state);
    } else {
        return std::nullopt;
    }
    return fault.empty() ? answer_text("") : std::nullopt;
}

answer_text execute(const fake_words& words, std::string& fault) {
    fake_state& state = fake();
    const std::string& verb = words_at(words, 0);
    if (verb == "event" || verb == "join") {
        return events_command(words, fault);
    }
    {
        vel_lock_guard guard(state.lock);
        answer_text answer = ask(state, words);
        if (!answer) {
            answer = change(state, words, fault);
        }
        if (answer || !fault.empty()) {
            return answer;
        }
    }
    return calls_command(words, fault);
}

extern "C" {

static int32_t fake_command(const char* text, char** reply) noexcept {
    std::string answer;
    const int32_t result = control_execute(text, answer);
    *reply = strdup(answer.c_str());
    return result;
}
}

} // namespace

extern "C" {
__attribute__((visibility("default"))) extern const fake_api_table fake_api;
const fake_api_table fake_api = {fake_command};
}

int32_t control_execute(const std::string& command, std::string& answer) {
    fake_words words;
    std::string fault;
    if (!words_parse(command, words)) {
        answer = "not a command: " + command;
        return -1;
    }
    const answer_text text = execute(words, fault);
    const std::string unused = words_unused(words);
    if (text && !unused.empty()) {
        answer = words_at(words, 0) + " knows no option " + unused;
        return -1;
    }
    answer = text ? *text : fault;
    return text ? 0 : -1;
}

void control_run_script(const std::string& script) {
    std::istringstream lines(script);
    std::string line;
    for (bool more = static_cast<bool>(std::getline(lines, line)); more;) {
        std::string command = line;
        while ((more = static_cast<bool>(std::getline(lines, line))) && line[0] == ' ') {
            command += '\n' + line.substr(1);
        }
        std::string answer;
        if (!command.empty() && control_execute(command, answer) != 0) {
            std::fprintf(stderr, "fake.so: %s: %s\n", command.c_str(), answer.c_str());
            std::abort();
        }
    }
}
