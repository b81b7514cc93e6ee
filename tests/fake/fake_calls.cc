#include "fake_calls.h"

#include <algorithm>
#include <csignal>

#include <sys/syscall.h>
#include <unistd.h>

#include "fake_events.h"
#include "fake_words.h"

namespace {

constexpr int64_t WAIT_LIMIT = 300000; /* ms */

/* How long a call is held up, and where. */
struct hold {
    std::string gate;
    bool deaf = false;
    std::string inside;
    int signal = 0;
};

bool matches(const fake_rule& rule, const fake_call& call) {
    return rule.entry == call.entry && (!rule.ms || rule.ms == call.ms) &&
           (!rule.id || rule.id == call.id);
}

void apply(const fake_rule& rule, call_effect& effect, hold& held) {
    const auto take = [](const std::optional<int64_t>& from, std::optional<int32_t>& to) {
        if (from) {
            to = static_cast<int32_t>(*from);
        }
    };
    take(rule.result, effect.result);
    take(rule.page, effect.page);
    take(rule.count, effect.count);
    effect.null = effect.null || rule.null;
    effect.null_ids = effect.null_ids || rule.null_ids;
    effect.rewind = effect.rewind || rule.rewind;
    effect.over = static_cast<int32_t>(rule.over.value_or(effect.over));
    effect.after = rule.after.value_or(effect.after);
    held.inside = rule.inside.value_or(held.inside);
    held.gate = rule.gate.value_or(held.gate);
    held.deaf = held.deaf || rule.deaf;
    held.signal = static_cast<int>(rule.signal.value_or(held.signal));
}

void consult(fake_state& state, const fake_call& call, call_effect& effect, hold& held)
    VEL_REQUIRES(state.lock) {
    for (fake_rule& rule : state.rules) {
        if (!matches(rule, call) || (rule.times && *rule.times == 0)) {
            continue;
        }
        if (rule.skip > 0) {
            rule.skip -= 1;
            continue;
        }
        if (rule.times) {
            *rule.times -= 1;
        }
        apply(rule, effect, held);
    }
}

uint32_t cancels_of(fake_state& state, uint64_t session) VEL_REQUIRES(state.lock) {
    const auto found = state.sessions.find(session);
    return found == state.sessions.end() ? 0 : found->second.cancels;
}

/* Waits as long as the rules say. True when the call was cancelled meanwhile. */
bool hold_up(fake_state& state, const hold& held, uint64_t session) VEL_REQUIRES(state.lock) {
    const uint32_t cancels = cancels_of(state, session);
    const auto cancelled = [&]() VEL_REQUIRES(state.lock) {
        return !held.deaf && cancels_of(state, session) != cancels;
    };
    if (!held.gate.empty() && state.open_gates.count(held.gate) == 0) {
        state.at_gate[held.gate] += 1;
        fake_wake(state);
        while (state.open_gates.count(held.gate) == 0 && !state.stopping && !cancelled()) {
            fake_wait(state, fake_after(WAIT_LIMIT));
        }
        state.at_gate[held.gate] -= 1;
    }
    return cancelled();
}

void remember(fake_state& state, fake_call&& call) VEL_REQUIRES(state.lock) {
    char thread[16] = "";
    pthread_getname_np(pthread_self(), thread, sizeof thread);
    call.thread = thread;
    call.tid = static_cast<int32_t>(syscall(SYS_gettid));
    call.serial = state.next_call++;
    fake_count& count = state.counts[call.entry];
    count.entered += 1;
    count.returned += call.returned ? 1 : 0;
    state.calls.push_back(std::move(call));
    while (state.calls.size() > state.calls_kept) {
        state.calls.pop_front();
    }
    fake_wake(state);
}

std::string line_of(const fake_call& call) {
    std::string line = std::to_string(call.serial) + ' ' + call.entry;
    if (call.session != 0) {
        line += call_word("session", static_cast<int64_t>(call.session));
    }
    if (call.id) {
        line += call_word("id", call.id->c_str());
    }
    if (call.ms) {
        line += call_word("ms", *call.ms);
    }
    return line + call.arguments + call_word("tid", call.tid) +
           call_word("thread", call.thread.c_str()) + call_word("result", call.result) +
           call_word("returned", call.returned ? 1 : 0) + '\n';
}

uint64_t calls_of(fake_state& state, const std::string& entry, const std::optional<std::string>& id,
                  bool returned) VEL_REQUIRES(state.lock) {
    if (!id) {
        const fake_count count = state.counts[entry];
        return returned ? count.returned : count.entered;
    }
    const auto fits = [&](const fake_call& call) {
        return call.entry == entry && call.id == id && (call.returned || !returned);
    };
    return static_cast<uint64_t>(std::count_if(state.calls.begin(), state.calls.end(), fits));
}

bool known_entry(const std::string& entry) {
    static const char* const names[] = {
        "init",   "detection",     "cleanup",        "play.create", "play.destroy", "attach",
        "play",   "pause",         "stop",           "rate",        "seek",         "next",
        "repeat", "browse.create", "browse.destroy", "browse",      "search",       "metadata",
        "update", "previous",      "shuffle",        "extended",    "cancel"};
    const auto is_name = [&](const char* name) { return entry == name; };
    return std::any_of(std::begin(names), std::end(names), is_name);
}

std::optional<std::string> add_rule(const fake_words& words, std::string& fault) {
    fake_rule rule;
    rule.entry = words_at(words, 1);
    rule.id = words_text(words, "id");
    rule.ms = words_number(words, "ms");
    rule.skip = static_cast<uint64_t>(words_number(words, "skip").value_or(0));
    if (const auto times = words_number(words, "times")) {
        rule.times = static_cast<uint64_t>(*times);
    }
    rule.result = words_number(words, "result");
    rule.null = words_number(words, "null").value_or(0) != 0;
    rule.gate = words_text(words, "block");
    rule.deaf = words_number(words, "deaf").value_or(0) != 0;
    rule.page = words_number(words, "page");
    rule.over = words_number(words, "over");
    rule.count = words_number(words, "count");
    rule.signal = words_number(words, "signal");
    rule.null_ids = words_number(words, "nullid").value_or(0) != 0;
    rule.rewind = words_number(words, "rewind").value_or(0) != 0;
    rule.inside = words_text(words, "inside");
    rule.after = words_text(words, "after");
    if (!known_entry(rule.entry)) {
        fault = "no such entry: " + rule.entry;
        return std::nullopt;
    }
    fake_state& state = fake();
    vel_lock_guard guard(state.lock);
    if (rule.gate) {
        state.open_gates.erase(*rule.gate);
    }
    state.rules.push_back(rule);
    return "";
}

std::optional<std::string> await(const fake_words& words, std::string& fault) {
    const std::string& entry = words_at(words, 1);
    const auto id = words_text(words, "id");
    const bool returned = words_number(words, "returned").value_or(0) != 0;
    const uint64_t wanted = static_cast<uint64_t>(words_to_number(words_at(words, 2)).value_or(1));
    if (!known_entry(entry) && entry.compare(0, 6, "event.") != 0) {
        fault = "no such entry: " + entry;
        return std::nullopt;
    }
    fake_state& state = fake();
    const timespec until = fake_after(WAIT_LIMIT);
    vel_lock_guard guard(state.lock);
    uint64_t count = 0;
    while ((count = calls_of(state, entry, id, returned)) < wanted) {
        if (state.stopping || !fake_wait(state, until)) {
            fault = std::to_string(count) + " of " + std::to_string(wanted) + " calls of " + entry;
            return std::nullopt;
        }
    }
    return std::to_string(count);
}

std::optional<std::string> await_blocked(const fake_words& words, std::string& fault) {
    const std::string& gate = words_at(words, 1);
    const int64_t wanted = words_to_number(words_at(words, 2)).value_or(1);
    fake_state& state = fake();
    const timespec until = fake_after(WAIT_LIMIT);
    vel_lock_guard guard(state.lock);
    while (state.at_gate[gate] < wanted) {
        if (state.stopping || !fake_wait(state, until)) {
            fault = "nobody waits at " + gate;
            return std::nullopt;
        }
    }
    return "";
}

void forget(fake_state& state) VEL_REQUIRES(state.lock) {
    state.calls.clear();
    state.counts.clear();
    state.first_call = state.next_call;
}

std::string log_text(const fake_words& words) {
    const std::string& entry = words_at(words, 1);
    fake_state& state = fake();
    vel_lock_guard guard(state.lock);
    std::string text;
    for (const fake_call& call : state.calls) {
        if (entry.empty() || entry == call.entry) {
            text += line_of(call);
        }
    }
    return text;
}

void drop_rules(const std::string& entry) {
    fake_state& state = fake();
    vel_lock_guard guard(state.lock);
    const auto drop = [&](const fake_rule& rule) { return entry.empty() || rule.entry == entry; };
    state.rules.erase(std::remove_if(state.rules.begin(), state.rules.end(), drop),
                      state.rules.end());
}

void release(const std::string& gate) {
    fake_state& state = fake();
    vel_lock_guard guard(state.lock);
    state.open_gates.insert(gate);
    fake_wake(state);
}

} // namespace

