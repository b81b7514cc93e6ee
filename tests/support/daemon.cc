#include "daemon.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string_view>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <veloran/lock.h>

#include "program.h"

namespace fs = std::filesystem;

namespace {

using steady = std::chrono::steady_clock;

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string json_text(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        out += c == '"' || c == '\\' || c == '\n' ? "\\" : "";
        out += c == '\n' ? 'n' : c;
    }
    return out + '"';
}

/* The folder of this test program, with its runtime root; made once and removed at the end. */
const std::string& program_root() {
    static const std::string root = [] {
        std::string name = fs::temp_directory_path() / "lyrane-XXXXXX";
        const std::string made = mkdtemp(name.data());
        setenv("VELORAN_RUN", (made + "/run").c_str(), 1);
        setenv("VELORAN_STATE", (made + "/state").c_str(), 1);
        setenv("XDG_CACHE_HOME", (made + "/cache").c_str(), 1);
        static std::string to_remove = made;
        std::atexit([] {
            std::error_code ignored;
            fs::remove_all(to_remove, ignored);
        });
        return made;
    }();
    return root;
}

std::string library_of(const test_daemon& daemon, const daemon_plugin& plugin) {
    return plugin.library.empty() ? daemon.root + '/' + plugin.name + ".so" : plugin.library;
}

void write_configuration(const test_daemon& daemon) {
    std::ofstream file(daemon.root + "/lyrane.cfg");
    file << "{\n\"player\": {\n";
    const char* comma = "";
    for (const auto& [key, value] : daemon.player) {
        file << comma << json_text(key) << ": " << json_text(value);
        comma = ",\n";
    }
    if (!daemon.lastmode.empty()) {
        file << comma << "\"lastmode_audio\": " << daemon.lastmode;
    }
    file << "},\n";
    if (!daemon.limits.empty()) {
        file << "\"limits\": " << daemon.limits << ",\n";
    }
    file << "\"plugins\": {\n";
    comma = "";
    for (const daemon_plugin& plugin : daemon.plugins) {
        file << comma << json_text(library_of(daemon, plugin))
             << ": {\n\"control\": " << json_text(daemon.root + '/' + plugin.name + ".ctl")
             << ",\n\"script\": " << json_text(plugin.script);
        for (const auto& [key, value] : plugin.settings) {
            file << ",\n" << json_text(key) << ": " << json_text(value);
        }
        file << "}";
        comma = ",\n";
    }
    file << "}}\n";
}

std::vector<std::string> environment_of(const test_daemon& daemon) {
    std::vector<std::string> variables;
    for (char** at = environ; *at != nullptr; ++at) {
        if (!std::string_view(*at).starts_with("VELORAN_")) {
            variables.push_back(*at);
        }
    }
    variables.insert(variables.end(),
                     {"VELORAN_RUN=" + daemon.run, "VELORAN_STATE=" + daemon.root + "/state",
                      "VELORAN_SLOG=file:" + daemon.root + "/log",
                      "VELORAN_SQLDB_DEFAULTS=/nonexistent"});
    if (!daemon.umask.empty()) {
        variables.push_back("VELORAN_UMASK=" + daemon.umask);
    }
    return variables;
}

