#include "doctor.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <utility>
#include <vector>

#include <limits.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <veloran/lock.h>
#include <veloran/paths.h>
#include <veloran/server_object.h>

#include "connection.h"
#include "request.h"

namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

constexpr int PLUGIN_LIMIT_MS = 10000;

std::string resolved(const char* path) {
    char real[PATH_MAX];
    return paths_resolve_existing(path, real, sizeof real) < 0 ? path : real;
}

std::string error_text() {
    return std::strerror(errno);
}

/* A root: there, a directory, and nobody else's to write in. */
finding look_at_root(const char* about, const std::string& path, int wanted) {
    struct stat status = {};
    if (path.empty() || lstat(path.c_str(), &status) != 0) {
        return {verdict::notice, about,
                path + ": " + error_text() + "; the service makes it when it starts"};
    }
    if (!S_ISDIR(status.st_mode)) {
        return {verdict::bad, about, path + " is no directory: move it away"};
    }
    if (access(path.c_str(), wanted) != 0) {
        return {verdict::bad, about,
                path + " belongs to user " + std::to_string(status.st_uid) +
                    ": run this, and the service, as that user"};
    }
    if ((status.st_mode & S_IWOTH) != 0) {
        return {verdict::bad, about,
                path + ": everybody may write in it, so the service refuses it: chmod o-w"};
    }
    return {verdict::good, about, path};
}

/* The configuration without its comments: whole lines that begin with '#'. */
std::optional<json> read_configuration(const std::string& path, finding* found) {
    std::ifstream file(path);
    std::string text;
    for (std::string line; std::getline(file, line);) {
        const size_t first = line.find_first_not_of(" \t\v\f\r");
        text += (first != std::string::npos && line[first] == '#' ? "" : line) + "\n";
    }
    if (!file.eof()) {
        *found = {verdict::bad, "configuration",
                  path + ": " + error_text() + "; name another file with --config"};
        return {};
    }
    try {
        json config = json::parse(text);
        *found = {verdict::good, "configuration", path};
        return config;
    } catch (const json::exception& error) {
        *found = {verdict::bad, "configuration", path + ": " + error.what()};
        return {};
    }
}

/* The five settings that every player needs, all of them texts. */
finding look_at_player(const json& config) {
    const auto player = config.find("player");
    if (player == config.end() || !player->is_object()) {
        return {verdict::bad, "player settings", "there is no object \"player\""};
    }
    for (const char* name : {"audio_output", "video_output", "update_interval", "progression_mode",
                             "recursion_depth"}) {
        const auto setting = player->find(name);
        if (setting == player->end() || !setting->is_string()) {
            return {verdict::bad, "player settings",
                    std::string("\"") + name + "\" is missing or no text"};
        }
    }
    return {verdict::good, "player settings", "complete"};
}

/* Where the service was started with -l, or is meant to be: whether sessions of media sources that
 * are away are kept. */
void look_at_lastmode(const json& config, std::vector<finding>* found) {
    const json player =
        config.is_object() ? config.value("player", json::object()) : json::object();
    const bool is_set = player.is_object() && player.contains("lastmode_audio");
    if (!is_set && access(resolved("/db/lyrane.db").c_str(), F_OK) != 0) {
        return;
    }
    const json settings = is_set ? player["lastmode_audio"] : json::object();
    const json keeps = settings.is_object() ? settings.value("keep_missing", json()) : json();
    if (keeps.is_string() && std::atoi(keeps.get<std::string>().c_str()) != 0) {
        found->push_back({verdict::good, "last mode", "keeps sessions of sources that are away"});
    } else {
        found->push_back({verdict::notice, "last mode",
                          "with -l, what was played from a source that is away at a start is "
                          "forgotten: set \"keep_missing\" to \"1\" in \"lastmode_audio\""});
    }
}

/* The program that loads plug-ins as the service does: beside this one where it is installed, else
 * where it was built. Empty when it is not there. */
std::string checker() {
    std::error_code error;
    const fs::path own = fs::read_symlink("/proc/self/exe", error).parent_path();
    for (const fs::path& path : {own / "plugincheck", own / "../plugincheck/plugincheck"}) {
        if (access(path.c_str(), X_OK) == 0) {
            return path;
        }
    }
    return {};
}

/* In the child: becomes the checker, both of whose outputs are read. */
[[noreturn]] void check_plugin(const std::string& program, std::vector<std::string> words,
                               int answer) {
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    dup2(answer, STDOUT_FILENO);
    dup2(answer, STDERR_FILENO);
    execv(program.c_str(), arguments.data());
    _exit(EXIT_FAILURE);
}

std::string read_answer(int fd) {
    std::string text;
    char buffer[512];
    for (;;) {
        pollfd ready = {fd, POLLIN, 0};
        const ssize_t count =
            poll(&ready, 1, PLUGIN_LIMIT_MS) == 1 ? read(fd, buffer, sizeof buffer) : -1;
        if (count <= 0) {
            return count == 0 ? text : "it does not come back from being loaded";
        }
        text.append(buffer, static_cast<size_t>(count));
    }
}

/* What the checker found wrong: the rules that are broken, else what it said. */
std::string broken_rules(const std::string& answer) {
    const json report = json::parse(answer, nullptr, false);
    if (!report.is_object() || !report.contains("checks")) {
        const std::string prefix = "plugincheck: ";
        std::string said = answer.substr(0, answer.find_last_not_of('\n') + 1);
        return said.rfind(prefix, 0) == 0 ? said.substr(prefix.size()) : said;
    }
    std::string rules;
    for (const json& check : report["checks"]) {
        if (check.value("result", "") == "failed") {
            rules += (rules.empty() ? "" : "; ") + check.value("rule", "") + ": " +
                     check.value("text", "");
        }
    }
    return rules;
}

