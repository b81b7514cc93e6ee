#include <veloran/process.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <poll.h>
#include <stdio_ext.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr int FIRST_OWN_DESCRIPTOR = 3;

void close_own_descriptors() {
    if (syscall(SYS_close_range, FIRST_OWN_DESCRIPTOR, ~0U, 0) == 0) {
        return;
    }
    const long limit = sysconf(_SC_OPEN_MAX); /* an older kernel */
    for (int fd = FIRST_OWN_DESCRIPTOR; fd < limit; fd++) {
        close(fd);
    }
}

int32_t redirect_standard_descriptors() {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null < 0) {
        return -1;
    }
    int32_t result = 0;
    for (int fd = 0; fd < FIRST_OWN_DESCRIPTOR; fd++) {
        if (fd != null && dup2(null, fd) < 0) {
            result = -1;
        }
    }
    if (null >= FIRST_OWN_DESCRIPTOR) {
        close(null);
    }
    return result;
}

/* A pipe that is ready takes PIPE_BUF bytes at once. */
bool is_ready(int fd) {
    pollfd ready = {fd, POLLOUT, 0};
    return poll(&ready, 1, 0) == 1;
}

mode_t type_of(int fd) {
    struct stat status = {};
    return fstat(fd, &status) == 0 ? status.st_mode & S_IFMT : 0;
}

/* False when output stays behind because writing it would wait. */
bool flush_now() {
    if (ftrylockfile(stdout) != 0) {
        return false;
    }
    const size_t pending = __fpending(stdout);
    const int fd = fileno(stdout);
    const bool goes = type_of(fd) == S_IFREG || (pending <= PIPE_BUF && is_ready(fd));
    if (pending > 0 && goes) {
        fflush_unlocked(stdout);
    }
    funlockfile(stdout);
    return pending == 0 || goes;
}

/* Another writer may fill the pipe after it was found ready; older kernels do not know the flag for
 * pipes. */
ssize_t write_to_pipe(int fd, const void* data, size_t length) {
    const iovec part = {const_cast<void*>(data), length};
    const ssize_t written = pwritev2(fd, &part, 1, -1, RWF_NOWAIT);
    return written < 0 && errno == EOPNOTSUPP ? write(fd, data, length) : written;
}

} // namespace

int32_t procmgr_daemon(int32_t status, uint32_t flags) noexcept {
    fflush(nullptr); /* else both halves write what is buffered */
    const pid_t child = fork();
    if (child < 0) {
        return -1;
    }
    if (child > 0) {
        _exit(status);
    }
    setsid();
    if ((flags & PROCMGR_DAEMON_NOCHDIR) == 0 && chdir("/") != 0) {
        return -1;
    }
    if ((flags & PROCMGR_DAEMON_NOCLOSE) == 0) {
        close_own_descriptors();
    }
    if ((flags & PROCMGR_DAEMON_KEEPUMASK) == 0) {
        umask(0);
    }
    return (flags & PROCMGR_DAEMON_NODEVNULL) == 0 ? redirect_standard_descriptors() : 0;
}

int32_t setprio(int32_t pid, int32_t priority) noexcept {
    int64_t nice_value = static_cast<int64_t>(PROCESS_PRIORITY_ORDINARY) - priority;
    nice_value = nice_value < -20 ? -20 : nice_value > 19 ? 19 : nice_value;
    return setpriority(PRIO_PROCESS, static_cast<id_t>(pid), static_cast<int>(nice_value));
}

int32_t process_fill_standard_descriptors(void) noexcept {
    for (;;) {
        const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
        if (fd < 0) {
            return -1;
        }
        if (fd >= FIRST_OWN_DESCRIPTOR) {
            close(fd);
            return 0;
        }
        fcntl(fd, F_SETFD, 0); /* children shall find it filled as well */
    }
}

ssize_t process_write_now(int32_t fd, const void* data, size_t length) noexcept {
    length = length < PIPE_BUF ? length : PIPE_BUF;
    if (!is_ready(fd)) {
        errno = EAGAIN;
        return -1;
    }
    const mode_t type = type_of(fd);
    ssize_t written = 0;
    do {
        written = type == S_IFSOCK  ? send(fd, data, length, MSG_DONTWAIT | MSG_NOSIGNAL)
                  : type == S_IFIFO ? write_to_pipe(fd, data, length)
                                    : write(fd, data, length);
    } while (written < 0 && errno == EINTR);
    return written;
}

void process_flush_output(void) noexcept {
    if (__fpending(stdout) > 0) { /* looked at without the lock: this is on every log line's way */
        (void)flush_now();
    }
}

void process_end(int32_t status) noexcept {
    if (!flush_now()) {
        /* The exit function of a sanitizer would flush again, and wait. */
        syscall(SYS_exit_group, status);
    }
    _exit(status);
}

int32_t process_thread_id(void) noexcept {
    return gettid();
}
