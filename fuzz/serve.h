/* Running a message server by the thread that also plays its clients. */
#ifndef FUZZ_SERVE_H
#define FUZZ_SERVE_H

#include <poll.h>

#include <veloran/message.h>

#include "input.h"
#include "msgserver.h"

/* Lets the server work until it has nothing to do. It is woken each time, so that it never waits
 * for a client: here nobody else would send. */
inline void serve_all(msgserver* server) {
    pollfd channel = {server->chid, POLLIN, 0};
    while (poll(&channel, 1, 0) == 1) {
        require(message_wake(server->dispatch) == 0, "the server can be woken");
        do {
            (void)msgserver_receive(server);
            (void)msgserver_dispatch(server);
        } while (msgserver_context(server)->info.pulse != MESSAGE_PULSE_WAKE);
    }
}

#endif
