#include "focus.h"

#include <condition_variable>
#include <list>
#include <map>
#include <mutex>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <nowplaying.h>
#include <veloran/lock.h>
#include <veloran/server_object.h>

#include "../tools/nowplayingd/control.h" /* not the service's */
#include "arbiter.h"
#include "input.h"
#include "message.h"

namespace {

constexpr const char* OBJECT = "/pps/services/multimedia/mediaplayer/control";
constexpr int ROUNDS = 1000;        /* after which arbiter and players ought to rest */
constexpr time_t PATIENCE = 20;     /* s that a loaded machine may take for an answer */
constexpr int CONNECT_AGAIN = 1000; /* ms; what a player's thread waits between two looks */
constexpr uint64_t FIRST_OUTSIDER = 1000000;

/* A player's thread, and where it is. */
enum class doing { working, looking, listening };
struct focus_thread {
    player* owner;
    int clock;   /* eventfd; readable when a second has passed */
    doing state; /* guarded by lock, like fd */
    int fd;      /* of the arbiter, while it listens */
};

std::mutex lock;
std::condition_variable changed;
std::list<focus_thread*> threads; /* guarded by lock */
thread_local focus_thread* self;

/* The arbiter. Whoever waits for it serves it. */
struct seat {
    int fd;
    bool ignored; /* asked, and gets no answer */
};
std::recursive_mutex arbiter_lock;
server_object* object;
std::map<uint64_t, seat> seats;
uint64_t next_seat = 1;
uint64_t next_outsider;
arbiter book;
bool mute;
bool orderly;

void mark(doing state, int fd) {
    const std::lock_guard<std::mutex> guard(lock);
    self->state = state;
    self->fd = fd;
    changed.notify_all();
}

} // namespace

extern "C" {
int __real_poll(pollfd* entries, nfds_t count, int timeout);
int __real_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  clockid_t clock, const timespec* deadline);
void* __real_monitor_nowplaying_pps(void* player) noexcept;
}

namespace {

bool is_readable(int fd) {
    pollfd entry = {fd, POLLIN, 0};
    return __real_poll(&entry, 1, 0) != 0;
}

bool rests(const focus_thread& thread) {
    return (thread.state == doing::looking && !is_readable(thread.clock)) ||
           (thread.state == doing::listening && !is_readable(thread.fd));
}

bool all_rest(void) {
    for (int32_t i = 0; i < mmcontrol.players.count; ++i) {
        const auto found =
            std::find_if(threads.begin(), threads.end(), [i](const focus_thread* thread) {
                return thread->owner == mmcontrol.players.items[i];
            });
        if (found == threads.end() || !rests(**found)) {
            return false;
        }
    }
    return true;
}

void await_threads(bool (*is_so)(void)) {
    std::unique_lock<std::mutex> guard(lock);
    changed.wait(guard, is_so);
}

void send(const arbiter_messages& out) {
    for (const arbiter_message& message : out) {
        const auto found = seats.find(message.to);
        if (found != seats.end()) {
            const char* text = message_text(message.order);
            (void)server_object_write(found->second.fd, text, strlen(text));
        }
    }
}

void take(uint64_t id, const char* text) {
    arbiter_messages out;
    message parsed;
    std::string why;
    require(message_parse(text, &parsed, &why), "players write what the arbiter understands");
    switch (parsed.verb) {
    case MESSAGE_REGISTER:
        require(arbiter_join(&book, id, parsed.words), "a player registers once");
        break;
    case MESSAGE_ACQUIRE:
        seats.at(id).ignored = mute;
        if (!mute) {
            arbiter_acquire(&book, id, &out);
        }
        mute = false;
        break;
    case MESSAGE_RELEASE:
        arbiter_release(&book, id, &out);
        break;
    case MESSAGE_STATE:
        arbiter_report(&book, id, parsed.state, &out);
        break;
    }
    send(out);
}

/* Takes what one client has written; false when it has gone. */
bool read_seat(uint64_t id, int fd, bool* happened) {
    for (;;) {
        char* text = nullptr;
        const int64_t length = server_object_read(fd, &text);
        const vel_text owner(text);
        if (length < 0) {
            return errno == EAGAIN;
        }
        *happened = true;
        take(id, text);
    }
}

/* Serves the arbiter's clients; true when one of them had something to say. */
bool serve(void) {
    const std::lock_guard<std::recursive_mutex> guard(arbiter_lock);
    bool happened = false;
    int fd = -1;
    while (object != nullptr && (fd = server_object_accept(object)) >= 0) {
        seats[next_seat++] = {fd, false};
        happened = true;
    }
    for (auto entry = seats.begin(); entry != seats.end();) {
        if (read_seat(entry->first, entry->second.fd, &happened)) {
            ++entry;
            continue;
        }
        arbiter_messages out;
        arbiter_leave(&book, entry->first, &out);
        close(entry->second.fd);
        entry = seats.erase(entry);
        send(out);
        happened = true;
    }
    return happened;
}

/* The player whose thread waits for the focus with this mutex; null when it is another one. */
bool waits_for_focus(const pthread_mutex_t* mutex) {
    const std::lock_guard<std::mutex> guard(lock);
    return std::any_of(threads.begin(), threads.end(), [mutex](const focus_thread* thread) {
        return &thread->owner->np_lock.native == mutex && thread->owner->np_waiting == 1;
    });
}

/* Nobody answers one of those who asked. */
bool take_ignored(void) {
    const std::lock_guard<std::recursive_mutex> guard(arbiter_lock);
    bool any = false;
    for (auto& [id, seat] : seats) {
        any = any || seat.ignored;
        seat.ignored = false;
    }
    return any;
}

int poll_as_player(pollfd* entries, nfds_t count, int timeout) {
    if (timeout == -1 && count == 2) {
        mark(doing::listening, entries[1].fd);
        const int result = __real_poll(entries, count, -1);
        mark(doing::working, -1);
        return result;
    }
    if (timeout != CONNECT_AGAIN) {
        return __real_poll(entries, count, std::min(timeout, 10));
    }
    pollfd both[] = {entries[0], {self->clock, POLLIN, 0}};
    mark(doing::looking, -1);
    (void)__real_poll(both, 2, -1);
    mark(doing::working, -1);
    uint64_t ticks = 0;
    (void)!read(self->clock, &ticks, sizeof ticks);
    entries[0].revents = both[0].revents;
    return entries[0].revents != 0 ? 1 : 0;
}

} // namespace

