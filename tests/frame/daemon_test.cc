/* The service as a process: how it starts, what it says, how it ends. */
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "child_run.h"
#include "daemon.h"

namespace fs = std::filesystem;

namespace {

/* Becomes the service, with a runtime root of its own below `root`. The log goes where the
 * environment says. */
void become_service(const std::string& root, std::vector<std::string> arguments) {
    setenv("VELORAN_RUN", (root + "/run").c_str(), 1);
    setenv("VELORAN_STATE", (root + "/state").c_str(), 1);
    setenv("XDG_CACHE_HOME", (root + "/cache").c_str(), 1);
    std::vector<char*> pointers = {const_cast<char*>("lyrane")};
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    execv(LYRANE_EXECUTABLE, pointers.data());
    _exit(127);
}

child_outcome run_service(const std::vector<std::string>& arguments) {
    return child_run([&] { become_service(scratch_folder(), arguments); }, "lyrane");
}

test_daemon new_daemon(const std::vector<std::string>& options = {}) {
    test_daemon daemon;
    daemon.own_root = true;
    daemon.options = options;
    daemon_prepare(daemon);
    return daemon;
}

std::string status_field(pid_t pid, const std::string& field) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(field + ":\t", 0) == 0) {
            return line.substr(field.size() + 2);
        }
    }
    return "";
}

TEST(start, errors_end_it_with_their_line) {
    const std::string none = scratch_folder() + "/none.cfg";
    const std::string broken = scratch_file("broken.cfg", "{");
    const struct {
        std::vector<std::string> arguments;
        int exit_status; /* -1: aborted */
        std::string last_line;
    } cases[] = {
        {{"-b", "-P", "x"}, 1, "2 invalid value for priority ('-P') option\n"},
        {{"-b", "-c", none}, 1, "2 Cannot load configuration file\n"},
        {{"-b", "-vv", "-c", none}, 1, "2 Cannot load configuration file\n"},
        {{"-b", "-v", "-c", none}, 1, ""},
        {{"-b", "-c", broken}, 1, "2 pps decoder parse json failed: 2\\x0A{\n"},
        {{"-b", "-s", "a/b", "-c", broken}, -1, "(Invalid argument)\n"},
    };
    for (const auto& c : cases) {
        const child_outcome outcome = run_service(c.arguments);
        const std::string name = c.arguments.back();
        EXPECT_EQ(outcome.exit_status, c.exit_status) << name;
        EXPECT_EQ(outcome.signal, c.exit_status < 0 ? SIGABRT : 0) << name;
        ASSERT_GE(outcome.log.size(), c.last_line.size()) << name;
        EXPECT_EQ(outcome.log.substr(outcome.log.size() - c.last_line.size()), c.last_line);
        const std::string notice = "4 lyrane initializing\n";
        EXPECT_EQ(outcome.log.find(notice) != std::string::npos,
                  c.arguments[1][1] != 'v' && c.arguments[1] != "-P")
            << outcome.log;
    }
}

TEST(start, an_unusable_root_is_named) {
    const std::string file = scratch_file("not-a-folder", "");
    const child_outcome outcome = child_run([&] { become_service(file, {"-b"}); }, "lyrane");
    EXPECT_EQ(outcome.exit_status, 1);
    EXPECT_EQ(outcome.log, "4 lyrane initializing\n2 cannot use the directory \"" + file +
                               "/run\" (Not a directory)\n");
}

TEST(serve, steps_its_level_and_ends_in_order) {
    test_daemon daemon = new_daemon();
    ASSERT_TRUE(daemon_start(daemon));
    for (const int level : {5, 6, 7, 0, 1, 2, 3, 4}) {
        const size_t from = daemon_log_mark(daemon);
        daemon_signal(daemon, SIGUSR1);
        ASSERT_TRUE(daemon_await_log(
            daemon, "5 lyrane INFO: verbosity now " + std::to_string(level) + "\n", from));
    }
    EXPECT_TRUE(fs::is_socket(daemon_path(daemon, "/sys/csm/lyrane.sys/default")));
    const size_t from = daemon_log_mark(daemon);
    for (const int signal : {SIGTERM, SIGINT, SIGQUIT}) {
        daemon_signal(daemon, signal);
    }
    EXPECT_EQ(daemon_wait(daemon), 0);
    std::string log = daemon_log(daemon).substr(from);
    const std::string notice = "4 lyrane: NOTICE: termination signal received\n";
    EXPECT_EQ(log.rfind(notice, 0), 0u);
    for (size_t at = 0; (at = log.find(notice)) != std::string::npos;) {
        log.erase(at, notice.size());
    }
    EXPECT_EQ(log, "4 lyrane: lyrane terminating ...\n4 lyrane: lyrane terminated\n");
    EXPECT_FALSE(fs::exists(daemon_path(daemon, "/sys/csm/lyrane.sys/default")));
    daemon_remove(daemon);
}

