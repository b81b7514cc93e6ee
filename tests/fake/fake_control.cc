#include "fake_control.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include <csignal>
#include <unistd.h>

#include "fake.h"
#include "fake_calls.h"
#include "fake_events.h"
#include "fake_words.h"

namespace {

std::string add_source(const fake_words& words, std::string&) {
    constexpr uint64_t everything = LYR_CAP_PLAY | LYR_CAP_PAUSE | LYR_CAP_NEXT | LYR_CAP_PREVIOUS |
                                    LYR_CAP_SEEK | LYR_CAP_MODES | LYR_CAP_STOP | LYR_CAP_METADATA |
                                    LYR_CAP_SEARCH | LYR_CAP_BROWSE | LYR_CAP_EXTENDED_METADATA;
    const std::string& uid = words_at(words, 1);
    fake_source* known = fake_source_by_uid(uid);
    if (known == nullptr) {
        known = &state.sources.emplace_back();
        known->uid = uid;
    }
    known->name = words_text(words, "name").value_or(uid);
    known->view_name = words_text(words, "view");
    if (words_flag(words, "noname")) {
        known->name = std::nullopt;
    }
    known->type = static_cast<int32_t>(words_number(words, "type").value_or(LYR_MS_TYPE_HDD));
    known->capabilities = static_cast<uint64_t>(
        words_number(words, "caps").value_or(static_cast<int64_t>(everything)));
    known->status = static_cast<int32_t>(words_number(words, "status").value_or(1));
    known->automatic = words_number(words, "auto").value_or(1) != 0;
    return "";
}

std::string set_metadata(const fake_words& words, std::string&) {
    std::map<std::string, std::string>& data = state.metadata[words_at(words, 1)];
    data.clear();
    words_know(words, {"title", "artwork", "artist", "album", "genre", "year", "extra", "duration",
                       "width", "height", "disc", "track"});
    for (const fake_option& option : words.options) {
        data[option.key] = option.value;
    }
    return "";
}

std::string list_sessions(const fake_words&, std::string&) {
    std::string text;
    for (const auto& [serial, session] : state.sessions) {
        if (session.alive) {
            text += std::to_string(serial) + (session.plays ? " play" : " browse") +
                    " ms=" + std::to_string(session.ms_id) + '\n';
        }
    }
    return text;
}

std::string list_settings(const fake_words&, std::string&) {
    std::string text;
    for (const auto& [key, value] : state.settings) {
        text += key + '=' + value + '\n';
    }
    return text;
}

std::string list_violations(const fake_words&, std::string&) {
    std::string text;
    for (const std::string& line : state.violations) {
        text += line + '\n';
    }
    return text;
}

constexpr struct {
    const char* verb;
    std::string (*run)(const fake_words& words, std::string& fault);
} COMMANDS[] = {
    {"source", add_source},      {"meta", set_metadata},           {"sessions", list_sessions},
    {"settings", list_settings}, {"violations", list_violations},  {"rule", calls_add_rule},
    {"await", calls_await},      {"blocked", calls_await_blocked}, {"count", calls_count},
    {"log", calls_log},          {"event", events_make},           {"join", events_join},
};

/* The commands of one line each. */
std::string execute_short(const fake_words& words, std::string& fault) {
    const std::string& verb = words_at(words, 0);
    const std::string& first = words_at(words, 1);
    std::string answer;
    if (verb == "id") {
        const fake_source* source = fake_source_by_uid(first);
        answer = std::to_string(source == nullptr ? -1 : source->id);
    } else if (verb == "plugin") {
        answer = std::to_string(state.plugin_id);
    } else if (verb == "detection") {
        answer = state.detecting ? "1" : "0";
    } else if (verb == "tree") {
        fault = tree_parse(state.trees[words_text(words, "uid").value_or("")], words.body);
    } else if (verb == "ext") {
        state.extended[first][words_at(words, 2)] = words_at(words, 3);
    } else if (verb == "types") {
        state.types = static_cast<uint32_t>(words_to_number(first).value_or(0));
    } else if (verb == "name") {
        fake_table_name(first);
    } else if (verb == "keep") {
        state.calls_kept = static_cast<size_t>(words_to_number(first).value_or(0));
    } else if (verb == "device") {
        state.device = first == "on";
    } else if (verb == "null" || verb == "restore") {
        fault = fake_table_set(first, verb == "restore") ? "" : "no such entry: " + first;
    } else if (verb == "print") {
        flockfile(stdout);
        std::fputs(first.c_str(), stdout);
    } else if (verb == "expose") {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
        answer = std::to_string(gettid());
    } else if (verb == "unrule") {
        state.rules.clear();
    } else if (verb == "release") {
        state.open_gates.insert(first);
        fake_wake();
    } else if (verb == "clear") {
        calls_forget();
    } else if (verb == "reset") {
        state.violations.clear();
        calls_reset();
    } else {
        fault = "no such command: " + verb;
    }
    return answer;
}

std::string execute(const fake_words& words, std::string& fault) {
    vel_lock_guard guard(state.lock);
    for (const auto& command : COMMANDS) {
        if (words_at(words, 0) == command.verb) {
            return command.run(words, fault);
        }
    }
    return execute_short(words, fault);
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
    if (!words_parse(command, words)) {
        answer = "not a command: " + command;
        return -1;
    }
    std::string fault;
    answer = execute(words, fault);
    const std::string unused = words_unused(words);
    if (fault.empty() && !unused.empty()) {
        fault = words_at(words, 0) + " knows no option " + unused;
    }
    if (!fault.empty()) {
        answer = fault;
    }
    return fault.empty() ? 0 : -1;
}

void control_run_script(const std::string& script) {
    std::vector<std::string> commands;
    std::istringstream lines(script);
    for (std::string line; std::getline(lines, line);) {
        if (line[0] == ' ' && !commands.empty()) {
            commands.back() += '\n' + line.substr(1);
        } else if (!line.empty()) {
            commands.push_back(line);
        }
    }
    for (const std::string& command : commands) {
        std::string answer;
        if (control_execute(command, answer) != 0) {
            std::fprintf(stderr, "fake.so: %s: %s\n", command.c_str(), answer.c_str());
            std::abort();
        }
    }
}