/* What the linker puts in the place of the players' threads, their waits, and the waits for them.
 */
extern "C" {

void* __wrap_monitor_nowplaying_pps(void* owner) noexcept {
    focus_thread thread = {static_cast<player*>(owner), eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK),
                           doing::working, -1};
    {
        const std::lock_guard<std::mutex> guard(lock);
        threads.push_back(&thread);
    }
    self = &thread;
    (void)__real_monitor_nowplaying_pps(owner);
    self = nullptr;
    const std::lock_guard<std::mutex> guard(lock);
    close(thread.clock);
    threads.remove(&thread);
    changed.notify_all();
    return nullptr;
}

int __wrap_poll(pollfd* entries, nfds_t count, int timeout) {
    return self != nullptr ? poll_as_player(entries, count, timeout)
                           : __real_poll(entries, count, timeout);
}

int __wrap___poll_chk(pollfd* entries, nfds_t count, int timeout, size_t) {
    return __wrap_poll(entries, count, timeout);
}

int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  clockid_t clock, const timespec* deadline) {
    if (!waits_for_focus(mutex)) {
        return __real_pthread_cond_clockwait(condition, mutex, clock, deadline);
    }
    (void)serve();
    if (take_ignored()) {
        return ETIMEDOUT;
    }
    const timespec later = {deadline->tv_sec + PATIENCE, deadline->tv_nsec};
    return __real_pthread_cond_clockwait(condition, mutex, clock, &later);
}
}

void focus_begin(bool there, unsigned policy) {
    static constexpr policy_answer equal[] = {POLICY_TAKES, POLICY_WAITS, POLICY_REFUSED,
                                              POLICY_TAKES};
    book = {};
    book.rules = policy_default();
    book.rules.equal = equal[policy & 3];
    book.rules.lower = (policy & 4) != 0 ? POLICY_WAITS : POLICY_REFUSED;
    next_seat = 1;
    next_outsider = FIRST_OUTSIDER;
    mute = false;
    orderly = there;
    if (there) {
        focus_come();
    }
}

void focus_come(void) {
    if (object == nullptr) {
        object = server_object_create(OBJECT, 0666);
        require(object != nullptr, "the control object");
    }
}

void focus_go(void) {
    orderly = false;
    server_object_destroy(object);
    object = nullptr;
    for (const auto& [id, seat] : seats) {
        close(seat.fd);
    }
    seats.clear();
    book.members.clear();
    book.holder = 0;
}

void focus_tick(void) {
    const std::lock_guard<std::mutex> guard(lock);
    const uint64_t one = 1;
    for (const focus_thread* thread : threads) {
        if (thread->state == doing::looking) {
            (void)!write(thread->clock, &one, sizeof one);
        }
    }
}

void focus_rest(void) {
    int rounds = 0;
    do {
        require(++rounds < ROUNDS, "arbiter and players come to rest");
        await_threads(all_rest);
    } while (serve());
}

void focus_mute(void) {
    mute = true;
    orderly = false;
}

void focus_ask(const std::string& request) {
    arbiter_messages out;
    (void)control_answer(&book, request, next_outsider++, &out);
    send(out);
}

void focus_say(unsigned client, const std::string& text) {
    if (!seats.empty()) {
        const auto chosen = std::next(seats.begin(), client % static_cast<unsigned>(seats.size()));
        (void)server_object_write(chosen->second.fd, text.data(), text.size());
        orderly = false;
    }
}

bool focus_is_orderly(void) {
    return orderly;
}

void focus_end(void) {
    focus_go();
    await_threads([] { return threads.empty(); });
}
