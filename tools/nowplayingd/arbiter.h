/* The arbiter: who has the audio focus, who waits for it, and what everybody is told.
 *
 * Nothing here reads or writes anything: events go in, messages come out, in the order in which
 * they must be sent. One thread.
 *
 * At most one member holds the focus. Whoever outranks the holder takes it over; the policy says
 * what others get. The one that loses it is told so; when it was playing and the policy lets it
 * resume, it gets a turn. When the focus is given back (released, stopped, the client is gone), the
 * turn is the highest-ranking member's; among equals first whoever was interrupted, the last one
 * first, then those whose request was put off, in order. Its turn comes as the order to play, which
 * is a grant too. A member that asks and has to wait is told at once that it may not play, so that
 * nobody is held up.
 *
 * What a client sends may cross with what it is told. A client that was revoked need not answer. A
 * "playing" that comes first, without a new request, was sent before it saw the revoke; it tells
 * that the client was playing, which gets its turn. Behind any other report, or a second time, it
 * means that the client plays in spite of the revoke, and it is revoked again.
 *
 * A client that plays without having asked (it did before this arbiter came) gets the focus as if
 * it had asked, and is revoked when it may not have it.
 *
 * Outsiders, a phone for instance, are members that take and give back the focus by command; they
 * always count as playing, and are told nothing. */
#ifndef NOWPLAYINGD_ARBITER_H
#define NOWPLAYINGD_ARBITER_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "policy.h"

enum arbiter_state { ARBITER_STOPPED, ARBITER_PAUSED, ARBITER_PLAYING };

enum arbiter_turn {
    ARBITER_NO_TURN,
    ARBITER_INTERRUPTED, /* lost the focus while playing */
    ARBITER_PUT_OFF,     /* asked for it in vain */
};

enum arbiter_order {
    ARBITER_GRANT,
    ARBITER_REFUSE,
    ARBITER_REVOKE,
    ARBITER_PLAY,
    ARBITER_PAUSE,
    ARBITER_NEXT,
    ARBITER_PREVIOUS,
};

struct arbiter_message {
    uint64_t to = 0;
    arbiter_order order = ARBITER_GRANT;
};
using arbiter_messages = std::vector<arbiter_message>;

/* What a client says of itself. */
struct arbiter_words {
    std::string name;
    std::string kind;
    std::string priority;
    std::string overlay;
};

struct arbiter_member {
    arbiter_words words;
    policy_rank rank;
    bool outside = false;
    arbiter_state state = ARBITER_STOPPED; /* after a revoke: paused, which is what it was told */
    bool revoked = false;    /* told so, and has neither asked nor been granted since */
    bool excused = false;    /* what may have crossed with that has come */
    bool may_resume = false; /* what the policy said at the revoke */
    arbiter_turn turn = ARBITER_NO_TURN;
    uint64_t place = 0; /* when it got its turn */
    int64_t since = 0;  /* UTC seconds: joined, or the last change of its focus or turn */
};

struct arbiter {
    policy rules;
    std::map<uint64_t, arbiter_member> members; /* by id; 0 is nobody's */
    uint64_t holder = 0;                        /* 0: the focus is free, and nobody has a turn */
    uint64_t places = 0;
    int64_t now = 0; /* UTC seconds, set by the caller before an event */
};

/* Events of clients; the id is one that joined, or nothing happens. Messages are appended. */

/* Adds a client; false when the id is taken or 0. */
bool arbiter_join(arbiter* arbiter, uint64_t id, const arbiter_words& words);
void arbiter_leave(arbiter* arbiter, uint64_t id, arbiter_messages* out);
void arbiter_acquire(arbiter* arbiter, uint64_t id, arbiter_messages* out);
void arbiter_release(arbiter* arbiter, uint64_t id, arbiter_messages* out);
void arbiter_report(arbiter* arbiter, uint64_t id, arbiter_state state, arbiter_messages* out);

/* Commands of a person. They count as an equal newcomer that takes over, whatever the policy says
 * of those. False when the holder outranks the one that is to get the focus. */

/* Tells a client to play, to pause, or to go to another track. To play it gets the focus; one that
 * is to pause has no turn any more. */
bool arbiter_tell(arbiter* arbiter, uint64_t id, arbiter_order order, arbiter_messages* out);

/* Adds an outsider, as the holder; arbiter_leave gives the focus back. The id is free. */
bool arbiter_take(arbiter* arbiter, uint64_t id, const arbiter_words& words, arbiter_messages* out);

/* Who has a turn, the next one first. */
std::vector<uint64_t> arbiter_turns(const arbiter& arbiter);

#endif
