#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

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
    const struct {
        const char* name;
        const char* cut;
    } cases[] = {{"csm", "csm"},
                 {"signal catcher", "signal catcher"},
                 {"123456789012345", "123456789012345"},
                 {"build_trksession", "build_trksessio"}};
    for (const auto& c : cases) {
        seen_by_thread seen = {};
        pthread_t thread;
        ASSERT_EQ(process_thread_start(c.name, 0, look_around, &seen, &thread), 0);
        void* result = nullptr;
        ASSERT_EQ(pthread_join(thread, &result), 0);
        EXPECT_EQ(result, &seen);
        EXPECT_STREQ(seen.name, c.cut);
        for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
            EXPECT_EQ(sigismember(&seen.mask, signal), 1) << signal;
        }
        EXPECT_EQ(sigismember(&seen.mask, SIGUSR1), 0);
    }
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

/* What the child looks like after procmgr_daemon, written to `report`, a descriptor below 3. */
[[noreturn]] void daemon_report(int report, uint32_t flags) {
    dup2(report, 1);
    const int extra = open("/dev/null", O_RDONLY);
    umask(022);
    if (procmgr_daemon(7, flags) != 0) {
        _exit(99);
    }
    char link[64] = "";
    const ssize_t length = readlink("/proc/self/fd/0", link, sizeof link - 1);
    link[length > 0 ? length : 0] = '\0';
    char directory[512] = "";
    dprintf(1, "%d %d %s %s %03o", getsid(0) == getpid(), fcntl(extra, F_GETFD) >= 0,
            strcmp(link, "/dev/null") == 0 ? "null" : "other",
            getcwd(directory, sizeof directory) != nullptr && strcmp(directory, "/") == 0
                ? "/"
                : "elsewhere",
            umask(0));
    _exit(0);
}

std::string report_of_daemon(uint32_t flags, int* status) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t parent = fork();
    if (parent == 0) {
        close(ends[0]);
        const int file =
            open("/", O_RDONLY | O_DIRECTORY); /* something else than the null device */
        dup2(file, 0);
        daemon_report(ends[1], flags);
    }
    close(ends[1]);
    std::string report;
    char byte = 0;
    while (read(ends[0], &byte, 1) == 1) {
        report += byte;
    }
    close(ends[0]);
    int wait_status = 0;
    waitpid(parent, &wait_status, 0);
    *status = WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : -1;
    return report;
}

TEST(process, the_daemon_keeps_what_its_flags_say) {
    const struct {
        uint32_t flags;
        const char* report;
    } cases[] = {
        {PROCMGR_DAEMON_NODEVNULL, "1 0 other / 000"},
        {PROCMGR_DAEMON_NODEVNULL | PROCMGR_DAEMON_NOCHDIR, "1 0 other elsewhere 000"},
        {PROCMGR_DAEMON_NODEVNULL | PROCMGR_DAEMON_NOCLOSE, "1 1 other / 000"},
        {PROCMGR_DAEMON_NODEVNULL | PROCMGR_DAEMON_KEEPUMASK, "1 0 other / 022"},
        {0, ""}, /* the report went to the null device */
    };
    for (const auto& c : cases) {
        int status = 0;
        EXPECT_EQ(report_of_daemon(c.flags, &status), c.report);
        EXPECT_EQ(status, 7);
    }
}

TEST(process, missing_standard_descriptors_are_filled) {
    EXPECT_EXIT(
        {
            close(0);
            close(1);
            const bool filled = process_fill_standard_descriptors() == 0 &&
                                fcntl(0, F_GETFD) == 0 && fcntl(1, F_GETFD) == 0;
            const int next = open("/dev/null", O_RDONLY);
            _exit(filled && next > 2 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(process, priorities_map_to_nice_values) {
    /* Only lowering is open to everybody. */
    EXPECT_EXIT(
        {
            const int before = getpriority(PRIO_PROCESS, 0);
            const bool lowered = setprio(0, PROCESS_PRIORITY_ORDINARY - 19) == 0 &&
                                 getpriority(PRIO_PROCESS, 0) == 19;
            const bool bounded = setprio(0, INT32_MIN) == 0 && getpriority(PRIO_PROCESS, 0) == 19;
            _exit(before <= 19 && lowered && bounded ? 0 : 1);
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
