/* Process services: detaching, priority, threads.
 *
 * C++ only, C linkage. Functions return 0, or -1 with errno set, unless they say otherwise. */
#ifndef VELORAN_PROCESS_H
#define VELORAN_PROCESS_H

#include <csignal>
#include <cstddef>
#include <cstdint>

#include <pthread.h>
#include <sys/types.h>

/* Flags of procmgr_daemon. */
constexpr uint32_t PROCMGR_DAEMON_NOCHDIR = 0x1;   /* keep the working directory */
constexpr uint32_t PROCMGR_DAEMON_NOCLOSE = 0x2;   /* keep the other descriptors open */
constexpr uint32_t PROCMGR_DAEMON_NODEVNULL = 0x4; /* leave the standard descriptors alone */
constexpr uint32_t PROCMGR_DAEMON_KEEPUMASK = 0x8; /* keep the umask (else it becomes 0) */

constexpr int32_t PROCESS_PRIORITY_ORDINARY = 10; /* maps to nice 0 */

extern "C" {

/* Puts the process into the background: forks, the parent leaves with `status`, the child becomes
 * the leader of a session of its own without a controlling terminal. Descriptors above 2 are
 * closed, 0 to 2 become the null device, the working directory "/" and the umask 0, as far as the
 * flags do not say otherwise. To be called before the first thread exists. -1 in the parent when
 * it could not fork, in the child when the directory or the null device is not to be had. */
int32_t procmgr_daemon(int32_t status, uint32_t flags) noexcept;

/* Sets the priority of a process (0: the calling one): PROCESS_PRIORITY_ORDINARY is nice 0, each
 * step above is one nice step down, within the system's range. Threads that exist already keep
 * theirs. */
int32_t setprio(int32_t pid, int32_t priority) noexcept;

/* Opens the null device in the place of every standard descriptor (0 to 2) that is closed, so that
 * no later open can get such a number. To be called first thing. */
int32_t process_fill_standard_descriptors(void) noexcept;

/* Sets descriptors aside for what will come: `count` more, or fewer when it is negative. Only a
 * number, for process_spare_descriptors. [any thread] */
void process_promise_descriptors(int32_t count) noexcept;

/* How many descriptors the process may still open, without those that are promised; negative when
 * even those are not to be had, INT32_MAX when it cannot be told. Reads a folder of the system.
 * [any thread] */
int32_t process_spare_descriptors(void) noexcept;

/* Names the calling thread; a longer name is cut to the 15 bytes that Linux takes. */
void process_thread_name(const char* name) noexcept;

/* Starts a thread with the creator's signal mask plus the termination signals (SIGINT, SIGTERM,
 * SIGQUIT) blocked, from its first instruction on. `name` is given to it (cut as above). A
 * joinable thread's id is stored in *thread before the thread runs; with `detached` non-zero it is
 * of no further use, and `thread` may be null. Returns 0 or the error number (not errno). */
int32_t process_thread_start(const char* name, int32_t detached, void* (*body)(void*),
                             void* argument, pthread_t* thread) noexcept;

/* Blocks the termination signals (SIGINT, SIGTERM, SIGQUIT) in the calling thread and stores the
 * earlier mask, for calls that may start threads outside our control; the second one restores. */
void process_block_termination(sigset_t* earlier) noexcept;
void process_restore_signals(const sigset_t* earlier) noexcept;

/* Writes to a descriptor that others may share, without waiting for a reader and without changing
 * its flags; at most PIPE_BUF bytes. Returns the bytes written, or -1 with errno set (EAGAIN: it
 * would have waited). [any thread], callable from a signal handler */
ssize_t process_write_now(int32_t fd, const void* data, size_t length) noexcept;

/* Flushes the standard output unless that would wait: for a thread that holds the stream, for a
 * reader, or, but into a file, with more than PIPE_BUF bytes buffered. [any thread] */
void process_flush_output(void) noexcept;

/* Ends the process at once with a status: flushes the standard output as above, runs no handler and
 * no destructor, so that it is safe with other threads alive and locks held. */
[[noreturn]] void process_end(int32_t status) noexcept;

/* Kernel id of the calling thread. */
int32_t process_thread_id(void) noexcept;
}

#endif
