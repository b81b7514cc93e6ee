/* The one lock type, marked for clang's thread-safety analysis, and the guards of this code base.
 *
 * C++ only. The guards are the only types here with destructors; everything else is plain data. */
#ifndef VELORAN_LOCK_H
#define VELORAN_LOCK_H

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>

#include <pthread.h>
#include <unistd.h>

#if defined(__clang__)
#define VEL_TSA(x) __attribute__((x))
#else
#define VEL_TSA(x)
#endif

#if defined(__SANITIZE_THREAD__)
#define VEL_THREAD_SANITIZER
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VEL_THREAD_SANITIZER
#endif
#endif

#define VEL_GUARDED_BY(x) VEL_TSA(guarded_by(x))
#define VEL_PT_GUARDED_BY(x) VEL_TSA(pt_guarded_by(x))
#define VEL_REQUIRES(...) VEL_TSA(requires_capability(__VA_ARGS__))
#define VEL_EXCLUDES(...) VEL_TSA(locks_excluded(__VA_ARGS__))
#define VEL_ACQUIRE(...) VEL_TSA(acquire_capability(__VA_ARGS__))
#define VEL_RELEASE(...) VEL_TSA(release_capability(__VA_ARGS__))
#define VEL_TRY_ACQUIRE(...) VEL_TSA(try_acquire_capability(__VA_ARGS__))
#define VEL_ASSERT_HELD(x) VEL_TSA(assert_capability(x))
/* Switches the analysis off for one function; the comment beside it says why. */
#define VEL_NO_TSA VEL_TSA(no_thread_safety_analysis)

/* A mutex, not recursive. Lives in its owner's record; a zeroed one is valid, as on every Linux. */
struct VEL_TSA(capability("mutex")) vel_mutex {
    pthread_mutex_t native;
};

inline void vel_mutex_init(vel_mutex* mutex) noexcept {
    pthread_mutex_init(&mutex->native, nullptr);
}
inline void vel_mutex_destroy(vel_mutex* mutex) noexcept {
    pthread_mutex_destroy(&mutex->native);
}
inline void vel_mutex_lock(vel_mutex* mutex) noexcept VEL_ACQUIRE(mutex) VEL_NO_TSA {
    pthread_mutex_lock(&mutex->native);
}
inline bool vel_mutex_try_lock(vel_mutex* mutex) noexcept VEL_TRY_ACQUIRE(true, mutex) VEL_NO_TSA {
    return pthread_mutex_trylock(&mutex->native) == 0;
}
inline void vel_mutex_unlock(vel_mutex* mutex) noexcept VEL_RELEASE(mutex) VEL_NO_TSA {
    pthread_mutex_unlock(&mutex->native);
}

/* Holds a mutex for a scope. */
struct VEL_TSA(scoped_lockable) vel_lock_guard {
    explicit vel_lock_guard(vel_mutex& mutex) noexcept VEL_ACQUIRE(mutex) : held(&mutex) {
        vel_mutex_lock(&mutex);
    }
    ~vel_lock_guard() VEL_RELEASE() { pthread_mutex_unlock(&held->native); }
    vel_lock_guard(const vel_lock_guard&) = delete;
    vel_lock_guard& operator=(const vel_lock_guard&) = delete;
    vel_mutex* held;
};

/* --- bounded waits. All of them go by the monotonic clock, which nobody sets. ---------------- */

/* The time `ms` milliseconds, at least 0, from now. */
inline timespec vel_deadline(int64_t ms) noexcept {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    const int64_t nanoseconds = time.tv_nsec + ms % 1000 * 1000000;
    time.tv_sec += static_cast<time_t>(ms / 1000 + nanoseconds / 1000000000);
    time.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
    return time;
}

/* Milliseconds from now to then, rounded up; 0 once it has passed. */
inline int64_t vel_remaining(const timespec& deadline) noexcept {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t nanoseconds =
        int64_t{deadline.tv_sec - now.tv_sec} * 1000000000 + (deadline.tv_nsec - now.tv_nsec);
    return nanoseconds > 0 ? (nanoseconds + 999999) / 1000000 : 0;
}

/* False when the time passed. */
inline bool vel_mutex_lock_until(vel_mutex* mutex, const timespec& deadline) noexcept
    VEL_TRY_ACQUIRE(true, mutex) VEL_NO_TSA {
#if defined(VEL_THREAD_SANITIZER) /* which does not know the wait by a clock of one's choice */
    while (pthread_mutex_trylock(&mutex->native) != 0) {
        if (vel_remaining(deadline) == 0) {
            return false;
        }
        usleep(1000);
    }
    return true;
#else
    return pthread_mutex_clocklock(&mutex->native, CLOCK_MONOTONIC, &deadline) == 0;
#endif
}

/* Waits for a signal of the condition, with the lock; false when the time passed. */
inline bool vel_wait_until(pthread_cond_t* condition, vel_mutex* mutex,
                           const timespec& deadline) noexcept VEL_REQUIRES(mutex) {
    return pthread_cond_clockwait(condition, &mutex->native, CLOCK_MONOTONIC, &deadline) !=
           ETIMEDOUT;
}

/* Closes a file descriptor at the end of a scope; -1 means none. */
struct vel_fd {
    vel_fd() noexcept : value(-1) {}
    explicit vel_fd(int fd) noexcept : value(fd) {}
    ~vel_fd() {
        if (value >= 0) {
            ::close(value);
        }
    }
    vel_fd(const vel_fd&) = delete;
    vel_fd& operator=(const vel_fd&) = delete;
    /* Hands the descriptor to the caller. */
    int release() noexcept {
        const int fd = value;
        value = -1;
        return fd;
    }
    int value;
};

/* Owners of malloc()ed memory. */
struct vel_free {
    void operator()(void* memory) const noexcept { std::free(memory); }
};
using vel_text = std::unique_ptr<char, vel_free>;
using vel_bytes = std::unique_ptr<unsigned char, vel_free>;

#endif
