#include <veloran/closer.h>

#include <atomic>
#include <csignal>
#include <ctime>
#include <new>

#include <pthread.h>
#include <unistd.h>

#include <veloran/lock.h>
#include <veloran/process.h>

#ifndef sigev_notify_thread_id
#define sigev_notify_thread_id _sigev_un._tid
#endif

namespace {

/* Sent to a thread that is still closing after each of these periods. Whoever does not expect the
 * signal ignores it, and so does its handler here: its arrival is what ends a wait. */
constexpr int NUDGE = SIGURG;
constexpr long NUDGE_AFTER_NS = 10 * 1000 * 1000;

struct closer {
    vel_mutex lock;
    pthread_cond_t submitted;
    pthread_cond_t emptied;
    closer_job* first VEL_GUARDED_BY(lock);
    closer_job* last VEL_GUARDED_BY(lock);
    const closer_job* in_work[CLOSER_THREADS_MAX] VEL_GUARDED_BY(lock); /* null: nothing */
    int32_t jobs VEL_GUARDED_BY(lock);                                  /* not done yet */
    int32_t threads VEL_GUARDED_BY(lock);
    int32_t idle VEL_GUARDED_BY(lock);     /* of them; 1 at the most */
    bool is_starting VEL_GUARDED_BY(lock); /* one of them has not looked for a job yet */
};
closer all = {{PTHREAD_MUTEX_INITIALIZER},
              PTHREAD_COND_INITIALIZER,
              PTHREAD_COND_INITIALIZER,
              nullptr,
              nullptr,
              {},
              0,
              0,
              0,
              false};
std::atomic<int32_t> untold{0}; /* descriptors of closer_close */

bool is_in_work(uint64_t owner) VEL_REQUIRES(all.lock) {
    for (const closer_job* job : all.in_work) {
        if (job != nullptr && job->owner == owner) {
            return true;
        }
    }
    return false;
}

/* The first job whose owner has none in work, out of the queue and in work; null: none. */
closer_job* take(int32_t* place) VEL_REQUIRES(all.lock) {
    closer_job* before = nullptr;
    for (closer_job* job = all.first; job != nullptr; before = job, job = job->next) {
        if (is_in_work(job->owner)) {
            continue;
        }
        (before != nullptr ? before->next : all.first) = job->next;
        all.last = all.last == job ? before : all.last;
        for (*place = 0; all.in_work[*place] != nullptr;) {
            *place += 1; /* there are as many places as threads */
        }
        all.in_work[*place] = job;
        return job;
    }
    return nullptr;
}

/* Whether another thread has something to do. The one that starts or wakes up now looks on itself
 * when it has taken its job. */
bool needs_thread() VEL_REQUIRES(all.lock) {
    if (all.is_starting || all.idle > 0 || all.threads == CLOSER_THREADS_MAX) {
        return false;
    }
    const closer_job* job = all.first;
    while (job != nullptr && is_in_work(job->owner)) {
        job = job->next;
    }
    return job != nullptr;
}

void* run(void* unused);

/* One more thread. When there can be none, the jobs wait for a thread or the next submission. */
void start_thread() VEL_REQUIRES(all.lock) {
    if (process_thread_start("closer", 1, run, nullptr, nullptr) == 0) {
        all.threads += 1;
        all.is_starting = true;
    }
}

void set_nudges(timer_t timer, long nanoseconds) {
    const itimerspec times = {{0, nanoseconds}, {0, nanoseconds}};
    (void)timer_settime(timer, 0, &times, nullptr);
}

/* A timer that nudges the calling thread. False without one: waits then take their time. */
bool make_timer(timer_t* timer) {
    struct sigaction present = {};
    if (sigaction(NUDGE, nullptr, &present) == 0 && (present.sa_flags & SA_SIGINFO) == 0 &&
        present.sa_handler == SIG_DFL) {
        present.sa_handler = [](int) {};
        present.sa_flags = SA_RESTART;
        (void)sigaction(NUDGE, &present, nullptr);
    }
    sigset_t nudges;
    sigemptyset(&nudges);
    sigaddset(&nudges, NUDGE);
    sigevent event = {};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = NUDGE;
    event.sigev_notify_thread_id = process_thread_id();
    return pthread_sigmask(SIG_UNBLOCK, &nudges, nullptr) == 0 &&
           timer_create(CLOCK_MONOTONIC, &event, timer) == 0;
}

void close_all(const closer_job& job) {
    for (int32_t i = 0; i < job.count; ++i) {
        if (job.fds[i] >= 0) {
            (void)::close(job.fds[i]);
        }
    }
}

/* The next job, waited for by one thread at the most; null for the others. */
closer_job* next_job(int32_t* place) VEL_REQUIRES(all.lock) {
    closer_job* job = take(place);
    while (job == nullptr && all.idle == 0) {
        all.idle += 1;
        pthread_cond_wait(&all.submitted, &all.lock.native);
        all.idle -= 1;
        job = take(place);
    }
    if (needs_thread()) {
        start_thread();
    }
    return job;
}

void* run(void*) {
    timer_t timer;
    const bool is_nudged = make_timer(&timer);
    vel_mutex_lock(&all.lock);
    all.is_starting = false;
    int32_t place;
    while (closer_job* job = next_job(&place)) {
        vel_mutex_unlock(&all.lock);
        if (is_nudged) {
            set_nudges(timer, NUDGE_AFTER_NS);
        }
        close_all(*job);
        if (is_nudged) {
            set_nudges(timer, 0);
        }
        vel_mutex_lock(&all.lock);
        all.in_work[place] = nullptr;
        vel_mutex_unlock(&all.lock);
        job->done(job);
        vel_mutex_lock(&all.lock);
        all.jobs -= 1;
        if (all.jobs == 0) {
            pthread_cond_broadcast(&all.emptied);
        }
    }
    all.threads -= 1;
    vel_mutex_unlock(&all.lock);
    if (is_nudged) {
        (void)timer_delete(timer);
    }
    return nullptr;
}

/* A descriptor without a record of its own. */
struct lone_job {
    closer_job job;
    int fd;
};

} // namespace

extern "C" {

void closer_submit(closer_job* job) noexcept {
    vel_lock_guard guard(all.lock);
    job->next = nullptr;
    (all.last != nullptr ? all.last->next : all.first) = job;
    all.last = job;
    all.jobs += 1;
    if (all.idle > 0) {
        pthread_cond_signal(&all.submitted);
    } else if (needs_thread()) {
        start_thread();
    }
}

int32_t closer_close(int fd, uint64_t owner) noexcept {
    auto* lone = new (std::nothrow) lone_job;
    if (lone == nullptr) {
        (void)::close(fd);
        return untold.load(std::memory_order_relaxed);
    }
    lone->fd = fd;
    lone->job.owner = owner;
    lone->job.fds = &lone->fd;
    lone->job.count = 1;
    lone->job.context = lone;
    lone->job.done = [](closer_job* job) {
        untold.fetch_sub(1, std::memory_order_relaxed);
        delete static_cast<lone_job*>(job->context);
    };
    const int32_t present = untold.fetch_add(1, std::memory_order_relaxed) + 1;
    closer_submit(&lone->job);
    return present;
}

void closer_wait(void) noexcept {
    vel_lock_guard guard(all.lock);
    while (all.jobs > 0) {
        pthread_cond_wait(&all.emptied, &all.lock.native);
    }
}
}
