#include "terminal.h"

#include <cerrno>
#include <cstdlib>
#include <string_view>

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace {

/* What every terminal of the last decades understands. */
constexpr std::string_view BEGIN = "\x1B[?1049h\x1B[?25l\x1B[2J";
constexpr std::string_view END = "\x1B[?25h\x1B[?1049l";
constexpr std::string_view HOME = "\x1B[H";
constexpr std::string_view LINE_END = "\x1B[K\r\n"; /* clears what stood behind */
constexpr std::string_view REST = "\x1B[J";         /* clears all below */
constexpr char ESCAPE = '\x1B';

bool taken = false;
termios before;

bool write_all(std::string_view text) {
    while (!text.empty()) {
        const ssize_t wrote = write(STDOUT_FILENO, text.data(), text.size());
        if (wrote < 0 && errno == EINTR) {
            continue;
        }
        if (wrote <= 0) {
            return false;
        }
        text.remove_prefix(static_cast<size_t>(wrote));
    }
    return true;
}

/* One byte of the keyboard: 1, 0 when there is none, -1 at the end. */
int32_t read_byte(unsigned char* byte) {
    const ssize_t got = read(STDIN_FILENO, byte, 1);
    if (got != 0) {
        return got > 0 ? 1 : errno == EINTR || errno == EAGAIN ? 0 : -1;
    }
    /* Without waiting, no byte and the end look the same. */
    pollfd waiting = {STDIN_FILENO, POLLIN, 0};
    return poll(&waiting, 1, 0) > 0 && (waiting.revents & POLLHUP) != 0 ? -1 : 0;
}

/* Passes over what a key sends behind the escape: "[" or "O", then up to a letter or "~". */
void skip_sequence() {
    unsigned char byte = 0;
    if (read_byte(&byte) <= 0 || (byte != '[' && byte != 'O')) {
        return;
    }
    while (read_byte(&byte) > 0 && (byte < '@' || byte > '~')) {
    }
}

} // namespace

bool terminal_there(void) {
    const char* kind = getenv("TERM");
    return isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1 && kind != nullptr &&
           std::string_view(kind) != "dumb";
}

bool terminal_begin(void) {
    if (tcgetattr(STDIN_FILENO, &before) != 0) {
        return false;
    }
    termios keys = before;
    keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    keys.c_cc[VMIN] = 0;
    keys.c_cc[VTIME] = 0;
    /* Being suspended would leave the terminal without echo. */
    keys.c_cc[VSUSP] = _POSIX_VDISABLE;
    if (tcsetattr(STDIN_FILENO, TCSANOW, &keys) != 0) {
        return false;
    }
    taken = true;
    return write_all(BEGIN);
}

void terminal_end(void) {
    if (!taken) {
        return;
    }
    taken = false;
    write_all(END);
    tcsetattr(STDIN_FILENO, TCSANOW, &before);
}

void terminal_size(int32_t* columns, int32_t* rows) {
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        size.ws_col = 80;
        size.ws_row = 24;
    }
    *columns = size.ws_col;
    *rows = size.ws_row;
}

bool terminal_show(const std::vector<std::string>& lines) {
    std::string text(HOME);
    for (size_t i = 0; i < lines.size(); i++) {
        text += lines[i];
        /* A line end in the last row would make the screen roll. */
        text += i + 1 < lines.size() ? LINE_END : LINE_END.substr(0, LINE_END.size() - 2);
    }
    text += REST;
    return write_all(text);
}

int32_t terminal_key(void) {
    unsigned char key = 0;
    for (;;) {
        const int32_t got = read_byte(&key);
        if (got <= 0) {
            return got;
        }
        if (key == ESCAPE) {
            skip_sequence();
        } else if (key != 0) {
            return key;
        }
    }
}
