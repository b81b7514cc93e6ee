/* Closing descriptors on threads of their own.
 *
 * Whoever drops the last reference of a file waits for it: a TCP socket with a linger time keeps
 * the thread that closes it until its data is sent or the time is over, a file of a user's own file
 * system until that system answers. A message in the queue of a local socket may hold hundreds of
 * such files, and closing the socket drops them all. So no thread that serves clients closes a
 * descriptor that a client has sent, or a socket whose queue a client can fill; it hands it over.
 *
 * A wait that a signal can end is ended after some milliseconds. What no signal ends holds up one
 * thread, and the other jobs of the same owner with it; there are CLOSER_THREADS_MAX threads.
 *
 * C++ only, C linkage. [any thread], any lock may be held; only closer_wait waits. */
#ifndef VELORAN_CLOSER_H
#define VELORAN_CLOSER_H

#include <cstdint>

#include <sys/types.h>

constexpr int32_t CLOSER_THREADS_MAX = 32;

/* Whose descriptors a job closes: jobs of one owner are done one after the other. Sockets of our
 * own and descriptors of unknown kind that a user sent are two owners: only the latter can hold up
 * a thread for good. */
constexpr uint64_t closer_sockets_of(uid_t user) {
    return user;
}
constexpr uint64_t closer_gifts_of(uid_t user) {
    return (uint64_t{1} << 32) | user;
}

/* Descriptors to be closed. The submitter's memory, untouched by it until `done`. */
struct closer_job {
    closer_job* next = nullptr; /* the closer's */
    uint64_t owner = 0;
    const int* fds = nullptr; /* negative ones are skipped */
    int32_t count = 0;
    void (*done)(closer_job*) = nullptr; /* called by the thread that has closed them */
    void* context = nullptr;             /* the submitter's */
};

extern "C" {

void closer_submit(closer_job* job) noexcept;

/* Closes one descriptor without telling when. Without memory it is closed at once. Returns how many
 * descriptors given so are not closed yet, all owners together. */
int32_t closer_close(int fd, uint64_t owner) noexcept;

/* Waits until there is no job left, of anybody: for those who count descriptors. Without end while
 * one cannot be closed. */
void closer_wait(void) noexcept;
}

#endif
