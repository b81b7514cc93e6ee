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
        std::vector<std::string> options;
        const char* run; /* its runtime root, below its folder */
        int status;
        std::string last_line;
    } cases[] = {
        {{"-c", none}, "/run", 1, "2 lyrane: Cannot load configuration file\n"},
        {{"-v", "-c", none}, "/run", 1, ""},
        {{"-c", broken}, "/run", 1, "2 lyrane: pps decoder parse json failed: 2\\n{\n"},
        {{"-s", "a/b", "-c", broken}, "/run", 128 + SIGABRT, "(Invalid argument)\n"},
        {{}, "/log/run", 1, "/log/run\" (Not a directory)\n"}, /* below a file */
    };
    for (const auto& c : cases) {
        test_daemon daemon = new_daemon(c.options);
        daemon.run = daemon.root + c.run;
        daemon_spawn(daemon);
        EXPECT_EQ(daemon_wait(daemon), c.status) << c.last_line;
        const std::string log = daemon_log(daemon);
        EXPECT_TRUE(log.ends_with(c.last_line)) << log;
        EXPECT_EQ(log.find("lyrane initializing") == std::string::npos, c.last_line.empty()) << log;
        daemon_remove(daemon);
    }
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
    const size_t from = daemon_log_mark(daemon);
    EXPECT_EQ(daemon_stop(daemon), 0);
    EXPECT_EQ(daemon_log(daemon).substr(from),
              "4 lyrane: NOTICE: termination signal received\n"
              "4 lyrane: lyrane terminating ...\n4 lyrane: lyrane terminated\n");
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
pid_t detach_service(const test_daemon& daemon) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const child_outcome parent = child_run([&daemon] {
        setenv("VELORAN_RUN", daemon.run.c_str(), 1);
        setenv("VELORAN_STATE", (daemon.root + "/state").c_str(), 1);
        setenv("VELORAN_SLOG", ("file:" + daemon.root + "/log").c_str(), 1);
        close(0);
        signal(SIGTERM, SIG_IGN); /* as below a shell that ignores it */
        const std::string config = daemon.root + "/lyrane.cfg";
        execl(LYRANE_EXECUTABLE, "lyrane", "-c", config.c_str(), "-P", "9", nullptr);
    });
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
    daemon.pid = detach_service(daemon);
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
