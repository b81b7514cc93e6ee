#include "arbiter.h"

#include <algorithm>

namespace {

arbiter_member* find_member(arbiter* arbiter, uint64_t id) {
    const auto found = arbiter->members.find(id);
    return found == arbiter->members.end() ? nullptr : &found->second;
}

void send(const arbiter_member& member, uint64_t id, arbiter_order order, arbiter_messages* out) {
    if (!member.outside) {
        out->push_back({id, order});
    }
}

void set_turn(arbiter* arbiter, arbiter_member* member, arbiter_turn turn) {
    if (member->turn == turn) {
        return;
    }
    member->turn = turn;
    member->place = ++arbiter->places;
    member->since = arbiter->now;
}

/* Does the left one's turn come before the right one's? */
bool comes_before(const arbiter_member& left, const arbiter_member& right) {
    const int order = policy_compare(left.rank, right.rank);
    if (order != 0) {
        return order > 0;
    }
    if (left.turn != right.turn) {
        return left.turn == ARBITER_INTERRUPTED;
    }
    return left.turn == ARBITER_INTERRUPTED ? left.place > right.place : left.place < right.place;
}

void hold(arbiter* arbiter, uint64_t id, arbiter_member* member) {
    set_turn(arbiter, member, ARBITER_NO_TURN);
    member->revoked = false;
    member->excused = false;
    member->since = arbiter->now;
    arbiter->holder = id;
}

/* Keeps the focus of a member that is not to have it: it is told, and gets a turn when it was
 * playing and the policy lets those resume that `winner` interrupts. */
void revoke(arbiter* arbiter, uint64_t id, arbiter_member* member, const policy_rank& winner,
            arbiter_messages* out) {
    const bool playing = member->outside || member->state == ARBITER_PLAYING;
    send(*member, id, ARBITER_REVOKE, out);
    member->may_resume =
        policy_compare(member->rank, winner) == 0 ? arbiter->rules.resume_equal : winner.resume;
    member->revoked = true;
    member->excused = false;
    member->state = member->outside ? ARBITER_PLAYING : ARBITER_PAUSED;
    member->since = arbiter->now;
    set_turn(arbiter, member,
             playing && member->may_resume ? ARBITER_INTERRUPTED : ARBITER_NO_TURN);
}

/* The focus goes from its holder, if there is one, to a member. */
void take_over(arbiter* arbiter, uint64_t id, arbiter_member* member, arbiter_messages* out) {
    arbiter_member* loser = find_member(arbiter, arbiter->holder);
    if (loser != nullptr) {
        revoke(arbiter, arbiter->holder, loser, member->rank, out);
    }
    hold(arbiter, id, member);
}

/* Gives a free focus to whose turn it is. */
void hand_on(arbiter* arbiter, arbiter_messages* out) {
    if (arbiter->holder != 0) {
        return;
    }
    arbiter_member* next = nullptr;
    uint64_t next_id = 0;
    for (auto& [id, member] : arbiter->members) {
        if (member.turn != ARBITER_NO_TURN && (next == nullptr || comes_before(member, *next))) {
            next = &member;
            next_id = id;
        }
    }
    if (next != nullptr) {
        hold(arbiter, next_id, next);
        send(*next, next_id, ARBITER_PLAY, out);
    }
}

void give_back(arbiter* arbiter, uint64_t id, arbiter_member* member, arbiter_messages* out) {
    set_turn(arbiter, member, ARBITER_NO_TURN);
    member->state = ARBITER_STOPPED;
    member->excused = true;
    if (arbiter->holder == id) {
        arbiter->holder = 0;
        member->since = arbiter->now;
        hand_on(arbiter, out);
    }
}

/* What a member gets that asks for the focus and does not hold it. */
policy_answer answer_to(arbiter* arbiter, const arbiter_member& member) {
    const arbiter_member* holder = find_member(arbiter, arbiter->holder);
    const int order = holder == nullptr ? 1 : policy_compare(member.rank, holder->rank);
    return order > 0 ? POLICY_TAKES : order == 0 ? arbiter->rules.equal : arbiter->rules.lower;
}

/* A client that does not hold the focus says that it plays. */
void play_unasked(arbiter* arbiter, uint64_t id, arbiter_member* member, arbiter_messages* out) {
    if (member->revoked && !member->excused) {
        member->excused = true;
        if (member->may_resume) {
            set_turn(arbiter, member, ARBITER_INTERRUPTED);
            hand_on(arbiter, out);
        }
        return;
    }
    const arbiter_member* holder = find_member(arbiter, arbiter->holder);
    const bool insists =
        member->revoked && holder != nullptr && policy_compare(member->rank, holder->rank) == 0;
    member->state = ARBITER_PLAYING;
    if (!insists && answer_to(arbiter, *member) == POLICY_TAKES) {
        take_over(arbiter, id, member, out);
        return;
    }
    const bool excused = member->revoked;
    revoke(arbiter, id, member, holder->rank, out);
    member->excused = excused;
}

/* Does the holder outrank the newcomer, even when a person speaks for it? */
bool outranked(arbiter* arbiter, const policy_rank& rank) {
    const arbiter_member* holder = find_member(arbiter, arbiter->holder);
    return holder != nullptr && policy_compare(rank, holder->rank) < 0;
}

arbiter_member new_member(const arbiter& arbiter, const arbiter_words& words) {
    arbiter_member member;
    member.words = words;
    member.rank = policy_rank_of(arbiter.rules, words.kind, words.priority);
    member.since = arbiter.now;
    return member;
}

} // namespace

