#include "child_run.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <veloran/slog.h>

#include "msglog.h"

namespace fs = std::filesystem;

std::string scratch_folder() {
    static const struct holder {
        holder() : path(fs::temp_directory_path() / "frame-XXXXXX"), owner(getpid()) {
            if (mkdtemp(path.data()) == nullptr) {
                abort();
            }
        }
        ~holder() {
            if (getpid() == owner) {
                fs::remove_all(path);
            }
        }
        std::string path;
        pid_t owner;
    } folder;
    return folder.path;
}

std::string scratch_file(const std::string& name, const std::string& content) {
    const std::string path = scratch_folder() + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

std::string read_whole_file(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

/* "4 program: text" becomes "4 text". */
static std::string without_program(const std::string& log) {
    const std::string prefix = std::string(" ") + msglog_program() + ": ";
    std::istringstream lines(log);
    std::string result;
    for (std::string line; std::getline(lines, line);) {
        EXPECT_EQ(line.find(prefix), 1u) << line;
        result += line.substr(0, 2) + line.substr(1 + prefix.size()) + "\n";
    }
    return result;
}

child_outcome child_run(const std::function<void()>& body) {
    static std::atomic<int> serial{0};
    const std::string base = scratch_folder() + "/child" + std::to_string(serial++);
    fflush(nullptr); /* else the child writes it too */
    const pid_t child = fork();
    if (child == 0) {
        const int err = open((base + ".err").c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
        dup2(err, STDERR_FILENO);
        setenv("VELORAN_SLOG", ("file:" + base + ".log").c_str(), 1);
        slog_open(msglog_program());
        body();
        _exit(0);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
            WIFSIGNALED(status) ? WTERMSIG(status) : 0,
            without_program(read_whole_file(base + ".log")), read_whole_file(base + ".err")};
}
