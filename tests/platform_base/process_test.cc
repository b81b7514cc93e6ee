#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <filesystem>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <veloran/process.h>

namespace {

struct seen_by_thread {
    char name[16];
    sigset_t mask;
};

void* look_around(void* argument) {
    seen_by_thread* seen = static_cast<seen_by_thread*>(argument);
    pthread_getname_np(pthread_self(), seen->name, sizeof seen->name);
    pthread_sigmask(SIG_SETMASK, nullptr, &seen->mask);
    return argument;
}

TEST(process, threads_have_cut_names_and_never_take_a_termination_signal) {
    seen_by_thread seen = {};
    pthread_t thread;
    ASSERT_EQ(process_thread_start("build_trksession", 0, look_around, &seen, &thread), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, &seen);
    EXPECT_STREQ(seen.name, "build_trksessio");
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
        EXPECT_EQ(sigismember(&seen.mask, signal), 1) << signal;
    }
    EXPECT_EQ(sigismember(&seen.mask, SIGUSR1), 0);
    sigset_t own;
    pthread_sigmask(SIG_SETMASK, nullptr, &own);
    EXPECT_EQ(sigismember(&own, SIGTERM), 0) << "the creator's mask is untouched";
}

TEST(process, termination_signals_wait_while_they_are_blocked) {
    EXPECT_EXIT(
        {
            sigset_t earlier;
            process_block_termination(&earlier);
            raise(SIGTERM);
            fprintf(stderr, "still here\n");
            process_restore_signals(&earlier);
            _exit(0);
        },
        testing::KilledBySignal(SIGTERM), "still here");
}

/* What the child looks like after procmgr_daemon, written to `report`. */
[[noreturn]] void daemon_report(int report, uint32_t flags) {
    dup2(report, 1);
    dup2(open("/etc", O_RDONLY | O_DIRECTORY), 0);
    const int extra = open("/dev/null", O_RDONLY);
    umask(022);
    if (procmgr_daemon(7, flags) != 0) {
        _exit(99);
    }
    std::error_code error;
    dprintf(1, "%s %s %s%s %03o", getsid(0) == getpid() ? "leader" : "",
            fcntl(extra, F_GETFD) >= 0 ? "open" : "closed",
            std::filesystem::current_path(error) == "/" ? "/ " : "",
            std::filesystem::read_symlink("/proc/self/fd/0", error).c_str(), umask(0));
    _exit(0);
}

TEST(process, the_daemon_keeps_what_its_flags_say) {
    const struct {
        uint32_t flags;
        const char* report;
    } cases[] = {
        {PROCMGR_DAEMON_NODEVNULL, "leader closed / /etc 000"},
        {PROCMGR_DAEMON_NODEVNULL | PROCMGR_DAEMON_NOCHDIR, "leader closed /etc 000"},
        {PROCMGR_DAEMON_NODEVNULL | PROCMGR_DAEMON_NOCLOSE, "leader open / /etc 000"},
        {PROCMGR_DAEMON_NODEVNULL | PROCMGR_DAEMON_KEEPUMASK, "leader closed / /etc 022"},
        {0, ""}, /* the report went to the null device */
    };
    for (const auto& c : cases) {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        const pid_t parent = fork();
        if (parent == 0) {
            daemon_report(ends[1], c.flags);
        }
        close(ends[1]);
        char report[64] = "";
        size_t length = 0;
        ssize_t got = 0;
        while ((got = read(ends[0], report + length, sizeof report - 1 - length)) > 0) {
            length += static_cast<size_t>(got);
        }
        close(ends[0]);
        int status = 0;
        waitpid(parent, &status, 0);
        EXPECT_STREQ(report, c.report);
        EXPECT_EQ(status, W_EXITCODE(7, 0));
    }
}

TEST(process, priorities_map_to_nice_values) {
    /* Only lowering is open to everybody. */
    EXPECT_EXIT(
        {
            const bool lowered = setprio(0, PROCESS_PRIORITY_ORDINARY - 19) == 0 &&
                                 getpriority(PRIO_PROCESS, 0) == 19;
            const bool bounded = setprio(0, INT32_MIN) == 0 && getpriority(PRIO_PROCESS, 0) == 19;
            _exit(lowered && bounded ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(process, the_end_flushes_and_runs_nothing) {
    EXPECT_EXIT(
        {
            atexit([] { fprintf(stderr, "handler"); });
            setvbuf(stdout, nullptr, _IOFBF, 4096);
            dup2(2, 1);
            printf("flushed");
            process_end(3);
        },
        testing::ExitedWithCode(3), "^flushed$");
}

} // namespace
