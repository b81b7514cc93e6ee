/* What peers and the arbiter say to each other. */
#ifndef NOWPLAYINGD_EXCHANGE_H
#define NOWPLAYINGD_EXCHANGE_H

#include "arbiter.h"
#include "peer.h"

/* Clients are members of the arbiter once they have registered, under their id as peers. */
struct exchange {
    peer_table peers;
    arbiter focus;
};

/* Takes what a peer has sent, as much as it may say now, and sends what follows from it; `ended`
 * when its connection has. Peers that are gone, or do not take their messages, are removed. */
void exchange_serve(exchange* exchange, uint64_t id, bool ended);

#endif
