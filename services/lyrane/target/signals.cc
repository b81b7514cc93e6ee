#include "signals.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <pthread.h>
#include <unistd.h>

#include "control.h"
#include "msglog.h"
#include "msgserver.h"

namespace {

constexpr int32_t SEVERITY_WARNING = 3;
constexpr int32_t SEVERITY_NOTICE = 4;
constexpr int32_t SEVERITY_INFO = 5;

void append(char* line, const char* text) {
    const size_t length = strlen(line);
    const size_t left = MSGLOG_LINE_SIZE - 1 - length;
    const size_t taken = strnlen(text, left);
    memcpy(line + length, text, taken);
    line[length + taken] = '\0';
}

/* Writes "program" + text + number (unless negative) without any formatting function: those take
 * locks and allocate. */
void log_line(int32_t severity, const char* text, int32_t number) {
    char line[MSGLOG_LINE_SIZE] = "";
    append(line, msglog_program());
    append(line, text);
    if (number >= 0) {
        char digits[16];
        *std::to_chars(digits, digits + sizeof digits - 1, number).ptr = '\0';
        append(line, digits);
    }
    msglog_direct(severity, line);
}

/* The level after this one. */
int32_t next_level(int32_t level) {
    return level >= MSGLOG_LEVEL_MAX ? 0 : level + 1;
}

sigset_t termination_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGQUIT);
    return set;
}

/* Waits for the next termination signal, until the deadline when there is one. The signal's
 * number, or -1 with errno set (EAGAIN: the deadline has passed). */
int wait_for_signal(const sigset_t* set, const timespec* deadline) {
    for (;;) {
        int signal = 0;
        if (deadline == nullptr) {
            errno = sigwait(set, &signal);
            return errno == 0 ? signal : -1;
        }
        timespec now = {};
        clock_gettime(CLOCK_MONOTONIC, &now);
        timespec left = {deadline->tv_sec - now.tv_sec, deadline->tv_nsec - now.tv_nsec};
        if (left.tv_nsec < 0) {
            left.tv_sec -= 1;
            left.tv_nsec += 1000000000;
        }
        left = left.tv_sec < 0 ? timespec{0, 0} : left;
        signal = sigtimedwait(set, nullptr, &left);
        if (signal >= 0 || errno != EINTR) {
            return signal;
        }
    }
}

} // namespace

void verbosity_handler(int) noexcept {
    const int saved = errno;
    int32_t old = __atomic_load_n(&mmcontrol.verbosity, __ATOMIC_RELAXED);
    while (!__atomic_compare_exchange_n(&mmcontrol.verbosity, &old, next_level(old), false,
                                        __ATOMIC_ACQ_REL, __ATOMIC_RELAXED)) {
    }
    /* The log level follows the count: a handler that was overtaken by another one sets it
     * again, so that both agree in the end. */
    int32_t level = 0;
    do {
        level = __atomic_load_n(&mmcontrol.verbosity, __ATOMIC_ACQUIRE);
        msglog_set_level(level);
    } while (__atomic_load_n(&mmcontrol.verbosity, __ATOMIC_ACQUIRE) != level);
    log_line(SEVERITY_INFO, " INFO: verbosity now ", next_level(old));
    errno = saved;
}

void* signal_thread(void*) noexcept {
    const sigset_t set = termination_signals();
    bool stop_requested = false;
    timespec deadline = {};
    for (;;) {
        const int signal = wait_for_signal(&set, stop_requested ? &deadline : nullptr);
        if (signal < 0 && stop_requested && errno == EAGAIN) {
            log_line(SEVERITY_WARNING, ": WARNING: the end takes too long, cut short", -1);
            _exit(EXIT_FAILURE); /* the standard output may be what the end hangs on */
        }
        if (signal < 0) {
            log_line(SEVERITY_WARNING, ": WARNING: failed on sigwait", -1);
            return nullptr;
        }
        if (sigismember(&set, signal) != 1) {
            log_line(SEVERITY_NOTICE, ": NOTICE: unexpected signal received ", signal);
            continue;
        }
        log_line(SEVERITY_NOTICE, ": NOTICE: termination signal received", -1);
        if (stop_requested) {
            continue;
        }
        if (msgserver_stop(mmcontrol.server) != 0) {
            log_line(SEVERITY_WARNING, ": WARNING: failed on connecting resmgr", -1);
            return nullptr;
        }
        stop_requested = true;
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += SIGNALS_END_LIMIT;
    }
}

void signals_prepare(void) noexcept {
    signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void signals_install_verbosity(void) noexcept {
    struct sigaction action = {};
    action.sa_handler = verbosity_handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    if (sigaction(SIGUSR1, &action, nullptr) != 0) {
        msglog(3, "failed to install SIGUSR1 handler (%s)", msglog_error_text(errno));
        signal(SIGUSR1, SIG_IGN);
    }
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

int32_t signals_block_termination(void) noexcept {
    const sigset_t set = termination_signals();
    return pthread_sigmask(SIG_BLOCK, &set, nullptr);
}
