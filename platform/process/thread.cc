#include <veloran/process.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <unistd.h>

#include <veloran/lock.h>

namespace {

constexpr size_t NAME_SIZE = 16; /* what the kernel keeps, with the NUL */

struct thread_start {
    char name[NAME_SIZE];
    void* (*body)(void*);
    void* argument;
};

void cut_name(char* cut, const char* name) {
    const size_t length = strnlen(name, NAME_SIZE - 1);
    memcpy(cut, name, length);
    cut[length] = '\0';
}

void add_termination_signals(sigset_t* set) {
    sigaddset(set, SIGINT);
    sigaddset(set, SIGTERM);
    sigaddset(set, SIGQUIT);
}

void* run(void* argument) {
    const thread_start start = *static_cast<thread_start*>(argument);
    free(argument);
    process_thread_name(start.name);
    return start.body(start.argument);
}

int create(int32_t detached, thread_start* start, pthread_t* thread) {
    pthread_attr_t attributes;
    const int failed = pthread_attr_init(&attributes);
    if (failed != 0) {
        return failed;
    }
    if (detached != 0) {
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    }
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    add_termination_signals(&mask);
    int error = pthread_attr_setsigmask_np(&attributes, &mask);
    if (error == 0) {
        error = pthread_create(thread, &attributes, run, start);
    }
    pthread_attr_destroy(&attributes);
    return error;
}

} // namespace

void process_thread_name(const char* name) noexcept {
    char cut[NAME_SIZE];
    cut_name(cut, name);
    pthread_setname_np(pthread_self(), cut);
}

int32_t process_thread_start(const char* name, int32_t detached, void* (*body)(void*),
                             void* argument, pthread_t* thread) noexcept {
    std::unique_ptr<thread_start, vel_free> start(
        static_cast<thread_start*>(malloc(sizeof(thread_start))));
    if (start == nullptr) {
        return ENOMEM;
    }
    cut_name(start->name, name);
    start->body = body;
    start->argument = argument;
    pthread_t unused;
    const int error = create(detached, start.get(), thread != nullptr ? thread : &unused);
    if (error == 0) {
        (void)start.release(); /* the thread's now */
    }
    return error;
}

void process_block_termination(sigset_t* earlier) noexcept {
    sigset_t set;
    sigemptyset(&set);
    add_termination_signals(&set);
    pthread_sigmask(SIG_BLOCK, &set, earlier);
}

void process_restore_signals(const sigset_t* earlier) noexcept {
    pthread_sigmask(SIG_SETMASK, earlier, nullptr);
}