/* Loads it in a process of its own, since its code may do anything, with its settings. */
finding look_at_plugin(const std::string& path, const json& settings) {
    const std::string about = "plug-in " + fs::path(path).filename().string();
    const std::string program = checker();
    int ends[2];
    if (program.empty()) {
        return {verdict::notice, about, path + ": not looked at, plugincheck is not installed"};
    }
    if (pipe(ends) != 0) {
        return {verdict::bad, about, error_text()};
    }
    std::vector<std::string> words = {program, "--json", "--group", "load", path};
    for (const auto& setting : settings.items()) {
        if (setting.value().is_string()) {
            words.insert(words.end(),
                         {"--set", setting.key() + "=" + setting.value().get<std::string>()});
        }
    }
    const vel_fd answer(ends[0]);
    const pid_t child = fork();
    if (child == 0) {
        setpgid(0, 0);
        check_plugin(program, std::move(words), ends[1]);
    }
    close(ends[1]);
    if (child < 0) {
        return {verdict::bad, about, error_text()};
    }
    setpgid(child, child); /* whoever of both is first */
    const std::string said = read_answer(answer.value);
    int status = 0;
    kill(-child, SIGKILL); /* it has said all it will say */
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0
               ? finding{verdict::good, about, path}
               : finding{verdict::bad, about, broken_rules(said)};
}

void look_at_plugins(const json& config, std::vector<finding>* found) {
    const auto plugins = config.find("plugins");
    if (plugins == config.end() || !plugins->is_object()) {
        found->push_back({verdict::bad, "plug-ins", "there is no object \"plugins\""});
        return;
    }
    if (plugins->empty()) {
        found->push_back({verdict::notice, "plug-ins", "none: there is nothing to play from"});
    }
    for (const auto& plugin : plugins->items()) {
        found->push_back(look_at_plugin(plugin.key(), plugin.value()));
    }
}

finding look_at_database() {
    const std::string path = resolved("/db/lyrane.db");
    if (access(path.c_str(), F_OK) != 0) {
        return {verdict::notice, "database",
                path + ": not there; the service keeps one with the option -l"};
    }
    sqlite3* database = nullptr;
    sqlite3_stmt* check = nullptr;
    finding found = {verdict::good, "database", path};
    if (sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK ||
        sqlite3_prepare_v2(database, "PRAGMA quick_check(1)", -1, &check, nullptr) != SQLITE_OK ||
        sqlite3_step(check) != SQLITE_ROW ||
        std::strcmp(reinterpret_cast<const char*>(sqlite3_column_text(check, 0)), "ok") != 0) {
        found = {verdict::bad, "database",
                 path + ": " + sqlite3_errmsg(database) +
                     "; the next start of the service takes the newest backup"};
    }
    sqlite3_finalize(check);
    sqlite3_close(database);
    return found;
}

finding look_at_arbiter() {
    const vel_fd arbiter(
        server_object_open("/pps/services/multimedia/mediaplayer/control?wait,delta"));
    if (arbiter.value >= 0) {
        return {verdict::good, "arbiter", "gives the audio focus"};
    }
    return errno == EAGAIN
               ? finding{verdict::notice, "arbiter", "there, but accepts nobody at the moment"}
               : finding{verdict::notice, "arbiter", "none: every player sounds when it likes"};
}

finding look_at_sound() {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/dev/snd", error)) {
        const std::string name = entry.path().filename();
        if (name.rfind("pcm", 0) == 0 && name.back() == 'p') {
            return access(entry.path().c_str(), W_OK) == 0
                       ? finding{verdict::good, "sound", entry.path()}
                       : finding{verdict::notice, "sound",
                                 entry.path().string() + ": " + error_text() +
                                     "; the service's user may have to be in the group audio"};
        }
    }
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    const std::string pulse = std::string(runtime != nullptr ? runtime : "") + "/pulse/native";
    if (access(pulse.c_str(), F_OK) == 0) {
        return {verdict::good, "sound", pulse};
    }
    return {verdict::notice, "sound",
            "no sound card and no sound server: only outputs such as fakesink work"};
}

void look_at_service(const std::string& name, std::vector<finding>* found) {
    std::string why;
    const connection_owner to = connection_open(name, &why);
    std::vector<request_source> sources;
    if (to == nullptr) {
        found->push_back({verdict::bad, "service", why});
    } else if (!request_sources(to.get(), &sources)) {
        found->push_back({verdict::bad, "service", to->why});
    } else {
        found->push_back({verdict::good, "service", name + " answers"});
        const std::string count = std::to_string(sources.size());
        found->push_back(sources.empty()
                             ? finding{verdict::notice, "media sources",
                                       "none: plug something in, or look at the plug-ins' settings"}
                             : finding{verdict::good, "media sources", count});
    }
}

} // namespace

std::vector<finding> doctor_look(const arguments& what) {
    std::vector<finding> found;
    finding configuration;
    const std::optional<json> config = read_configuration(what.config, &configuration);
    found.push_back(configuration);
    if (config.has_value()) {
        found.push_back(look_at_player(*config));
        look_at_lastmode(*config, &found);
        look_at_plugins(*config, &found);
    }
    found.push_back(look_at_root("runtime root", paths_runtime_root(), R_OK | X_OK));
    found.push_back(look_at_root("state root", paths_state_root(), R_OK | W_OK | X_OK));
    found.push_back(look_at_database());
    found.push_back(look_at_sound());
    found.push_back(look_at_arbiter());
    look_at_service(what.service, &found);
    return found;
}
