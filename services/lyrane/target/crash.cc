/* Everything here runs in a process that is broken: no allocation, no formatting function, and a
 * limit on the time, since the logger may be what broke or what is held. */
#include "crash.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include <execinfo.h>
#include <sys/mman.h>
#include <unistd.h>

#include <veloran/process.h>

#include "msglog.h"
#include "plugin_opening.h"
#include "plugin_watch.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define LYRANE_SANITIZER_REPORTS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) ||                         \
    __has_feature(memory_sanitizer)
#define LYRANE_SANITIZER_REPORTS 1
#endif
#endif

#if !defined(LYRANE_SANITIZER_REPORTS)
namespace {

/* Among them what libraries end a process by on purpose: SIGABRT, SIGTRAP. */
constexpr int FATAL[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS};
constexpr int32_t SEVERITY = 2;
constexpr int FRAMES = 48;
constexpr unsigned LIMIT_SECONDS = 2;
constexpr size_t STACK_SIZE = 65536;

/* Also on the standard error: it is there when the system log is not. */
void say(const char* line) {
    (void)process_write_now(STDERR_FILENO, line, strlen(line));
    (void)process_write_now(STDERR_FILENO, "\n", 1);
    msglog_direct(SEVERITY, line);
}

void say_what(int signal) {
    char line[MSGLOG_LINE_SIZE] = "";
    msglog_append(line, msglog_program());
    msglog_append(line, ": crashed by signal ");
    msglog_append_number(line, signal);
    msglog_append(line, " (");
    const char* name = sigabbrev_np(signal);
    msglog_append(line, name != nullptr ? name : "?");
    msglog_append(line, ")");
    plugin_watch_call call;
    if (plugin_watch_here(&call)) {
        msglog_append(line, " in a call of '");
        msglog_append(line, call.entry);
        msglog_append(line, "' into ");
        msglog_append(line, call.plugin);
        msglog_append(line, " for player ");
        msglog_append(line, call.player != nullptr ? call.player : "none");
    }
    say(line);
}

/* The library function writes to a descriptor without allocating; the logger wants lines. */
void say_frames() {
    static char text[FRAMES * 256];
    void* frames[FRAMES];
    const int count = backtrace(frames, FRAMES);
    const int fd = memfd_create("lyrane-crash", MFD_CLOEXEC);
    backtrace_symbols_fd(frames, count, fd);
    const ssize_t length = pread(fd, text, sizeof text - 1, 0);
    text[length > 0 ? length : 0] = '\0';
    for (char* at = text; *at != '\0';) {
        char* end = strchrnul(at, '\n');
        const bool is_last = *end == '\0';
        *end = '\0';
        char line[MSGLOG_LINE_SIZE] = "";
        msglog_append(line, msglog_program());
        msglog_append(line, ":   ");
        msglog_append(line, at);
        say(line);
        at = is_last ? end : end + 1;
    }
}

/* The handler is gone by now, so that a second fault, and the signal sent anew, end the process. */
void crashed(int signal) {
    struct sigaction plain = {};
    plain.sa_handler = SIG_DFL;
    sigaction(SIGALRM, &plain, nullptr);
    sigset_t alarm_alone;
    sigemptyset(&alarm_alone);
    sigaddset(&alarm_alone, SIGALRM);
    pthread_sigmask(SIG_UNBLOCK, &alarm_alone, nullptr);
    alarm(LIMIT_SECONDS);
    plugin_opening_crashed();
    say_what(signal);
    say_frames();
    raise(signal);
}

} // namespace

void crash_prepare(void) noexcept {
    static char stack[STACK_SIZE]; /* of the main thread; a stack that has overflown is no use */
    const stack_t alternative = {stack, 0, sizeof stack};
    sigaltstack(&alternative, nullptr);
    void* frame = nullptr;
    (void)backtrace(&frame, 1); /* loads what it needs now */
    struct sigaction action = {};
    action.sa_handler = crashed;
    action.sa_flags = SA_ONSTACK | static_cast<int>(SA_RESETHAND);
    for (const int signal : FATAL) {
        sigaction(signal, &action, nullptr);
    }
}
#else
/* The other signals are the sanitizer's. */
static void aborted(int signal) {
    plugin_opening_crashed();
    raise(signal);
}

void crash_prepare(void) noexcept {
    struct sigaction action = {};
    action.sa_handler = aborted;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGABRT, &action, nullptr);
}
#endif
