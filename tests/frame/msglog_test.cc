#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <veloran/slog.h>

#include "child_run.h"
#include "msglog.h"

namespace {

TEST(msglog, the_filter_decides_what_is_written_and_the_level_what_happens) {
    for (const int32_t level : {0, 1, 2, 3, 4, 7, 8}) {
        for (int32_t severity = 1; severity <= 7; severity++) {
            const child_outcome outcome = child_run([&] {
                msglog_set_level(level);
                msglog(severity, "text %d", severity);
            });
            const std::string digit = std::to_string(severity);
            EXPECT_EQ(outcome.log, severity <= level ? digit + " text " + digit + "\n" : "");
            EXPECT_EQ(outcome.signal, severity == 1 ? SIGABRT : 0);
            EXPECT_EQ(outcome.exit_status, severity == 1 ? -1 : severity == 2 ? 1 : 0);
            EXPECT_EQ(outcome.err, "");
        }
    }
}

TEST(msglog, the_echo_is_the_line_of_the_log) {
    const std::string prefix = std::string(msglog_program()) + ": ";
    const child_outcome outcome = child_run([] {
        background = 0;
        msglog(4, "%s", "100%s\n\xff");
        msglog(5, "filtered");
        msglog(4, "%s", std::string(3000, 'x').c_str());
        slog_close();
        setenv("VELORAN_SLOG", "file:/", 1);
        static std::string name(4000, 'n'); /* a program's name of any length fits */
        program_invocation_short_name = name.data();
        msglog(4, "text");
        name.resize(1021);
        msglog(4, "text");
    });
    const std::string cut(static_cast<size_t>(MSGLOG_LINE_SIZE) - 1 - prefix.size(), 'x');
    EXPECT_EQ(outcome.err, prefix + "100%s\n\xff\n" + prefix + cut + "\n" + std::string(1023, 'n') +
                               "\n" + std::string(1021, 'n') + ": \n");
    EXPECT_EQ(outcome.log, "4 100%s\\x0A\xff\n4 " + cut + "\n");
}

TEST(msglog, errno_stays_and_the_standard_output_is_flushed) {
    const child_outcome outcome = child_run([] {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        setvbuf(stdout, nullptr, _IOFBF, 4096);
        printf("buffered");
        errno = EDOM;
        msglog(7, "filtered");
        const bool kept = errno == EDOM;
        msglog(4, "%m");
        _exit(kept && errno == EDOM ? 0 : 1);
    });
    EXPECT_EQ(outcome.exit_status, 0);
    EXPECT_EQ(outcome.err, "buffered");
    EXPECT_EQ(outcome.log, "4 Numerical argument out of domain\n");
}

TEST(msglog, a_standard_error_that_nobody_reads_or_has_does_not_stop_anything) {
    EXPECT_EQ(child_run([] {
                  int ends[2];
                  if (pipe(ends) != 0) {
                      _exit(1);
                  }
                  dup2(ends[1], STDERR_FILENO);
                  background = 0;
                  for (int i = 0; i < 1000; i++) { /* far more than a pipe holds */
                      msglog(4, "%s", std::string(900, 'x').c_str());
                  }
                  signal(SIGPIPE, SIG_IGN);
                  close(ends[0]);
                  msglog(4, "to a closed pipe");
                  close(STDERR_FILENO);
                  msglog(4, "to nothing");
              }).exit_status,
              0);
}

} // namespace
