#include "program.h"

#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int LIMIT = 300000; /* ms without a word */

/* Reads once from a pipe, or the end of a terminal; at its end, closes it. */
void read_some(int& fd, std::string& text) {
    char bytes[4096];
    const ssize_t got = read(fd, bytes, sizeof bytes);
    if (got > 0) {
        text.append(bytes, static_cast<size_t>(got));
        return;
    }
    close(fd);
    fd = -1;
}

/* Reads from both pipes as soon as one has something; false when there is nothing to wait for. */
bool read_more(program& running) {
    pollfd pipes[] = {{running.out, POLLIN, 0}, {running.err, POLLIN, 0}};
    if ((running.out < 0 && running.err < 0) || poll(pipes, 2, LIMIT) <= 0) {
        return false;
    }
    if (pipes[0].revents != 0) {
        read_some(running.out, running.result.out);
    }
    if (pipes[1].revents != 0) {
        read_some(running.err, running.result.err);
    }
    return true;
}

[[noreturn]] void become(std::vector<std::string> words) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    execv(words[0].c_str(), program_pointers(words).data());
    _exit(127);
}

} // namespace

std::vector<char*> program_pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

program program_start(const std::vector<std::string>& words,
                      const std::map<std::string, std::string>& variables) {
    int out[2];
    int err[2];
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(err, O_CLOEXEC), 0);
    program running;
    running.pid = fork();
    if (running.pid == 0) {
        for (const auto& [name, value] : variables) {
            setenv(name.c_str(), value.c_str(), 1);
        }
        dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        become(words);
    }
    close(out[1]);
    close(err[1]);
    running.out = out[0];
    running.err = err[0];
    return running;
}

program program_start_on_terminal(const std::vector<std::string>& words) {
    const winsize size = {24, 80, 0, 0};
    setenv("TERM", "vt100", 1);
    program running;
    running.pid = forkpty(&running.out, nullptr, nullptr, &size);
    if (running.pid == 0) {
        become(words);
    }
    fcntl(running.out, F_SETFD, FD_CLOEXEC);
    return running;
}

void program_press(const program& running, const std::string& keys) {
    EXPECT_EQ(write(running.out, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
}

bool program_await(program& running, const std::string& text) {
    while (running.result.out.find(text) == std::string::npos &&
           running.result.err.find(text) == std::string::npos) {
        if (!read_more(running)) {
            ADD_FAILURE() << "no \"" << text << "\" in\n"
                          << running.result.out << running.result.err;
            return false;
        }
    }
    return true;
}

program_result program_end(program& running, int signal) {
    if (signal != 0) {
        kill(running.pid, signal);
    }
    while (read_more(running)) {
    }
    int status = 0;
    EXPECT_EQ(waitpid(running.pid, &status, 0), running.pid);
    running.result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return running.result;
}

program_result program_run(const std::vector<std::string>& words) {
    program running = program_start(words);
    return program_end(running);
}