TEST(serve, signals_during_the_start) {
    /* The start waits in the configuration, a pipe that has no writer yet. */
    test_daemon daemon = new_daemon();
    const std::string pipe = daemon.root + "/pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    daemon.options = {"-c", pipe};
    ASSERT_TRUE(daemon_spawn(daemon));
    ASSERT_TRUE(daemon_await_log(daemon, "lyrane initializing"));
    daemon_signal(daemon, SIGUSR1); /* waits for its handler */
    std::ofstream(pipe) << read_whole_file(daemon.root + "/lyrane.cfg");
    ASSERT_TRUE(daemon_await_log(daemon, "lyrane starting"));
    EXPECT_NE(daemon_log(daemon).find("verbosity now 5"), std::string::npos);
    EXPECT_EQ(daemon_stop(daemon), 0);

    const size_t from = daemon_log_mark(daemon);
    ASSERT_TRUE(daemon_spawn(daemon));
    ASSERT_TRUE(daemon_await_log(daemon, "lyrane initializing", from));
    EXPECT_EQ(daemon_stop(daemon), 128 + SIGTERM) << "too early for an orderly end";
    daemon_remove(daemon);
}

/* Starts the service detached; it becomes a child of this process when its parent has left. */
pid_t detach_service(const std::string& root, const std::vector<std::string>& arguments) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const child_outcome parent = child_run(
        [&] {
            setenv("VELORAN_SLOG", ("file:" + root + "/log").c_str(), 1);
            close(0);
            signal(SIGTERM, SIG_IGN); /* as below a shell that ignores it */
            become_service(root, arguments);
        },
        "lyrane");
    EXPECT_EQ(parent.exit_status, 0);
    EXPECT_EQ(parent.err, "");
    std::ifstream children("/proc/self/task/" + std::to_string(getpid()) + "/children");
    pid_t pid = -1;
    children >> pid;
    return pid;
}

TEST(serve, in_the_background_by_itself) {
    test_daemon daemon = new_daemon({"-vvvvvvv"});
    ASSERT_TRUE(daemon_start(daemon)); /* writes the configuration */
    EXPECT_NE(daemon_log(daemon).find("7 lyrane: config:"), std::string::npos);
    EXPECT_EQ(daemon_stop(daemon), 0);
    const size_t from = daemon_log_mark(daemon);
    daemon.pid = detach_service(daemon.root, {"-c", daemon.root + "/lyrane.cfg", "-P", "9"});
    ASSERT_GT(daemon.pid, 0);
    daemon.pidfd = static_cast<int>(syscall(SYS_pidfd_open, daemon.pid, 0));
    ASSERT_TRUE(daemon_await_log(daemon, "lyrane starting", from));
    EXPECT_EQ(getsid(daemon.pid), daemon.pid);
    EXPECT_EQ(status_field(daemon.pid, "Umask"), "0000");
    const std::string proc = "/proc/" + std::to_string(daemon.pid);
    EXPECT_EQ(fs::read_symlink(proc + "/cwd"), fs::current_path());
    EXPECT_EQ(fs::read_symlink(proc + "/fd/0"), "/dev/null") << "it was closed";
    EXPECT_EQ(daemon_stop(daemon), 0);
    daemon_remove(daemon);
}

TEST(serve, as_another_user) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    const struct {
        const char* user;
        const char* uids;
        const char* groups;
    } cases[] = {
        {"12345:12346,12347", "12345\t12345\t12345\t12345", "12346 12347 "},
        {" daemon ", "1\t1\t1\t1", "1 "},
    };
    for (const auto& c : cases) {
        test_daemon daemon = new_daemon({"-U", c.user});
        chmod(fs::path(daemon.root).parent_path().c_str(), 0755);
        fs::remove(daemon.run); /* the service makes its own */
        for (int round = 0; round < 2; round++) {
            ASSERT_TRUE(daemon_start(daemon)) << c.user;
            for (const auto& task :
                 fs::directory_iterator("/proc/" + std::to_string(daemon.pid) + "/task")) {
                const pid_t id = std::stoi(task.path().filename());
                EXPECT_EQ(status_field(id, "Uid"), c.uids);
                EXPECT_EQ(status_field(id, "Groups"), c.groups);
            }
            EXPECT_EQ(daemon_stop(daemon), 0);
            EXPECT_FALSE(fs::exists(daemon_path(daemon, "/sys/csm/lyrane.sys/default")))
                << "its socket is its own to remove";
            fs::resize_file(daemon.root + "/log", 0);
        }
        daemon_remove(daemon);
    }
}

} // namespace