call_effect call_begin(fake_call call) {
    fake_state& state = fake();
    call_effect effect;
    hold held;
    effect.entry = call.entry;
    effect.session = call.session;
    {
        vel_lock_guard guard(state.lock);
        consult(state, call, effect, held);
        remember(state, std::move(call));
        effect.serial = state.next_call - 1;
        if (hold_up(state, held, effect.session)) {
            effect.result = effect.result.value_or(-1);
        }
    }
    if (held.signal != 0) {
        raise(held.signal);
    }
    if (!held.inside.empty()) {
        events_make_here(held.inside, effect.session);
    }
    return effect;
}

int32_t call_end(const call_effect& effect, int32_t result) {
    fake_state& state = fake();
    vel_lock_guard guard(state.lock);
    if (effect.serial >= state.first_call) {
        state.counts[effect.entry].returned += 1;
        fake_wake(state);
    }
    if (!state.calls.empty() && effect.serial >= state.calls.front().serial) {
        fake_call& call = state.calls[effect.serial - state.calls.front().serial];
        call.returned = true;
        call.result = result;
    }
    if (!effect.after.empty()) {
        events_post(state, effect.after, effect.session);
    }
    return result;
}

void call_note_event(const std::string& kind, uint64_t session, int64_t result) {
    fake_state& state = fake();
    vel_lock_guard guard(state.lock);
    fake_call call;
    call.entry = "event." + kind;
    call.session = session;
    call.returned = true;
    call.result = result;
    remember(state, std::move(call));
}

