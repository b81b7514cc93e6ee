#include "signals.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <veloran/process.h>

#include "control.h"
#include "msglog.h"
#include "msgserver.h"
#include "plugin_watch.h"

namespace {

constexpr int32_t SEVERITY_WARNING = 3;
constexpr int32_t SEVERITY_NOTICE = 4;
constexpr int32_t SEVERITY_INFO = 5;
constexpr int TERMINATION[] = {SIGINT, SIGTERM, SIGQUIT};

/* Writes "program" + text + number (unless negative) without any formatting function: those take
 * locks and allocate. */
void log_line(int32_t severity, const char* text, int32_t number) {
    char line[MSGLOG_LINE_SIZE] = "";
    msglog_append(line, msglog_program());
    msglog_append(line, text);
    if (number >= 0) {
        msglog_append_number(line, number);
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
    for (const int number : TERMINATION) {
        sigaddset(&set, number);
    }
    return set;
}

int64_t now_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

std::atomic<bool> loop_ended;
std::atomic<pid_t> catcher;        /* kernel id of the signal thread */
std::atomic<pid_t> process;        /* that it belongs to */
void (*last_words)(void) noexcept; /* set before the signal thread starts */

/* How long the main thread has been hanging, of the time since the end began. */
int64_t hanging_ms(int64_t began, int64_t now) {
    if (!loop_ended) {
        return now - began;
    }
    const int64_t call = plugin_watch_main_since();
    return call == 0 ? 0 : now - (call > began ? call : began);
}

/* True when the end that began at that time has come to one of its limits. */
bool is_too_late(int64_t began) {
    const int64_t now = now_ms();
    return now - began >= SIGNALS_END_LIMIT * 1000 ||
           hanging_ms(began, now) >= SIGNALS_HANG_LIMIT * 1000;
}

/* Waits for the next termination signal; once the end has begun (`began` is not 0), until it is too
 * late. The signal's number, or -1 with errno set (EAGAIN: it is too late). */
int wait_for_signal(const sigset_t* set, int64_t began) {
    static constexpr timespec BETWEEN_LOOKS = {0, 200000000};
    for (;;) {
        int signal = 0;
        if (began == 0) {
            errno = sigwait(set, &signal);
            return errno == 0 ? signal : -1;
        }
        signal = sigtimedwait(set, nullptr, &BETWEEN_LOOKS);
        if (signal >= 0 || (errno != EINTR && (errno != EAGAIN || is_too_late(began)))) {
            return signal;
        }
    }
}

/* The main thread is beyond help, the others are not. The system call itself, because the standard
 * output may be what the end hangs on, and nothing in the process, a sanitizer for one, should look
 * at what was not put in order. */
[[noreturn]] void end_now(int) {
    syscall(SYS_exit_group, EXIT_FAILURE);
    abort(); /* never reached */
}

/* A library may have let the termination signals into a thread of its own. In a child that it
 * forked they keep their default effect. */
void forward(int number) {
    const int saved = errno;
    if (getpid() == process) {
        syscall(SYS_tgkill, process.load(), catcher.load(), number);
    } else {
        signal(number, SIG_DFL);
        raise(number);
    }
    errno = saved;
}

void forward_termination() {
    process = getpid();
    catcher = process_thread_id();
    struct sigaction action = {};
    action.sa_handler = forward;
    action.sa_flags = SA_RESTART | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (const int number : TERMINATION) {
        sigaction(number, &action, nullptr);
    }
}

[[noreturn]] void cut_short(int64_t began) {
    log_line(SEVERITY_WARNING, ": WARNING: the end takes too long, cut short", -1);
    if (last_words != nullptr) {
        /* They may hang as well. */
        const int64_t left = SIGNALS_END_LIMIT - (now_ms() - began) / 1000;
        signal(SIGALRM, end_now);
        alarm(left > 1 ? static_cast<unsigned>(left) : 1);
        last_words();
    }
    end_now(0);
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

void signals_set_last_words(void (*say)(void) noexcept) noexcept {
    last_words = say;
}

void* signal_thread(void*) noexcept {
    const sigset_t set = termination_signals();
    forward_termination();
    int64_t began = 0; /* the end */
    for (;;) {
        const int signal = wait_for_signal(&set, began);
        if (signal < 0 && began != 0 && errno == EAGAIN) {
            cut_short(began);
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
        if (began != 0) {
            continue;
        }
        if (msgserver_stop(mmcontrol.server) != 0) {
            log_line(SEVERITY_WARNING, ": WARNING: failed on connecting resmgr", -1);
            return nullptr;
        }
        began = now_ms();
    }
}

void signals_loop_ended(void) noexcept {
    loop_ended = true;
}

void signals_prepare(void) noexcept {
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN); /* a file that may not grow is an error like a full disk */
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
