#include <veloran/process.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
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

void process_end(int32_t status) noexcept {
    fflush(stdout);
    _exit(status);
}

int32_t process_thread_id(void) noexcept {
    return gettid();
}