std::string call_word(const char* key, const char* value) {
    return value == nullptr ? "" : std::string(" ") + key + '=' + words_quote(value);
}

std::string call_word(const char* key, int64_t value) {
    return std::string(" ") + key + '=' + std::to_string(value);
}

void calls_reset(fake_state& state) {
    for (const fake_rule& rule : state.rules) {
        if (rule.gate) {
            state.open_gates.insert(*rule.gate);
        }
    }
    for (const auto& [gate, waiting] : state.at_gate) {
        state.open_gates.insert(gate);
    }
    state.rules.clear();
    forget(state);
    fake_wake(state);
}

std::optional<std::string> calls_command(const fake_words& words, std::string& fault) {
    const std::string& verb = words_at(words, 0);
    if (verb == "rule") {
        return add_rule(words, fault);
    }
    if (verb == "await") {
        return await(words, fault);
    }
    if (verb == "blocked") {
        return await_blocked(words, fault);
    }
    if (verb == "log") {
        return log_text(words);
    }
    if (verb == "unrule") {
        drop_rules(words_at(words, 1));
    } else if (verb == "release") {
        release(words_at(words, 1));
    } else if (verb == "count") {
        const bool returned = words_number(words, "returned").value_or(0) != 0;
        fake_state& state = fake();
        vel_lock_guard guard(state.lock);
        return std::to_string(
            calls_of(state, words_at(words, 1), words_text(words, "id"), returned));
    } else if (verb == "clear") {
        fake_state& state = fake();
        vel_lock_guard guard(state.lock);
        forget(state);
    } else {
        fault = "no such command: " + verb;
        return std::nullopt;
    }
    return "";
}
