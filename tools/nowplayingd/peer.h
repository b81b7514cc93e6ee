/* Peers: the connections of a server object. */
#ifndef NOWPLAYINGD_PEER_H
#define NOWPLAYINGD_PEER_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>

#include <sys/types.h>

constexpr size_t PEERS_MAX = 1024;
constexpr int32_t PEER_BURST = 64;    /* messages that a client may send at once */
constexpr int64_t PEER_REFILL_MS = 2; /* time in which it may send one more */

struct peer {
    int fd = -1;
    bool person = false; /* came to the arbiter object */
    bool muted = false;  /* has said too much; is read again when it has credit */
    uid_t user = 0;
    int32_t credit = PEER_BURST;
    int64_t credited = 0; /* ms of the monotonic clock up to which credit was given */
};

/* Peers by id; ids start behind those that epoll entries use for other things. */
struct peer_table {
    int epoll = -1;
    size_t limit = PEERS_MAX; /* less when the process may have fewer descriptors */
    uint64_t last_id = 0;
    size_t muted = 0;
    std::map<uint64_t, peer> peers;
};

/* Milliseconds of the monotonic clock. */
int64_t peer_clock();

/* Raises the limit of descriptors as far as allowed, and sets the table's. */
void peer_set_limit(peer_table* table);

/* Takes a new connection, whose descriptor is the table's from now on: its id. 0 when there are too
 * many (of that user); the descriptor stays the caller's. */
uint64_t peer_add(peer_table* table, int fd, bool person);
void peer_remove(peer_table* table, uint64_t id);
peer* peer_find(peer_table* table, uint64_t id);

/* Uses up credit for one message. False when there is none: the peer is muted. */
bool peer_spend(peer_table* table, uint64_t id, peer* peer);
/* Gives credit to the muted ones, and listens to those that have some. */
void peer_refill(peer_table* table);

#endif
