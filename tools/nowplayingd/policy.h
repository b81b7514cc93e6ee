/* The policy of the audio focus: who outranks whom, and what becomes of the others.
 *
 * Clients are ranked by the kind of their audio, and among one kind by their priority; the higher
 * number outranks the lower. All of it comes from the configuration file, see policy_file.h. */
#ifndef NOWPLAYINGD_POLICY_H
#define NOWPLAYINGD_POLICY_H

#include <cstdint>
#include <map>
#include <string>

/* What a newcomer gets that does not outrank the holder. */
enum policy_answer {
    POLICY_TAKES,   /* the focus: the last one wins */
    POLICY_WAITS,   /* its turn, when the focus is given back */
    POLICY_REFUSED, /* nothing */
};

struct policy_kind {
    int32_t rank = 0;
    bool resume =
        true; /* whom it outranked and interrupted plays on when it gives the focus back */
};

struct policy {
    std::map<std::string, policy_kind> kinds;
    std::map<std::string, int32_t> priorities;
    std::string unknown_kind;     /* what a kind without an entry counts as; it has one */
    std::string unknown_priority; /* the same */
    policy_answer equal = POLICY_TAKES;
    policy_answer lower = POLICY_REFUSED; /* or POLICY_WAITS */
    bool resume_equal = true;             /* as policy_kind.resume, for one that ranks the same */
};

/* A kind and a priority in numbers. */
struct policy_rank {
    int32_t kind = 0;
    int32_t priority = 0;
    bool resume = true;
};

/* The one that counts without a configuration file. */
policy policy_default();

policy_rank policy_rank_of(const policy& rules, const std::string& kind,
                           const std::string& priority);

/* Below 0 when the left one is outranked, 0 when both rank the same. */
int policy_compare(const policy_rank& left, const policy_rank& right);

#endif
