#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <veloran/slog.h>

namespace fs = std::filesystem;

namespace {

struct slog_test : testing::Test {
    slog_test() : folder(fs::temp_directory_path() / "slog-XXXXXX") {
        if (mkdtemp(folder.data()) == nullptr) {
            abort();
        }
    }
    ~slog_test() override {
        slog_close();
        fs::remove_all(folder);
    }
    void open_as(const std::string& sink) {
        setenv("VELORAN_SLOG", sink.c_str(), 1);
        slog_open("tester");
    }
    std::string content() {
        std::ostringstream text;
        text << std::ifstream(folder + "/log").rdbuf();
        return text.str();
    }
    int logger_socket() {
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, (folder + "/log").c_str());
        unlink(address.sun_path);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return fd;
    }
    std::string folder;
};

int32_t say(int32_t severity, const std::string& text) {
    return slogb(0, severity, text.data(), text.size());
}

std::string receive(int fd) {
    char buffer[8192];
    const ssize_t length = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    return length < 0 ? "nothing" : std::string(buffer, static_cast<size_t>(length));
}

TEST_F(slog_test, a_file_gets_one_line_a_message_whatever_the_text_holds) {
    open_as("file:" + folder + "/log");
    EXPECT_EQ(say(4, "plain"), 0);
    slog_close(); /* it opens again on demand */
    EXPECT_EQ(say(2, "forged\n2 line\x1b[0m\x7f\x9b\u0085\u202e\u00e9\xff 100%s"), 0);
    EXPECT_EQ(say(7, std::string(SLOG_TEXT_MAX + 1, '\n')), 0);
    std::string cut;
    for (size_t i = 0; i < SLOG_TEXT_MAX / 2; i++) {
        cut += "\\n";
    }
    EXPECT_EQ(content(), "4 plain\n2 forged\\n2 line\\x1b[0m\\x7f\\x9b\\u{85}\\u{202e}\u00e9\xff"
                         " 100%s\n7 " +
                             cut + "\n");
    struct stat status = {};
    ASSERT_EQ(stat((folder + "/log").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0137, 0u);
}

TEST_F(slog_test, a_line_behind_one_that_a_full_disk_cut_off_begins_anew) {
    open_as("file:" + folder + "/log");
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    const auto earlier = signal(SIGXFSZ, SIG_IGN);
    const rlimit full = {4, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
    EXPECT_EQ(say(4, "first"), -1);
    EXPECT_EQ(say(4, "second"), -1);
    setrlimit(RLIMIT_FSIZE, &limit);
    signal(SIGXFSZ, earlier);
    EXPECT_EQ(say(4, "third"), 0);
    EXPECT_EQ(say(4, "fourth"), 0);
    EXPECT_EQ(content(), "4 fi\n4 third\n4 fourth\n");
}

TEST_F(slog_test, the_logger_gets_its_own_severities) {
    const int fd = logger_socket();
    open_as("unix:" + folder + "/log");
    const std::string front = ">tester[" + std::to_string(getpid()) + "]: tester: a\nb\\x1b";
    const int expected[] = {2, 2, 3, 4, 5, 6, 7, 7, 7};
    for (int32_t severity = 0; severity < 9; severity++) {
        EXPECT_EQ(say(severity, "tester: a\nb\x1b"), 0);
        EXPECT_EQ(receive(fd), "<" + std::to_string(24 + expected[severity]) + front);
    }
    close(fd);
}

TEST_F(slog_test, lines_without_a_reader_are_dropped_and_counted_and_a_new_logger_is_found) {
    open_as("unix:" + folder + "/log");
    const uint64_t before = slog_dropped();
    errno = EDOM;
    EXPECT_EQ(say(4, "nobody"), -1);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(slog_dropped(), before + 1);
    const int first = logger_socket();
    int32_t sent = 0;
    while (say(4, "flood") == 0) { /* until the reader is behind; this must not block */
        sent++;
    }
    EXPECT_GT(sent, 0);
    EXPECT_EQ(slog_dropped(), before + 2);
    close(first);
    const int second = logger_socket();
    EXPECT_EQ(say(4, "again"), 0);
    EXPECT_NE(receive(second).find("again"), std::string::npos);
    close(second);
}

TEST_F(slog_test, sinks_that_are_no_files_take_nothing) {
    ASSERT_EQ(mkfifo((folder + "/pipe").c_str(), 0600), 0);
    const int reader = open((folder + "/pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    for (const std::string& sink :
         {"file:" + folder + "/pipe", "file:" + folder, "file:" + folder + "/no/log",
          "unix:" + folder + "/" + std::string(200, 'x')}) {
        open_as(sink);
        EXPECT_EQ(say(4, "text"), -1) << sink;
    }
    close(reader);
}

void log_from_handler(int) {
    slogb(0, 5, "handler", 7);
}

TEST_F(slog_test, handlers_and_threads_write_at_once_without_waiting_for_each_other) {
    open_as("file:" + folder + "/log");
    struct sigaction action = {};
    action.sa_handler = log_from_handler;
    sigaction(SIGUSR1, &action, nullptr);
    constexpr int ROUNDS = 500;
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < ROUNDS; i++) {
            say(4, "writer");
        }
        done = true;
        while (done) { /* stays for the last signals */
            std::this_thread::yield();
        }
    });
    int sent = 0;
    do {
        pthread_kill(writer.native_handle(), SIGUSR1);
        say(6, "main");
        sent++;
    } while (!done);
    done = false;
    writer.join();
    std::map<std::string, int> lines;
    std::istringstream text(content());
    for (std::string line; std::getline(text, line);) {
        lines[line]++;
    }
    lines.erase("5 handler");
    EXPECT_EQ(lines, (std::map<std::string, int>{{"4 writer", ROUNDS}, {"6 main", sent}}));
}

} // namespace
