/* Starting a thread of a plug-in. */
#ifndef LYRANE_PLUGIN_THREAD_H
#define LYRANE_PLUGIN_THREAD_H

#include <csignal>

#include <pthread.h>

/* Starts a joinable thread with every signal blocked but those that a fault raises: neither it nor
 * the threads that libraries start from it may take a signal away from the service. False when it
 * cannot be had. [any thread] */
inline bool plugin_thread_start(pthread_t* thread, void* (*body)(void*), void* argument) noexcept {
    sigset_t mask;
    sigfillset(&mask);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT}) {
        sigdelset(&mask, fault);
    }
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return false;
    }
    const bool started = pthread_attr_setsigmask_np(&attributes, &mask) == 0 &&
                         pthread_create(thread, &attributes, body, argument) == 0;
    pthread_attr_destroy(&attributes);
    return started;
}

#endif