bool arbiter_join(arbiter* arbiter, uint64_t id, const arbiter_words& words) {
    return id != 0 && arbiter->members.emplace(id, new_member(*arbiter, words)).second;
}

void arbiter_leave(arbiter* arbiter, uint64_t id, arbiter_messages* out) {
    arbiter->members.erase(id);
    if (arbiter->holder == id) {
        arbiter->holder = 0;
        hand_on(arbiter, out);
    }
}

void arbiter_acquire(arbiter* arbiter, uint64_t id, arbiter_messages* out) {
    arbiter_member* member = find_member(arbiter, id);
    if (member == nullptr) {
        return;
    }
    member->revoked = false;
    member->excused = false;
    if (arbiter->holder == id) {
        send(*member, id, ARBITER_GRANT, out);
        return;
    }
    const policy_answer answer = answer_to(arbiter, *member);
    if (answer == POLICY_TAKES) {
        take_over(arbiter, id, member, out);
        send(*member, id, ARBITER_GRANT, out);
        return;
    }
    if (answer == POLICY_WAITS && member->turn == ARBITER_NO_TURN) {
        set_turn(arbiter, member, ARBITER_PUT_OFF);
    }
    send(*member, id, ARBITER_REFUSE, out);
}

void arbiter_release(arbiter* arbiter, uint64_t id, arbiter_messages* out) {
    arbiter_member* member = find_member(arbiter, id);
    if (member != nullptr) {
        give_back(arbiter, id, member, out);
    }
}

void arbiter_report(arbiter* arbiter, uint64_t id, arbiter_state state, arbiter_messages* out) {
    arbiter_member* member = find_member(arbiter, id);
    if (member == nullptr) {
        return;
    }
    if (state == ARBITER_STOPPED) {
        give_back(arbiter, id, member, out);
    } else if (state == ARBITER_PLAYING && arbiter->holder != id) {
        play_unasked(arbiter, id, member, out);
    } else {
        member->state = state;
        member->excused = true; /* what it says of playing from now on did not cross */
        if (state == ARBITER_PAUSED && member->turn == ARBITER_PUT_OFF) {
            set_turn(arbiter, member, ARBITER_NO_TURN);
        }
    }
}

bool arbiter_tell(arbiter* arbiter, uint64_t id, arbiter_order order, arbiter_messages* out) {
    arbiter_member* member = find_member(arbiter, id);
    if (member == nullptr) {
        return true;
    }
    if (order == ARBITER_PLAY && arbiter->holder != id) {
        if (outranked(arbiter, member->rank)) {
            return false;
        }
        take_over(arbiter, id, member, out);
    }
    if (order == ARBITER_PAUSE) {
        set_turn(arbiter, member, ARBITER_NO_TURN);
    }
    send(*member, id, order, out);
    return true;
}

bool arbiter_take(arbiter* arbiter, uint64_t id, const arbiter_words& words,
                  arbiter_messages* out) {
    arbiter_member outsider = new_member(*arbiter, words);
    outsider.outside = true;
    outsider.state = ARBITER_PLAYING;
    outsider.rank.priority = INT32_MAX;
    if (outranked(arbiter, outsider.rank)) {
        return false;
    }
    arbiter_member* member = &arbiter->members.insert_or_assign(id, outsider).first->second;
    take_over(arbiter, id, member, out);
    return true;
}

std::vector<uint64_t> arbiter_turns(const arbiter& arbiter) {
    std::vector<uint64_t> turns;
    for (const auto& [id, member] : arbiter.members) {
        if (member.turn != ARBITER_NO_TURN) {
            turns.push_back(id);
        }
    }
    std::sort(turns.begin(), turns.end(), [&arbiter](uint64_t left, uint64_t right) {
        return comes_before(arbiter.members.at(left), arbiter.members.at(right));
    });
    return turns;
}
