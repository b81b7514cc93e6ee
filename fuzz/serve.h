/* Running a message server by the thread that also plays its clients. */
#ifndef FUZZ_SERVE_H
#define FUZZ_SERVE_H

#include <string>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <veloran/closer.h>
#include <veloran/message.h>

#include "input.h"
#include "msgserver.h"

/* Lets the server, and who closes for it, work until they have nothing to do. It is woken each
 * time, so that it never waits for a client: here nobody else would send. */
inline void serve_all(msgserver* server) {
    pollfd channel = {server->chid, POLLIN, 0};
    for (closer_wait(); poll(&channel, 1, 0) == 1; closer_wait()) {
        require(message_wake(server->dispatch) == 0, "the server can be woken");
        do {
            (void)msgserver_receive(server);
            (void)msgserver_dispatch(server);
        } while (msgserver_context(server)->info.pulse != MESSAGE_PULSE_WAKE);
    }
}

/* A client's socket to a service that is served here; the caller's. */
inline int connect_to(const char* service) {
    const std::string path = fuzz_root() + "/run/sys/csm/" + service + "/default";
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    require(path.size() < sizeof address.sun_path, "a path that is short enough");
    path.copy(address.sun_path, path.size());
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    require(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
            "a client can connect");
    return fd;
}

#endif
