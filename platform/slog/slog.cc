#include <veloran/slog.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <veloran/escape.h>

namespace {

constexpr const char* SYSTEM_LOGGER = "/dev/log";
constexpr int FACILITY_DAEMON = 3 << 3;
constexpr size_t TAG_SIZE = 64;

/* The state word is the only hand-shake: whoever turns `closed` into `opening` fills in the rest
 * and ends with `open`. Somebody who meets `opening` (a second thread, or a signal handler on top
 * of the opener) drops its line, so nobody ever waits. */
enum sink_state : int { closed, opening, open_file, open_socket };
std::atomic<int> state{closed};
std::atomic<uint64_t> dropped{0};
std::atomic<bool> torn{false}; /* the file ends inside a line: its disk was full */
int sink_fd = -1;
sockaddr_un address;
char tag[TAG_SIZE] = "";

/* The logger's own severity (0 to 7) of one of ours. */
int logger_severity(int32_t severity) {
    static constexpr int table[] = {2, 2, 3, 4, 5, 6, 7, 7};
    return table[severity < 0 ? 0 : severity > 7 ? 7 : severity];
}

int open_regular(const char* path) {
    const int fd =
        open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0640);
    struct stat status = {};
    if (fd >= 0 && (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode))) {
        close(fd);
        return -1;
    }
    return fd;
}

/* The socket stays unconnected: each line finds the logger anew, also one that was restarted. */
int open_datagram(const char* path) {
    if (strlen(path) >= sizeof address.sun_path) {
        return -1;
    }
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, path);
    return socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

/* Called in the state `opening`; the state to go on with. */
int open_sink() {
    const char* named = secure_getenv("VELORAN_SLOG");
    if (named != nullptr && strncmp(named, "file:", 5) == 0) {
        sink_fd = open_regular(named + 5);
        return sink_fd < 0 ? closed : open_file;
    }
    const bool other_socket = named != nullptr && strncmp(named, "unix:", 5) == 0;
    sink_fd = open_datagram(other_socket ? named + 5 : SYSTEM_LOGGER);
    return sink_fd < 0 ? closed : open_socket;
}

/* Appends to a buffer of `size` bytes; what does not fit is cut off. The new length. */
size_t append(char* buffer, size_t length, size_t size, const char* text, size_t text_length) {
    const size_t fitting = text_length < size - length ? text_length : size - length;
    memcpy(buffer + length, text, fitting);
    return length + fitting;
}

size_t append_number(char* buffer, size_t length, size_t size, int number) {
    char digits[16];
    const char* end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    return append(buffer, length, size, digits, static_cast<size_t>(end - digits));
}

bool send_datagram(int32_t severity, const char* text, size_t text_length) {
    char header[TAG_SIZE + 40];
    size_t length = append(header, 0, sizeof header, "<", 1);
    length =
        append_number(header, length, sizeof header, FACILITY_DAEMON | logger_severity(severity));
    length = append(header, length, sizeof header, ">", 1);
    length = append(header, length, sizeof header, tag, strnlen(tag, TAG_SIZE));
    length = append(header, length, sizeof header, "[", 1);
    length = append_number(header, length, sizeof header, getpid());
    length = append(header, length, sizeof header, "]: ", 3);
    char shown[SLOG_TEXT_MAX];
    const size_t shown_length =
        escape_text(shown, sizeof shown, text, text_length, ESCAPE_KEEP_BYTES | ESCAPE_KEEP_LINES);
    iovec parts[] = {{header, length}, {shown, shown_length}};
    msghdr message = {};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    return sendmsg(sink_fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

/* A line behind one that the disk had no room for begins on a line of its own. */
bool write_line(int32_t severity, const char* text, size_t text_length) {
    char line[SLOG_TEXT_MAX + 16];
    const bool mend = torn.exchange(false, std::memory_order_relaxed);
    size_t length = append(line, 0, sizeof line, "\n", mend ? 1 : 0);
    length = append_number(line, length, sizeof line, severity);
    line[length++] = ' ';
    length += escape_text(line + length, SLOG_TEXT_MAX, text, text_length, ESCAPE_KEEP_BYTES);
    line[length++] = '\n';
    const ssize_t written = write(sink_fd, line, length);
    if (written == static_cast<ssize_t>(length)) {
        return true;
    }
    if (written > 0 || mend) {
        torn.store(true, std::memory_order_relaxed);
    }
    return false;
}

} // namespace

void slog_close(void) noexcept {
    const int saved = errno;
    const int was = state.exchange(closed, std::memory_order_acq_rel);
    if (was == open_file || was == open_socket) {
        close(sink_fd);
        sink_fd = -1;
    }
    errno = saved;
}

void slog_open(const char* program) noexcept {
    const int saved = errno;
    slog_close();
    state.store(opening, std::memory_order_relaxed);
    const size_t length = strnlen(program, TAG_SIZE - 1);
    memcpy(tag, program, length);
    tag[length] = '\0';
    state.store(open_sink(), std::memory_order_release);
    errno = saved;
}

int32_t slogb(int32_t, int32_t severity, const char* text, size_t length) noexcept {
    const int saved = errno;
    int now = state.load(std::memory_order_acquire);
    if (now == closed && state.compare_exchange_strong(now, opening, std::memory_order_acquire)) {
        now = open_sink();
        state.store(now, std::memory_order_release);
    }
    const bool written = (now == open_file && write_line(severity, text, length)) ||
                         (now == open_socket && send_datagram(severity, text, length));
    if (!written) {
        dropped.fetch_add(1, std::memory_order_relaxed);
    }
    errno = saved;
    return written ? 0 : -1;
}

uint64_t slog_dropped(void) noexcept {
    return dropped.load(std::memory_order_relaxed);
}
