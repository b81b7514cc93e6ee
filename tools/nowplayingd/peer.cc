#include "peer.h"

#include <algorithm>

#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <veloran/closer.h>

namespace {

constexpr size_t OTHER_DESCRIPTORS = 64;

bool watch(const peer_table& table, int operation, uint64_t id, int fd, bool listen) {
    epoll_event entry = {};
    entry.events = listen ? uint32_t{EPOLLIN} : 0;
    entry.data.u64 = id;
    return epoll_ctl(table.epoll, operation, fd, &entry) == 0;
}

/* One user must not use up what others need; root and who runs the arbiter may. */
bool room_for(const peer_table& table, uid_t user) {
    if (table.peers.size() >= table.limit) {
        return false;
    }
    size_t of_user = 0;
    for (const auto& [id, peer] : table.peers) {
        of_user += peer.user == user ? 1 : 0;
    }
    return user == 0 || user == geteuid() || of_user < table.limit - table.limit / 4;
}

void mute(peer_table* table, uint64_t id, peer* peer, bool muted) {
    if (peer->muted != muted && watch(*table, EPOLL_CTL_MOD, id, peer->fd, !muted)) {
        peer->muted = muted;
        muted ? table->muted++ : table->muted--;
    }
}

void credit(peer* peer, int64_t now) {
    const int64_t earned = (now - peer->credited) / PEER_REFILL_MS;
    if (earned > 0) {
        peer->credit = static_cast<int32_t>(std::min<int64_t>(peer->credit + earned, PEER_BURST));
        peer->credited += earned * PEER_REFILL_MS;
    }
}

} // namespace

int64_t peer_clock() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

void peer_set_limit(peer_table* table) {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    constexpr rlim_t WANTED = PEERS_MAX + OTHER_DESCRIPTORS;
    if (limit.rlim_cur < WANTED) {
        rlimit raised = limit;
        raised.rlim_cur = std::min(WANTED, limit.rlim_max);
        if (setrlimit(RLIMIT_NOFILE, &raised) == 0) {
            limit = raised;
        }
    }
    const size_t usable = std::min<size_t>(limit.rlim_cur, WANTED);
    table->limit = usable - std::min(OTHER_DESCRIPTORS, usable / 2);
}

uint64_t peer_add(peer_table* table, int fd, bool person) {
    ucred who = {};
    socklen_t length = sizeof who;
    const uint64_t id = table->last_id + 1;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &who, &length) != 0 || !room_for(*table, who.uid) ||
        !watch(*table, EPOLL_CTL_ADD, id, fd, true)) {
        return 0;
    }
    peer& added = table->peers[id];
    added.fd = fd;
    added.person = person;
    added.user = who.uid;
    added.credited = peer_clock();
    table->last_id = id;
    return id;
}

void peer_remove(peer_table* table, uint64_t id) {
    const auto found = table->peers.find(id);
    if (found != table->peers.end()) {
        table->muted -= found->second.muted ? 1 : 0;
        (void)closer_close(found->second.fd, closer_sockets_of(found->second.user));
        table->peers.erase(found);
    }
}

peer* peer_find(peer_table* table, uint64_t id) {
    const auto found = table->peers.find(id);
    return found == table->peers.end() ? nullptr : &found->second;
}

bool peer_spend(peer_table* table, uint64_t id, peer* peer) {
    credit(peer, peer_clock());
    if (peer->credit > 0) {
        peer->credit--;
        return true;
    }
    mute(table, id, peer, true);
    return false;
}

void peer_refill(peer_table* table) {
    const int64_t now = peer_clock();
    for (auto& [id, peer] : table->peers) {
        if (peer.muted) {
            credit(&peer, now);
            if (peer.credit > 0) {
                mute(table, id, &peer, false);
            }
        }
    }
}
