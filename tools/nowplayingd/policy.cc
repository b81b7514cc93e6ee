#include "policy.h"

policy policy_default() {
    policy rules;
    rules.kinds = {{"general", {10, true}}, {"navigation", {20, true}}, {"phone", {100, true}}};
    rules.priorities = {{"low", 10}, {"normal", 20}, {"high", 30}};
    rules.unknown_kind = "general";
    rules.unknown_priority = "low";
    return rules;
}

policy_rank policy_rank_of(const policy& rules, const std::string& kind,
                           const std::string& priority) {
    const auto of_kind =
        rules.kinds.contains(kind) ? rules.kinds.find(kind) : rules.kinds.find(rules.unknown_kind);
    const auto of_priority = rules.priorities.contains(priority)
                                 ? rules.priorities.find(priority)
                                 : rules.priorities.find(rules.unknown_priority);
    return {of_kind->second.rank, of_priority->second, of_kind->second.resume};
}

int policy_compare(const policy_rank& left, const policy_rank& right) {
    if (left.kind != right.kind) {
        return left.kind < right.kind ? -1 : 1;
    }
    return left.priority < right.priority ? -1 : left.priority > right.priority ? 1 : 0;
}
