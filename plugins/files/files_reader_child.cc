/* One process of the reader, as the plug-in sees it. */
#include "files_reader_child.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <veloran/handover.h>
#include <veloran/lock.h>

/* Who waits looks so often whether it is cancelled, in ms. */
static constexpr int STEP_MS = 50;
/* How long one waits for the end of a process, in ms. */
static constexpr int64_t END_MS = 500;

/* Processes that were left behind, to be waited for when another one is started. */
static std::array<std::atomic<pid_t>, 16> left_behind;

static int64_t milliseconds(clockid_t clock) noexcept {
    timespec time = {};
    clock_gettime(clock, &time);
    return int64_t{1000} * time.tv_sec + time.tv_nsec / 1000000;
}

int64_t files_reader_child_now() noexcept {
    return milliseconds(CLOCK_MONOTONIC);
}

int64_t files_reader_child_used(const files_reader_child& child) noexcept {
    return child.clock != CLOCK_REALTIME ? milliseconds(child.clock) : 0;
}

/* --- receiving ------------------------------------------------------------------------------ */

/* Waits for one packet; its length in `length`. */
static files_reader_packet next_packet(files_reader_child* child, int64_t deadline,
                                       const files_cancel& cancel, size_t* length) {
    child->packet.resize(FILES_READER_PACKET);
    for (;;) {
        /* With MSG_TRUNC the length is that of the packet, also if it does not fit. */
        const ssize_t received = recv(child->socket, child->packet.data(), child->packet.size(),
                                      MSG_DONTWAIT | MSG_TRUNC);
        if (received > 0) {
            *length = static_cast<size_t>(received);
            return *length <= child->packet.size() ? files_reader_packet::whole
                                                   : files_reader_packet::senseless;
        }
        /* What was sent before the process died comes after ECONNRESET. */
        if (received == 0 || (errno != EAGAIN && errno != EINTR && errno != ECONNRESET)) {
            return files_reader_packet::died;
        }
        if (errno == EAGAIN) {
            const int64_t left = deadline - files_reader_child_now();
            if (files_cancelled(cancel) || left <= 0) {
                return left <= 0 ? files_reader_packet::late : files_reader_packet::cancelled;
            }
            pollfd wanted = {child->socket, POLLIN, 0};
            poll(&wanted, 1, static_cast<int>(std::min<int64_t>(left, STEP_MS)));
        }
    }
}

files_reader_packet files_reader_child_receive(files_reader_child* child, uint32_t number,
                                               const files_cancel& cancel, std::string* bytes) {
    const int64_t deadline = files_reader_child_now() + FILES_READER_FILE_MS;
    files_reader_head head = {};
    size_t length = 0;
    files_reader_packet result = next_packet(child, deadline, cancel, &length);
    if (result != files_reader_packet::whole) {
        return result;
    }
    if (length < sizeof head) {
        return files_reader_packet::senseless;
    }
    std::memcpy(&head, child->packet.data(), sizeof head);
    if (head.number != number || head.length > FILES_READER_ANSWER_MOST) {
        return files_reader_packet::senseless;
    }
    bytes->assign(child->packet.data() + sizeof head, length - sizeof head);
    while (bytes->size() < head.length && result == files_reader_packet::whole) {
        result = next_packet(child, deadline, cancel, &length);
        bytes->append(child->packet.data(), result == files_reader_packet::whole ? length : 0);
    }
    return result == files_reader_packet::whole && bytes->size() != head.length
               ? files_reader_packet::senseless
               : result;
}

/* --- sending -------------------------------------------------------------------------------- */

bool files_reader_child_send(const files_reader_child& child, const files_reader_request& request,
                             int fd) noexcept {
    iovec part = {const_cast<files_reader_request*>(&request), sizeof request};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    vel_handover handover;
    vel_handover_attach(&message, &handover, fd);
    return sendmsg(child.socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT) == sizeof request;
}

/* --- start ---------------------------------------------------------------------------------- */

/* All that the program may know of the environment: where its libraries are, and how sanitizers
 * are to work. */
struct few_variables {
    std::array<std::string, 4> texts;
    std::array<char*, 5> list = {};
};

static void collect_variables(few_variables* variables) {
    size_t count = 0;
    for (const char* name : {"LD_LIBRARY_PATH", "ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
        const char* value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): nobody sets them
        if (value != nullptr) {
            variables->texts[count] = std::string(name) + '=' + value;
            variables->list[count] = variables->texts[count].data();
            ++count;
        }
    }
}

/* In a process group of its own: what a terminal sends is not for it. Not in a session of its own:
 * the priority of the scan would count for nothing there. */
