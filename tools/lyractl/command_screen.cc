// A player on the terminal: what plays, how far it is, and keys to steer it; without a terminal the
// same in plain lines.
#include "commands.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <system_error>

#include <poll.h>

#include <veloran/lock.h>

#include "choose.h"
#include "enter.h"
#include "interrupt.h"
#include "output.h"
#include "playing.h"
#include "resume.h"
#include "terminal.h"
#include "text.h"

namespace {

using clock_type = std::chrono::steady_clock;

constexpr std::chrono::milliseconds SOURCE_PATIENCE(10000); /* for a media source to appear */
constexpr int32_t SOURCE_ASK_AGAIN = 250;                   /* ms */
constexpr int MAKE_AGAIN = 4;        /* how often a refused track session is tried again */
constexpr int64_t PLAIN_STEP = 2000; /* ms of a track between two plain lines */

enum class step { go_on, leave, fail };

struct screen {
    const arguments* what = nullptr;
    connection* to = nullptr; /* borrowed; the player is open on it */
    watch watching;
    playing now;
    bool terminal = false;
    bool existed = false; /* the player was there before we opened it */
    bool started = false; /* it plays, as we wanted */
    std::string said;     /* the last complaint */
    clock_type::time_point end;

    /* Plain lines only: what was said last. */
    std::string said_track;
    std::string said_status;
    int64_t said_position = 0; /* ms */
};

/* --- Making music -------------------------------------------------------------------- */

/* Takes what was published. False when the player has gone. */
bool take_changes(screen* screen) {
    std::vector<watch_change> changes;
    const bool there = watch_take(&screen->watching, &changes);
    for (const watch_change& change : changes) {
        playing_apply(&screen->now, change);
    }
    return there;
}

/* A service that has just started may not have met its media sources yet. Every player is told
 * when one arrives; whoever asks a moment too early asks again. */
bool await_source(screen* screen, request_source* source) {
    const auto deadline = clock_type::now() + SOURCE_PATIENCE;
    for (;;) {
        std::vector<request_source> sources;
        if (!request_sources(screen->to, &sources)) {
            return false;
        }
        const request_source* found =
            choose_source(screen->what->source, sources, &screen->to->why);
        if (found != nullptr) {
            *source = *found;
            return true;
        }
        if (!sources.empty() || clock_type::now() >= deadline) {
            return false;
        }
        pollfd waiting = {watch_fd(screen->watching), POLLIN, 0};
        poll(&waiting, 1, SOURCE_ASK_AGAIN);
        take_changes(screen);
    }
}

/* A service that brings its players back has them before it serves anybody; their sessions follow
 * when the media source is there. So a player that was not there gets none. False when the service
 * does not answer, or a signal came: what is to come back is not given up for that. */
bool await_session(screen* screen, int signals) {
    const auto deadline = clock_type::now() + std::chrono::seconds(screen->what->resume);
    while (screen->existed && clock_type::now() < deadline) {
        request_session session;
        if (!request_get_session(screen->to, &session) || session.exists) {
            return session.exists;
        }
        pollfd waiting[] = {{watch_fd(screen->watching), POLLIN, 0}, {signals, POLLIN, 0}};
        poll(waiting, 2, SOURCE_ASK_AGAIN);
        if (waiting[1].revents != 0) {
            screen->to->why = "interrupted";
            return false;
        }
        take_changes(screen);
    }
    return true;
}

/* A plug-in refuses a source that it is just reporting; a moment later it does not. */
bool make_session(screen* screen, int32_t source, int signals) {
    const arguments& what = *screen->what;
    for (int refused = 0;; ++refused) {
        std::string folder;
        request_session session;
        if (choose_folder(screen->to, source, what.folder, &folder) &&
            session_make(screen->to, source, folder, what.expected, what.start, &session)) {
            return true;
        }
        pollfd waiting = {signals, POLLIN, 0};
        if (refused == MAKE_AGAIN || poll(&waiting, 1, SOURCE_ASK_AGAIN) != 0) {
            return false;
        }
    }
}

bool start_playing(screen* screen, int signals) {
    request_source source;
    bool resumed = false;
    int32_t result = 0;
    const arguments& what = *screen->what;
    connection* to = screen->to;
    if (!await_source(screen, &source)) {
        return false;
    }
    if (what.resume >= 0 &&
        (!await_session(screen, signals) || !resume_session(to, source.id, &resumed))) {
        return false;
    }
    if (!resumed && !make_session(screen, source.id, signals)) {
        return false;
    }
    if (!request_command(to, LYR_MSG_PLAY, &result)) {
        return false;
    }
    if (result != 0) {
        to->why = "the player cannot play (result " + std::to_string(result) + ")";
    }
    screen->started = true;
    return result == 0;
}

/* --- Showing it ---------------------------------------------------------------------- */

bool show_on_terminal(screen* screen) {
    int32_t columns = 0;
    int32_t rows = 0;
    terminal_size(&columns, &rows);
    const std::string& note = screen->said.empty() ? screen->what->note : screen->said;
    return terminal_show(playing_screen(screen->now, note, columns, rows));
}

std::string plain_time(const playing& now) {
    const std::string end = now.duration > 0 ? " / " + text_clock(now.duration) : "";
    return "  " + text_clock(now.position) + end;
}

bool show_plainly(screen* screen) {
    const playing& now = screen->now;
    std::string text;
    const std::string track = std::to_string(now.index) + " " + now.node;
    if (now.has_track && track != screen->said_track) {
        text += "Track " + std::to_string(now.index + 1) + " of " + std::to_string(now.length) +
                ": " + playing_line(now) + "\n";
        screen->said_track = track;
        screen->said_position = now.position;
    }
    if (now.status != screen->said_status) {
        text += "  " + text_printable(now.status) + "\n";
        screen->said_status = now.status;
    }
    if (std::abs(now.position - screen->said_position) >= PLAIN_STEP) {
        text += plain_time(now) + "\n";
        screen->said_position = now.position;
    }
    return text.empty() || output_text(text);
}

/* --- Events -------------------------------------------------------------------------- */

uint16_t request_of_key(const screen& screen, int32_t key) {
    switch (key) {
    case ' ':
    case 'p':
        return screen.now.status == "playing" ? LYR_MSG_PAUSE : LYR_MSG_PLAY;
    case 's':
        return LYR_MSG_STOP;
    case 'n':
        return LYR_MSG_NEXT;
    case 'b':
        return LYR_MSG_PREVIOUS;
    default:
        return 0;
    }
}

step take_keys(screen* screen) {
    for (int32_t key; (key = terminal_key()) != 0;) {
        if (key < 0 || key == 'q' || key == 'Q') {
            return step::leave;
        }
        const uint16_t type = request_of_key(*screen, key);
        int32_t result = 0;
        if (type == 0) {
            continue;
        }
        if (!request_command(screen->to, type, &result)) {
            return step::fail;
        }
        screen->said = result == 0 ? "" : "The player does not do that now.";
        take_changes(screen);
    }
    return step::go_on;
}

step take_signals(int descriptor) {
    step next = step::go_on;
    for (int number; (number = interrupt_take(descriptor)) != 0;) {
        if (number != SIGWINCH) {
            next = step::leave;
        }
    }
    return next;
}

/* Milliseconds until the time is up, -1 for ever. */
int time_left(const screen& screen) {
    if (screen.what->seconds < 0) {
        return -1;
    }
    using std::chrono::milliseconds;
    const auto left = std::chrono::ceil<milliseconds>(screen.end - clock_type::now()).count();
    return static_cast<int>(std::max<int64_t>(left, 0));
}

/* Waits for the next thing to happen and deals with it. */
step wait_and_act(screen* screen, int signals) {
    pollfd waiting[] = {{watch_fd(screen->watching), POLLIN, 0},
                        {signals, POLLIN, 0},
                        {screen->to->client->coid, POLLRDHUP, 0},
                        {screen->terminal ? 0 : -1, POLLIN, 0}};
    const int left = time_left(*screen);
    if (left == 0) {
        return step::leave;
    }
    if (poll(waiting, 4, left) < 0 && errno != EINTR) {
        screen->to->why = std::system_category().message(errno);
        return step::fail;
    }
    if ((waiting[2].revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0) {
        screen->to->why = "the service has ended";
        connection_abandon(screen->to);
        return step::fail;
    }
    if (take_signals(signals) == step::leave) {
        return step::leave;
    }
    return waiting[3].revents != 0 ? take_keys(screen) : step::go_on;
}

/* Without anybody to press a key, and without a time to wait for, the end of the music is the end.
 */
bool music_is_over(const screen& screen) {
    return screen.started && !screen.terminal && screen.what->seconds < 0 &&
           (screen.now.status == "stopped" || screen.now.status == "idle");
}

bool run(screen* screen, int signals) {
    for (;;) {
        if (!take_changes(screen)) {
            screen->to->why = "the player has gone";
            return false;
        }
        if (!(screen->terminal ? show_on_terminal(screen) : show_plainly(screen)) ||
            music_is_over(*screen)) {
            return true;
        }
        const step next = wait_and_act(screen, signals);
        if (next != step::go_on) {
            return next == step::leave;
        }
    }
}

} // namespace

bool command_screen(const arguments& what, std::string* why) {
    screen screen;
    screen.existed = what.playlist && enter_exists(what.player);
    const connection_owner to = what.playlist ? enter_new(what, why) : enter_existing(what, why);
    if (to == nullptr) {
        return false;
    }
    screen.what = &what;
    screen.to = to.get();
    screen.end = clock_type::now() + std::chrono::seconds(std::max(what.seconds, 0));
    signal(SIGPIPE, SIG_IGN);
    const vel_fd signals(interrupt_descriptor());
    if (!watch_open(&screen.watching, to->player, why)) {
        return false;
    }
    bool well = !what.playlist || start_playing(&screen, signals.value);
    screen.terminal = terminal_there();
    if (well && screen.terminal) {
        std::atexit(terminal_end);
        screen.terminal = terminal_begin();
    }
    well = well && run(&screen, signals.value);
    terminal_end();
    if (well && what.resume >= 0) {
        connection_abandon(to.get()); /* so that there is something to go on with */
    }
    if (!well || !connection_leave(to.get())) {
        *why = to->why;
        return false;
    }
    return true;
}
