#include "interrupt.h"

#include <csignal>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

constexpr int SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};
constexpr int STATUS_OF_SIGNALS = 128; /* the shell's way to say it */

volatile sig_atomic_t held = 0; /* the signal that came */
bool holding = false;
struct sigaction earlier[sizeof SIGNALS / sizeof *SIGNALS];

void hold(int number) {
    if (held != 0) {
        _exit(STATUS_OF_SIGNALS + number);
    }
    held = number;
}

} // namespace

void interrupt_hold(void) {
    if (holding) {
        return;
    }
    struct sigaction action = {};
    action.sa_handler = hold;
    action.sa_flags = SA_RESTART;
    size_t i = 0;
    for (const int number : SIGNALS) {
        sigaction(number, nullptr, &earlier[i]);
        if (earlier[i].sa_handler != SIG_IGN) {
            sigaction(number, &action, nullptr);
        }
        i++;
    }
    holding = true;
}

void interrupt_release(void) {
    if (!holding) {
        return;
    }
    size_t i = 0;
    for (const int number : SIGNALS) {
        sigaction(number, &earlier[i++], nullptr);
    }
    holding = false;
    if (held != 0) {
        raise(held);
    }
}

bool interrupt_pending(void) {
    return held != 0;
}

int interrupt_descriptor(void) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGWINCH);
    sigaddset(&set, SIGQUIT);
    for (const int number : SIGNALS) {
        sigaddset(&set, number);
        /* Who was started in the background has SIGINT ignored, but whoever waits wants to know. */
        signal(number, SIG_DFL);
    }
    if (sigprocmask(SIG_BLOCK, &set, nullptr) != 0) {
        return -1;
    }
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

int interrupt_take(int descriptor) {
    signalfd_siginfo came = {};
    const ssize_t got = read(descriptor, &came, sizeof came);
    return got == static_cast<ssize_t>(sizeof came) ? static_cast<int>(came.ssi_signo) : 0;
}