static int spawn(const std::string& program, int end, pid_t* pid) {
    few_variables variables;
    collect_variables(&variables);
    std::string name = program;
    char* const arguments[] = {name.data(), nullptr};
    posix_spawn_file_actions_t files;
    posix_spawnattr_t how;
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawn_file_actions_init(&files);
    posix_spawnattr_init(&how);
    posix_spawn_file_actions_adddup2(&files, end, STDIN_FILENO);
    posix_spawnattr_setsigmask(&how, &none);
    posix_spawnattr_setsigdefault(&how, &all);
    posix_spawnattr_setflags(&how, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                       POSIX_SPAWN_SETPGROUP);
    const int error =
        posix_spawn(pid, name.c_str(), &files, &how, arguments, variables.list.data());
    posix_spawnattr_destroy(&how);
    posix_spawn_file_actions_destroy(&files);
    return error;
}

static void wait_for_left_behind() noexcept {
    for (std::atomic<pid_t>& each : left_behind) {
        pid_t pid = each.exchange(0);
        if (pid != 0 && waitpid(pid, nullptr, WNOHANG) == 0) {
            each = pid;
        }
    }
}

bool files_reader_child_start(const std::string& program, files_reader_child* child,
                              std::string* reason) {
    wait_for_left_behind();
    std::array<int, 2> ends = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        *reason = std::strerror(errno); // NOLINT(concurrency-mt-unsafe): own buffer
        return false;
    }
    vel_fd own(ends[0]);
    vel_fd other(ends[1]);
    const int error = spawn(program, other.value, &child->pid);
    if (error != 0) {
        child->pid = -1;
        *reason = std::strerror(error); // NOLINT(concurrency-mt-unsafe): own buffer
        return false;
    }
    close(other.release());
    child->socket = own.release();
    if (clock_getcpuclockid(child->pid, &child->clock) != 0) {
        child->clock = CLOCK_REALTIME;
    }
    child->greeted = false;
    return true;
}

/* Null when it is, else the reason why not. */
static const char* wait_ready(files_reader_child* child, const files_cancel& cancel,
                              uint32_t* flags) {
    files_reader_hello hello = {};
    size_t length = 0;
    const files_reader_packet result =
        next_packet(child, files_reader_child_now() + FILES_READER_START_MS, cancel, &length);
    if (result != files_reader_packet::whole || length != sizeof hello) {
        return result == files_reader_packet::died ? "it ends at once" : "it does not begin";
    }
    std::memcpy(&hello, child->packet.data(), sizeof hello);
    *flags = hello.flags;
    return hello.version == FILES_READER_VERSION ? nullptr : "it does not belong to this plug-in";
}

bool files_reader_child_greet(files_reader_child* child, const files_cancel& cancel,
                              std::string* reason, std::string* notice) {
    if (child->greeted) {
        return true;
    }
    uint32_t flags = 0;
    const char* failure = wait_ready(child, cancel, &flags);
    if (failure != nullptr) {
        *reason = failure;
        files_reader_child_end(child, true);
        return false;
    }
    if ((flags & FILES_READER_FILTERED) == 0) {
        *notice = "the reader of tags runs without a filter of system calls";
    }
    child->greeted = true;
    return true;
}

/* --- end ------------------------------------------------------------------------------------ */

/* True when it has ended, or is none of ours. */
static bool wait_for_end(pid_t pid, int* status) noexcept {
    const int64_t deadline = files_reader_child_now() + END_MS;
    for (int64_t nap = 50000;; nap = std::min<int64_t>(2 * nap, 5000000)) {
        const pid_t ended = waitpid(pid, status, WNOHANG);
        if (ended == pid || (ended < 0 && errno != EINTR)) {
            *status = ended == pid ? *status : -1;
            return true;
        }
        if (files_reader_child_now() >= deadline) {
            return false;
        }
        const timespec pause = {0, nap};
        nanosleep(&pause, nullptr);
    }
}

int files_reader_child_end(files_reader_child* child, bool kill_it) noexcept {
    const pid_t pid = child->pid;
    if (pid < 0) {
        return -1;
    }
    close(child->socket);
    child->socket = child->pid = -1;
    int status = -1;
    bool ended = !kill_it && wait_for_end(pid, &status);
    if (!ended) {
        kill(pid, SIGKILL);
        ended = wait_for_end(pid, &status);
    }
    for (std::atomic<pid_t>& each : left_behind) {
        pid_t free = 0;
        if (ended || each.compare_exchange_strong(free, pid)) {
            break;
        }
    }
    return ended ? status : -1;
}

void files_reader_child_collect() noexcept {
    for (std::atomic<pid_t>& each : left_behind) {
        const pid_t pid = each.exchange(0);
        int status = 0;
        if (pid != 0 && !wait_for_end(pid, &status)) {
            each = pid;
        }
    }
}