/* In the child: becomes the service. */
[[noreturn]] void become(const test_daemon& daemon, char** arguments, char** variables,
                         int errors) {
    dup2(errors, STDERR_FILENO);
    dup2(daemon.standard_output >= 0 ? daemon.standard_output : errors, STDOUT_FILENO);
    if (daemon.descriptor_limit > 0) {
        const rlimit limit = {static_cast<rlim_t>(daemon.descriptor_limit),
                              static_cast<rlim_t>(daemon.descriptor_limit)};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    execve(arguments[0], arguments, variables);
    _exit(127);
}

bool has_ended(const test_daemon& daemon) {
    pollfd ended = {daemon.pidfd, POLLIN, 0};
    return daemon.pidfd < 0 || poll(&ended, 1, 0) != 0;
}

void fail(const test_daemon& daemon, const std::string& what) {
    const std::string log = daemon_log(daemon);
    ADD_FAILURE() << what << (has_ended(daemon) ? " (the daemon has ended)" : "") << "\n--- log\n"
                  << log.substr(log.size() > 8000 ? log.size() - 8000 : 0) << "--- standard error\n"
                  << read_file(daemon.root + "/err").substr(0, 8000);
}

/* The nearest folder above a path that exists. */
std::string existing_folder(std::string path) {
    do {
        path = fs::path(path).parent_path();
    } while (!fs::exists(path));
    return path;
}

/* Waits until `done` holds, looking again whenever something below the watched path changes. False
 * at the limit, or when the daemon ended and it still does not hold. */
bool await_change(const test_daemon& daemon, const std::string& path,
                  const std::function<bool()>& done) {
    const auto until = steady::now() + std::chrono::milliseconds(DAEMON_LIMIT);
    while (true) {
        const vel_fd watch(inotify_init1(IN_CLOEXEC));
        const std::string folder = existing_folder(path);
        inotify_add_watch(watch.value, folder.c_str(),
                          IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_DELETE_SELF |
                              IN_MOVED_FROM);
        const bool ended = has_ended(daemon);
        if (done()) {
            return true;
        }
        if (folder != existing_folder(path)) {
            continue;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - steady::now());
        pollfd descriptors[2] = {{watch.value, POLLIN, 0}, {daemon.pidfd, POLLIN, 0}};
        if (ended || left.count() <= 0 ||
            poll(descriptors, 2, static_cast<int>(left.count())) < 0) {
            return false;
        }
    }
}

int64_t entries_of(const test_daemon& daemon, const char* folder) {
    std::error_code error;
    return std::distance(
        fs::directory_iterator("/proc/" + std::to_string(daemon.pid) + '/' + folder, error), {});
}

std::string object_path(const test_daemon& daemon, const std::string& player,
                        const std::string& object) {
    return daemon_path(daemon, "/pps/services/lyrane/" + player + '/' + object);
}

} // namespace

void daemon_prepare(test_daemon& daemon) {
    static int number = 0;
    daemon.root = program_root() + "/d" + std::to_string(number++);
    daemon.run = daemon.own_root ? daemon.root + "/run" : program_root() + "/run";
    fs::create_directories(daemon.root);
    fs::create_directories(daemon.run);
    std::ofstream(daemon.root + "/log");
}

