#include "control.h"

#include <algorithm>
#include <charconv>
#include <vector>

#include <nlohmann/json.hpp>

#include "message.h"

namespace {

using nlohmann::json;

constexpr size_t PAGE_BYTES = 32768; /* one member's entry may go beyond */

std::string dump(const json& document) {
    return document.dump(-1, ' ', true, json::error_handler_t::replace);
}

json failure(const std::string& why) {
    return {{"ok", false}, {"why", why}};
}

json success(const std::string& said) {
    return {{"ok", true}, {"said", said}};
}

std::string title(uint64_t id, const arbiter_member& member) {
    return member.words.name + " (#" + std::to_string(id) + ")";
}

const char* state_word(const arbiter_member& member) {
    return member.state == ARBITER_PLAYING  ? "playing"
           : member.state == ARBITER_PAUSED ? "paused"
                                            : "stopped";
}

const char* focus_word(const arbiter& arbiter, uint64_t id, const arbiter_member& member) {
    return arbiter.holder == id                 ? "holds"
           : member.turn == ARBITER_INTERRUPTED ? "interrupted"
           : member.turn == ARBITER_PUT_OFF     ? "waits"
                                                : "none";
}

json member_entry(const arbiter& arbiter, uint64_t id, const arbiter_member& member,
                  const std::vector<uint64_t>& turns) {
    const auto turn = std::find(turns.begin(), turns.end(), id);
    json entry = {{"id", id},
                  {"name", member.words.name},
                  {"kind", member.words.kind},
                  {"prio", member.words.priority},
                  {"overlay", member.words.overlay},
                  {"client", !member.outside},
                  {"state", state_word(member)},
                  {"focus", focus_word(arbiter, id, member)},
                  {"since", member.since}};
    if (turn != turns.end()) {
        entry["turn"] = turn - turns.begin() + 1;
    }
    return entry;
}

json status(const arbiter& arbiter, const json& request) {
    const json after = request.value("after", json(0U));
    if (!after.is_number_unsigned()) {
        return failure("\"after\" is no number");
    }
    const std::vector<uint64_t> turns = arbiter_turns(arbiter);
    json answer = {{"ok", true}, {"members", json::array()}};
    size_t bytes = 0;
    auto next = arbiter.members.upper_bound(after.get<uint64_t>());
    for (; next != arbiter.members.end() && bytes < PAGE_BYTES; ++next) {
        const json entry = member_entry(arbiter, next->first, next->second, turns);
        bytes += dump(entry).size();
        answer["members"].push_back(entry);
        if (bytes >= PAGE_BYTES && std::next(next) != arbiter.members.end()) {
            answer["more"] = next->first;
        }
    }
    return answer;
}

/* "#17" */
uint64_t number_of(const std::string& name) {
    uint64_t id = 0;
    if (name.size() < 2 || name[0] != '#') {
        return 0;
    }
    const auto read = std::from_chars(name.data() + 1, name.data() + name.size(), id);
    return read.ec == std::errc() && read.ptr == name.data() + name.size() ? id : 0;
}

/* The member of a name among clients or outsiders, or of a number; 0 with *why. */
uint64_t find_named(const arbiter& arbiter, const std::string& name, bool outside,
                    std::string* why) {
    std::vector<uint64_t> found;
    for (const auto& [id, member] : arbiter.members) {
        if (member.outside == outside && member.words.name == name) {
            found.push_back(id);
        }
    }
    const auto numbered = arbiter.members.find(number_of(name));
    if (found.empty() && numbered != arbiter.members.end() && numbered->second.outside == outside) {
        found.push_back(numbered->first);
    }
    if (found.size() == 1) {
        return found[0];
    }
    *why = outside ? name + " has not taken the focus" : "there is no client " + name;
    if (found.size() > 1) {
        *why = std::to_string(found.size()) + " clients are called " + name +
               "; name one by its number, as in #" + std::to_string(found[0]);
    }
    return 0;
}

std::string holder_title(const arbiter& arbiter) {
    const auto holder = arbiter.members.find(arbiter.holder);
    return holder == arbiter.members.end() ? "nobody" : title(holder->first, holder->second);
}

json tell(arbiter* arbiter, const std::string& name, arbiter_order order, const char* word,
          arbiter_messages* out) {
    std::string why;
    const uint64_t id = find_named(*arbiter, name, false, &why);
    if (id == 0) {
        return failure(why);
    }
    const std::string whom = title(id, arbiter->members.at(id));
    if (!arbiter_tell(arbiter, id, order, out)) {
        return failure(holder_title(*arbiter) + " has the focus, and outranks " + whom);
    }
    return success(whom + " was told: " + word);
}

json take(arbiter* arbiter, const std::string& name, const std::string& kind, uint64_t fresh,
          arbiter_messages* out) {
    std::string why;
    size_t outsiders = 0;
    for (const auto& [id, member] : arbiter->members) {
        outsiders += member.outside ? 1 : 0;
    }
    if (!arbiter->rules.kinds.contains(kind)) {
        return failure("the policy has no kind " + kind);
    }
    if (find_named(*arbiter, name, true, &why) != 0) {
        return failure(name + " has taken the focus already");
    }
    if (outsiders >= CONTROL_OUTSIDERS_MAX) {
        return failure("too many have taken the focus");
    }
    if (!arbiter_take(arbiter, fresh, {name, kind, "", ""}, out)) {
        return failure(holder_title(*arbiter) + " has the focus, and outranks " + name);
    }
    return success(name + " has the focus");
}

json give_back(arbiter* arbiter, const std::string& name, arbiter_messages* out) {
    std::string why;
    const uint64_t id = find_named(*arbiter, name, true, &why);
    if (id == 0) {
        return failure(why);
    }
    arbiter_leave(arbiter, id, out);
    return success(name + " has given the focus back; now " + holder_title(*arbiter) + " has it");
}

/* A text of the request; empty when it has none. */
std::string text_of(const json& request, const char* key) {
    const auto found = request.find(key);
    return found != request.end() && found->is_string() ? found->get<std::string>() : "";
}

json carry_out(arbiter* arbiter, const json& request, uint64_t fresh, arbiter_messages* out) {
    const std::string command = text_of(request, "command");
    if (command == "status") {
        return status(*arbiter, request);
    }
    const std::string name = text_of(request, "name");
    if (name.empty()) {
        return failure("no name is given");
    }
    const std::string kind = text_of(request, "kind");
    if (name.size() > MESSAGE_NAME_MAX || kind.size() > MESSAGE_NAME_MAX) {
        return failure("a name has at most " + std::to_string(MESSAGE_NAME_MAX) + " bytes");
    }
    if (command == "take") {
        return take(arbiter, name, kind.empty() ? CONTROL_DEFAULT_KIND : kind, fresh, out);
    }
    if (command == "give-back") {
        return give_back(arbiter, name, out);
    }
    constexpr struct {
        const char* word;
        arbiter_order order;
    } ORDERS[] = {{"play", ARBITER_PLAY},
                  {"pause", ARBITER_PAUSE},
                  {"next", ARBITER_NEXT},
                  {"prev", ARBITER_PREVIOUS}};
    for (const auto& known : ORDERS) {
        if (command == known.word) {
            return tell(arbiter, name, known.order, known.word, out);
        }
    }
    return failure("there is no such command");
}

} // namespace

std::string control_answer(arbiter* arbiter, const std::string& request, uint64_t fresh,
                           arbiter_messages* out) {
    const json read = json::parse(request, nullptr, false);
    if (!read.is_object()) {
        return dump(failure("the request is no JSON object"));
    }
    return dump(carry_out(arbiter, read, fresh, out));
}
