#include "server.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <memory>
#include <system_error>

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <veloran/closer.h>
#include <veloran/lock.h>
#include <veloran/paths.h>
#include <veloran/server_object.h>

#include "exchange.h"
#include "log.h"
#include "notify.h"

namespace {

constexpr int EVENTS_AT_ONCE = 64;
constexpr int ACCEPTS_AT_ONCE = 16;
constexpr int ACCEPT_PAUSE_MS = 500; /* when there was no descriptor for a newcomer */
constexpr int32_t REFUSED_MAX = 64;  /* newcomers turned away and not closed yet */
constexpr uid_t NOBODY = static_cast<uid_t>(-1);

/* Entries of epoll that are no peers; peers' ids lie above. */
enum entry : uint64_t { ENTRY_SIGNALS = 1, ENTRY_CLIENTS = 2, ENTRY_PERSONS = 3, ENTRY_LAST = 15 };

struct object_release {
    void operator()(server_object* object) const noexcept { server_object_destroy(object); }
};
using object_owner = std::unique_ptr<server_object, object_release>;

struct server {
    vel_fd epoll;
    vel_fd signals;
    object_owner clients;
    object_owner persons;
    bool accepting = true;
    bool ending = false;
    exchange traffic;
};

std::string error_text(int32_t error) {
    return std::system_category().message(error);
}

bool watch(const server& server, int operation, uint64_t entry, int fd, bool listen) {
    epoll_event event = {};
    event.events = listen ? uint32_t{EPOLLIN} : 0;
    event.data.u64 = entry;
    return epoll_ctl(server.epoll.value, operation, fd, &event) == 0;
}

/* Newcomers are left waiting while there is no descriptor for them. */
void set_accepting(server* server, bool accepting) {
    if (server->accepting != accepting) {
        (void)watch(*server, EPOLL_CTL_MOD, ENTRY_CLIENTS,
                    server_object_descriptor(server->clients.get()), accepting);
        (void)watch(*server, EPOLL_CTL_MOD, ENTRY_PERSONS,
                    server_object_descriptor(server->persons.get()), accepting);
        server->accepting = accepting;
    }
}

void accept_peers(server* server, bool persons) {
    server_object* object = persons ? server->persons.get() : server->clients.get();
    for (int count = 0; count < ACCEPTS_AT_ONCE; count++) {
        const int fd = server_object_accept(object);
        if (fd < 0) {
            if (errno != EAGAIN) {
                log_line(LOG_ODD, "nobody is accepted: " + error_text(errno));
                set_accepting(server, false);
            }
            return;
        }
        if (peer_add(&server->traffic.peers, fd, persons) == 0) {
            log_line(LOG_ODD, "a newcomer is turned away: there are too many");
            if (closer_close(fd, closer_sockets_of(NOBODY)) > REFUSED_MAX) {
                set_accepting(server, false);
                return;
            }
        }
    }
}

void serve_event(server* server, const epoll_event& event) {
    switch (event.data.u64) {
    case ENTRY_SIGNALS:
        server->ending = true;
        break;
    case ENTRY_CLIENTS:
    case ENTRY_PERSONS:
        accept_peers(server, event.data.u64 == ENTRY_PERSONS);
        break;
    default:
        exchange_serve(&server->traffic, event.data.u64,
                       (event.events & (EPOLLHUP | EPOLLERR)) != 0);
    }
}

/* Milliseconds to sleep at the most; without end, unless something was put off. */
int patience(const server& server) {
    return server.traffic.peers.muted > 0 ? static_cast<int>(PEER_REFILL_MS)
           : server.accepting             ? -1
                                          : ACCEPT_PAUSE_MS;
}

bool serve(server* server, std::string* why) {
    while (!server->ending) {
        epoll_event events[EVENTS_AT_ONCE];
        const int count =
            epoll_wait(server->epoll.value, events, EVENTS_AT_ONCE, patience(*server));
        if (count < 0 && errno != EINTR) {
            *why = "waiting fails: " + error_text(errno);
            return false;
        }
        for (int i = 0; i < count; i++) {
            serve_event(server, events[i]);
        }
        if (count == 0) {
            set_accepting(server, true);
        }
        if (server->traffic.peers.muted > 0) {
            peer_refill(&server->traffic.peers);
        }
    }
    return true;
}

bool create_object(object_owner* object, const char* path, mode_t mode, std::string* why) {
    object->reset(server_object_create(path, mode));
    if (*object != nullptr) {
        return true;
    }
    *why = errno == EEXIST ? std::string("another arbiter runs, or a file stands in the way: ")
                           : "cannot serve: " + error_text(errno) + ": ";
    *why += path;
    return false;
}

bool open_signals(server* server) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&set, number);
    }
    server->signals.value =
        sigprocmask(SIG_BLOCK, &set, nullptr) == 0 ? signalfd(-1, &set, SFD_CLOEXEC) : -1;
    return server->signals.value >= 0;
}

bool begin(server* server, std::string* why) {
    server->epoll.value = epoll_create1(EPOLL_CLOEXEC);
    server->traffic.peers.epoll = server->epoll.value;
    server->traffic.peers.last_id = ENTRY_LAST;
    peer_set_limit(&server->traffic.peers);
    char reason[PATH_MAX + 128];
    if (paths_make_roots(reason, sizeof reason) != 0) {
        *why = std::string("cannot use the directory ") + reason;
        return false;
    }
    if (!open_signals(server) || server->epoll.value < 0) {
        *why = "cannot wait for events: " + error_text(errno);
        return false;
    }
    if (!create_object(&server->clients, SERVER_CLIENTS, 0666, why) ||
        !create_object(&server->persons, SERVER_PERSONS, 0600, why)) {
        return false;
    }
    const int clients = server_object_descriptor(server->clients.get());
    const int persons = server_object_descriptor(server->persons.get());
    if (!watch(*server, EPOLL_CTL_ADD, ENTRY_SIGNALS, server->signals.value, true) ||
        !watch(*server, EPOLL_CTL_ADD, ENTRY_CLIENTS, clients, true) ||
        !watch(*server, EPOLL_CTL_ADD, ENTRY_PERSONS, persons, true)) {
        *why = "cannot wait for events: " + error_text(errno);
        return false;
    }
    return true;
}

} // namespace

bool server_run(const policy& rules, std::string* why) {
    server server;
    server.traffic.focus.rules = rules;
    if (!begin(&server, why)) {
        return false;
    }
    log_line(LOG_EVENT, std::string("serves ") + SERVER_CLIENTS);
    notify_manager("READY=1");
    const bool served = serve(&server, why);
    notify_manager("STOPPING=1");
    log_line(LOG_EVENT, "ends");
    server.persons.reset();
    server.clients.reset();
    while (!server.traffic.peers.peers.empty()) {
        peer_remove(&server.traffic.peers, server.traffic.peers.peers.begin()->first);
    }
    return served;
}