bool daemon_spawn(test_daemon& daemon) {
    for (const daemon_plugin& plugin : daemon.plugins) {
        if (!plugin.missing && plugin.library.empty()) {
            fs::copy_file(FAKE_LIBRARY, library_of(daemon, plugin),
                          fs::copy_options::overwrite_existing);
        }
    }
    write_configuration(daemon);
    std::vector<std::string> arguments = {LYRANE_EXECUTABLE,           "-b", "-c",
                                          daemon.root + "/lyrane.cfg", "-s", daemon.service};
    arguments.insert(arguments.end(), daemon.options.begin(), daemon.options.end());
    std::vector<std::string> variables = environment_of(daemon);
    std::vector<char*> argument_pointers = program_pointers(arguments);
    std::vector<char*> variable_pointers = program_pointers(variables);
    const vel_fd errors(
        open((daemon.root + "/err").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    daemon.pid = fork();
    if (daemon.pid == 0) {
        become(daemon, argument_pointers.data(), variable_pointers.data(), errors.value);
    }
    daemon.pidfd = static_cast<int>(syscall(SYS_pidfd_open, daemon.pid, 0));
    return daemon.pid > 0 && daemon.pidfd >= 0;
}

bool daemon_start(test_daemon& daemon) {
    const size_t from = daemon_log_mark(daemon);
    return daemon_spawn(daemon) && daemon_await_log(daemon, "lyrane starting", from);
}

int daemon_wait(test_daemon& daemon) {
    pollfd ended = {daemon.pidfd, POLLIN, 0};
    if (poll(&ended, 1, static_cast<int>(DAEMON_LIMIT)) != 1) {
        fail(daemon, "the daemon does not end");
        return -1;
    }
    int status = 0;
    waitpid(daemon.pid, &status, 0);
    close(daemon.pidfd);
    daemon.pidfd = -1;
    daemon.pid = -1;
    const int result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    const std::string errors = read_file(daemon.root + "/err");
    if (errors.find("Sanitizer") != std::string::npos ||
        errors.find("runtime error") != std::string::npos) {
        fail(daemon, "a sanitizer complains");
    } else if (errors.find("fake.so: violation") != std::string::npos) {
        fail(daemon, "the plug-in was used against its rules");
    }
    return result;
}

int daemon_stop(test_daemon& daemon) {
    daemon_signal(daemon, SIGTERM);
    return daemon_wait(daemon);
}

void daemon_signal(const test_daemon& daemon, int signal) {
    if (daemon.pid > 0) { /* else it has ended */
        kill(daemon.pid, signal);
    }
}

void daemon_remove(test_daemon& daemon) {
    if (daemon.pid > 0) {
        daemon_signal(daemon, SIGKILL);
        waitpid(daemon.pid, nullptr, 0);
        close(daemon.pidfd);
    }
    std::error_code ignored;
    fs::remove_all(daemon.root, ignored);
    fs::remove_all(daemon.run, ignored);
    daemon = {};
}

fake_client daemon_fake(const test_daemon& daemon, const std::string& name) {
    fake_client client;
    if (!fake_connect(client, daemon.root + '/' + name + ".ctl")) {
        fail(daemon, "no plug-in " + name);
    }
    return client;
}

std::string daemon_log(const test_daemon& daemon) {
    return read_file(daemon.root + "/log");
}

size_t daemon_log_mark(const test_daemon& daemon) {
    std::error_code error;
    const uintmax_t size = fs::file_size(daemon.root + "/log", error);
    return error ? 0 : static_cast<size_t>(size);
}

bool daemon_await_log(const test_daemon& daemon, const std::string& text, size_t from) {
    const auto said = [&] { return daemon_log(daemon).find(text, from) != std::string::npos; };
    if (!await_change(daemon, daemon.root + "/log", said)) {
        fail(daemon, "not in the log: " + text);
        return false;
    }
    return true;
}

std::string daemon_path(const test_daemon& daemon, const std::string& path) {
    return daemon.run + path;
}

std::map<std::string, std::string>
daemon_object(const test_daemon& daemon, const std::string& player, const std::string& object) {
    std::map<std::string, std::string> attributes;
    std::ifstream lines(object_path(daemon, player, object));
    for (std::string line; std::getline(lines, line);) {
        const size_t colon = line.find(':');
        if (colon != std::string::npos) {
            attributes[line.substr(0, colon)] = line.substr(colon);
        }
    }
    return attributes;
}

bool daemon_await_object(const test_daemon& daemon, const std::string& player,
                         const std::string& object, const std::string& attribute,
                         const std::string& value) {
    const auto published = [&] {
        const auto attributes = daemon_object(daemon, player, object);
        const auto found = attributes.find(attribute);
        return found == attributes.end() ? value.empty() : found->second == value;
    };
    const std::string path = object_path(daemon, player, object);
    if (!await_change(daemon, path, published)) {
        fail(daemon, player + '/' + object + ": " + attribute + " is not " + value + " in\n" +
                         read_file(path));
        return false;
    }
    return true;
}

int64_t daemon_descriptors(const test_daemon& daemon) {
    return entries_of(daemon, "fd");
}

int64_t daemon_threads(const test_daemon& daemon) {
    return entries_of(daemon, "task");
}

int64_t daemon_resident(const test_daemon& daemon) {
    static constexpr std::string_view NAME = "VmRSS:";
    const std::string status = read_file("/proc/" + std::to_string(daemon.pid) + "/status");
    const size_t at = status.find(NAME);
    return at == std::string::npos ? -1 : std::atoll(status.c_str() + at + NAME.size());
}

int64_t daemon_settle(const test_daemon& daemon, int64_t (*count)(const test_daemon&),
                      int64_t most) {
    /* Nothing tells of another process's descriptors and threads, so this one looks again. */
    const auto until = steady::now() + std::chrono::milliseconds(DAEMON_LIMIT);
    int64_t value = count(daemon);
    while (value > most && steady::now() < until && !has_ended(daemon)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        value = count(daemon);
    }
    return value;
}
