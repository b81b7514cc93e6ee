#include "runner.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <veloran/lock.h>

#include "check.h"
#include "facts.h"

namespace {

constexpr int SCRIBBLE = 0xA5; /* over memory that is freed */

/* One group that runs. */
struct running {
    pid_t pid = -1;
    vel_fd lines;  /* what it says */
    vel_fd output; /* what it writes */
    check_shared* shared = nullptr;
    std::string rest; /* an unfinished line */
    std::string current;
    bool hung = false;
};

[[noreturn]] void give_up(const char* what) {
    throw std::runtime_error(std::string(what) + ": " + std::system_category().message(errno));
}

[[noreturn]] void run_child(const check_group& group, const host_options& options,
                            const check_channel& channel, int output) {
    (void)dup2(output, STDOUT_FILENO);
    (void)dup2(output, STDERR_FILENO);
    (void)setenv("VELORAN_SLOG", "file:/dev/null", 0);
    (void)mallopt(M_PERTURB, SCRIBBLE);
    check_open(channel);
    try {
        group.run(options);
    } catch (const std::exception& failure) {
        check_fail("the checker itself failed: %s", failure.what());
        check_end();
    }
    exit(0); /* with the leak checks of a sanitizer */
}

void start(running* child, const check_group& group, const host_options& options) {
    int ends[2];
    void* shared = mmap(nullptr, sizeof(check_shared), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED || pipe2(ends, O_CLOEXEC) != 0) {
        give_up("cannot start a check");
    }
    child->shared = new (shared) check_shared{};
    child->lines.value = ends[0];
    child->output.value = memfd_create("output", MFD_CLOEXEC);
    child->pid = child->output.value >= 0 ? fork() : -1;
    if (child->pid == 0) {
        (void)close(ends[0]);
        run_child(group, options, {ends[1], child->shared}, child->output.value);
    }
    (void)close(ends[1]);
    if (child->pid < 0) {
        give_up("cannot start a check");
    }
}

void add_text(check_result* check, const std::string& text) {
    check->text += (check->text.empty() ? "" : "; ") + text;
}

void take_line(running* child, group_result* group, const std::string& line) {
    const std::string text = line.size() > 2 ? line.substr(2) : "";
    if (line[0] == 'X') {
        group->unusable = text;
        child->current.clear();
        return;
    }
    if (line[0] == 'B') {
        child->current = text;
        group->checks.push_back({text, check_state::fine, ""});
        return;
    }
    check_result& check = group->checks.back();
    if (line[0] == 'E') {
        child->current.clear();
    } else if (line[0] == 'F') {
        if (check.state != check_state::failed) {
            check.text.clear();
        }
        check.state = check_state::failed;
        add_text(&check, text);
    } else if (check.state == check_state::fine || line[0] == 'T') {
        check.state = line[0] == 'S' ? check_state::skipped : check.state;
        if (check.state != check_state::failed) {
            add_text(&check, text);
        }
    }
}

/* Reads what the process says until it ends or gives no sign for `limit` seconds. */
void listen(running* child, group_result* group, int32_t limit) {
    for (;;) {
        pollfd end = {child->lines.value, POLLIN, 0};
        const int ready = poll(&end, 1, limit * 1000);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        char part[4096];
        const ssize_t size = ready > 0 ? read(child->lines.value, part, sizeof part) : -1;
        if (size <= 0) {
            child->hung = ready == 0;
            return;
        }
        child->rest.append(part, static_cast<size_t>(size));
        for (size_t end_of_line = 0; (end_of_line = child->rest.find('\n')) != std::string::npos;) {
            take_line(child, group, child->rest.substr(0, end_of_line));
            child->rest.erase(0, end_of_line + 1);
        }
    }
}

/* Waits for the end, at most `limit` seconds; kills it after that. Its wait status. */
int reap(running* child, int32_t limit) {
    int status = 0;
    for (int32_t waited = 0; !child->hung && waited < limit * 100; ++waited) {
        if (waitpid(child->pid, &status, WNOHANG) == child->pid) {
            return status;
        }
        (void)poll(nullptr, 0, 10);
    }
    child->hung = true;
    (void)kill(child->pid, SIGKILL);
    while (waitpid(child->pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

std::string read_output(int file) {
    std::string text;
    char part[4096];
    off_t offset = 0;
    ssize_t size = 0;
    while ((size = pread(file, part, sizeof part, offset)) > 0) {
        text.append(part, static_cast<size_t>(size));
        offset += size;
    }
    return text;
}

/* The line in which a sanitizer or the allocator says what it found; empty when there is none. */
std::string complaint_in(const std::string& output) {
    static const char* const marks[] = {"Sanitizer: ",      "runtime error: ", "free(): ",
                                        "munmap_chunk(): ", "double free",     "corrupt",
                                        "malloc(): "};
    size_t begin = 0;
    while (begin < output.size()) {
        const size_t end = std::min(output.find('\n', begin), output.size());
        const std::string line = output.substr(begin, end - begin);
        for (const char* mark : marks) {
            const size_t at = line.find(mark);
            if (at != std::string::npos) {
                return strcmp(mark, marks[0]) == 0 ? line.substr(line.rfind(' ', at) + 1) : line;
            }
        }
        begin = end + 1;
    }
    return "";
}

/* What the end of the process says about the plug-in; empty: it ended as it should. */
std::string end_text(const running& child, int status, const std::string& output) {
    const char* call = child.shared->call;
    const std::string where = call != nullptr ? std::string(" in ") + call : "";
    const std::string complaint = complaint_in(output);
    const std::string behind = complaint.empty() ? "" : ": " + complaint;
    if (child.hung) {
        return "does not return" + (where.empty() ? std::string(" to the checker") : where);
    }
    if (WIFSIGNALED(status)) {
        return "crashed (SIG" + std::string(sigabbrev_np(WTERMSIG(status))) + ")" + where + behind;
    }
    if (!child.current.empty()) {
        return "ended the process with status " + std::to_string(WEXITSTATUS(status)) + where +
               behind;
    }
    if (WEXITSTATUS(status) != 0) {
        return "status " + std::to_string(WEXITSTATUS(status)) + behind;
    }
    return complaint; /* one that was not fatal */
}

/* Gives every check of the group its line: those that were not reached, too. */
void complete(group_result* group, const char* name, bool died) {
    for (const check_fact& fact : check_facts) {
        const bool known =
            std::any_of(group->checks.begin(), group->checks.end(),
                        [&](const check_result& check) { return check.id == fact.id; });
        if (!known && check_group_of(fact.id) == name) {
            group->checks.push_back({fact.id, check_state::skipped, died ? "not reached" : ""});
        }
    }
}

} // namespace

group_result runner_run(const check_group& group, const host_options& options, int32_t limit) {
    running child;
    group_result result;
    start(&child, group, options);
    listen(&child, &result, limit);
    const int status = reap(&child, limit);
    result.output = read_output(child.output.value);
    const std::string wrong = end_text(child, status, result.output);
    const bool during = !child.current.empty();
    if (!wrong.empty() && !during) {
        result.checks.push_back({std::string(group.name) + ".exit", check_state::fine, ""});
    }
    if (!wrong.empty()) {
        check_result& check = result.checks.back();
        check.text = check.state == check_state::failed ? check.text : "";
        check.state = check_state::failed;
        add_text(&check, wrong);
    }
    if (result.unusable.empty()) {
        complete(&result, group.name, during || child.hung);
    }
    (void)munmap(child.shared, sizeof(check_shared));
    return result;
}
