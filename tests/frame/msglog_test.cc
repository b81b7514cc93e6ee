#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>

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
        msglog(4, "end%s\n", "\n\x9b\u202e");
        msglog(4, "lines:\n%s", "one\ntwo\x1b");
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
    EXPECT_EQ(outcome.err, prefix + "100%s\\n\xff\n" + prefix + "end\\n\\x9b\\u{202e}\n\n" +
                               prefix + "lines:\none\ntwo\\x1b\n" + prefix + cut + "\n" +
                               std::string(1023, 'n') + "\n" + std::string(1021, 'n') + ": \n");
    EXPECT_EQ(outcome.log, "4 100%s\\n\xff\n4 end\\n\\x9b\\u{202e}\\n\n"
                           "4 lines:\\none\\ntwo\\x1b\n4 " +
                               cut + "\n");
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

/* Neither a reader that is missing nor a thread that keeps the stream stops the log or the end. */
TEST(msglog, a_standard_output_that_takes_nothing_does_not_stop_anything) {
    for (const bool locked : {false, true}) {
        const child_outcome outcome = child_run([locked] {
            alarm(60);
            int ends[2];
            const std::string page(4096, 'x');
            if (pipe(ends) != 0 || fcntl(ends[1], F_SETPIPE_SZ, 4096) != 4096 ||
                write(ends[1], page.data(), page.size()) != 4096) {
                _exit(3);
            }
            dup2(ends[1], STDOUT_FILENO);
            setvbuf(stdout, nullptr, _IOFBF, 4096);
            printf("buffered");
            if (locked) {
                std::thread([] { flockfile(stdout); }).join();
            }
            msglog(4, "text");
            msglog(2, "the end");
        });
        EXPECT_EQ(outcome.exit_status, 1) << locked;
        EXPECT_EQ(outcome.log, "4 text\n2 the end\n") << locked;
    }
}

/* What one user's requests write is bounded, and what was left out is told; the lines of others and
 * of the end are not touched. */
TEST(msglog, a_flood_is_cut_off_and_told) {
    constexpr int LINES = 100000;
    const child_outcome outcome = child_run([] {
        alarm(60);
        msglog_set_client(7);
        for (int i = 0; i < LINES; i++) {
            msglog(4, "flood");
        }
        msglog_set_client(8);
        msglog(4, "other user");
        msglog_set_client(MSGLOG_NO_CLIENT);
        msglog(4, "no client");
        const std::string log = getenv("VELORAN_SLOG") + strlen("file:");
        while (read_whole_file(log).find(" of user 7 left out: ") == std::string::npos) {
            msglog_set_client(MSGLOG_NO_CLIENT);
        }
        msglog_set_client(7);
        for (int i = 0; i < LINES; i++) {
            msglog(4, "flood");
        }
        msglog(2, "the end");
    });
    EXPECT_EQ(outcome.exit_status, 1);
    std::istringstream lines(outcome.log);
    int written = 0;
    int left_out = 0;
    std::string rest;
    for (std::string line; std::getline(lines, line);) {
        if (line == "4 flood") {
            written++;
        } else if (line.find(" log lines of user 7 left out: more than 1000 in a second") !=
                   std::string::npos) {
            left_out += std::stoi(line.substr(2));
        } else {
            rest += line + "\n";
        }
    }
    EXPECT_EQ(rest, "4 other user\n4 no client\n2 the end\n");
    EXPECT_GE(written, 2000);
    EXPECT_LT(written, 2 * LINES);
    EXPECT_GE(left_out, 1);
    EXPECT_LE(written + left_out, 2 * LINES); /* the last second is not told */
    EXPECT_GE(written + left_out, LINES);
}

} // namespace
