#include "fake_calls.h"

#include <csignal>
#include <cstdlib>

#include "fake_events.h"

namespace {

bool matches(const fake_rule& rule, const fake_call& call) {
    return rule.entry == call.entry && (!rule.ms || rule.ms == call.ms) &&
           (!rule.id || rule.id == call.id);
}

void consult(const fake_call& call, call_effect& effect) VEL_REQUIRES(state.lock) {
    for (fake_rule& rule : state.rules) {
        if (!matches(rule, call) || rule.times == 0) {
            continue;
        }
        if (rule.skip != 0) {
            rule.skip -= 1;
            continue;
        }
        rule.times -= 1;
        std::vector<fake_option>& options = effect.rules.options;
        options.insert(options.begin(), rule.words.options.begin(), rule.words.options.end());
    }
    if (const auto result = words_number(effect.rules, "result")) {
        effect.result = static_cast<int32_t>(*result);
    }
}

uint32_t cancels_of(uint64_t session) VEL_REQUIRES(state.lock) {
    const fake_session* found = fake_session_at(session);
    return found == nullptr ? 0 : found->cancels;
}

/* Waits at the gate that the rules name. True when the call was cancelled meanwhile. */
bool hold_up(const call_effect& effect) VEL_REQUIRES(state.lock) {
    const auto gate = words_text(effect.rules, "block");
    if (!gate) {
        return false;
    }
    const bool deaf = words_flag(effect.rules, "deaf");
    const uint32_t cancels = cancels_of(effect.session);
    const auto cancelled = [&] { return !deaf && cancels_of(effect.session) != cancels; };
    state.at_gate[*gate] += 1;
    fake_wake();
    fake_await([&] { return state.open_gates.contains(*gate) || cancelled(); });
    state.at_gate[*gate] -= 1;
    return cancelled();
}

void remember(fake_call&& call) VEL_REQUIRES(state.lock) {
    call.serial = state.next_call++;
    state.counts[call.entry].entered += 1;
    state.calls.push_back(std::move(call));
    while (state.calls.size() > state.calls_kept) {
        state.calls.pop_front();
    }
    fake_wake();
}

uint64_t calls_of(const fake_words& words) VEL_REQUIRES(state.lock) {
    const fake_count& count = state.counts[words_at(words, 1)];
    return words_flag(words, "returned") ? count.returned : count.entered;
}

std::string word(const char* key, const std::string& value) {
    return std::string(" ") + key + '=' + words_quote(value);
}

} // namespace

call_effect call_begin(fake_call call) {
    call_effect effect = {call.entry, call.session};
    {
        vel_lock_guard guard(state.lock);
        consult(call, effect);
        remember(std::move(call));
        effect.serial = state.next_call - 1;
        if (hold_up(effect)) {
            effect.result = effect.result.value_or(-1);
        }
    }
    if (const auto signal = words_number(effect.rules, "signal")) {
        raise(static_cast<int>(*signal));
    }
    if (const auto status = words_number(effect.rules, "exit")) {
        exit(static_cast<int>(*status)); /* NOLINT(concurrency-mt-unsafe) */
    }
    if (const auto event = words_text(effect.rules, "inside")) {
        events_make_here(*event, effect.session);
    }
    return effect;
}

int32_t call_end(const call_effect& effect, int32_t result) {
    vel_lock_guard guard(state.lock);
    if (effect.serial >= state.first_call) {
        state.counts[effect.entry].returned += 1;
        fake_wake();
    }
    if (!state.calls.empty() && effect.serial >= state.calls.front().serial) {
        state.calls[effect.serial - state.calls.front().serial].result = result;
    }
    if (const auto event = words_text(effect.rules, "after")) {
        events_post(*event, effect.session);
    }
    return result;
}

fake_call session_call(const char* entry, const void* handle, bool plays,
                       const std::string& value) {
    vel_lock_guard guard(state.lock);
    fake_call call = {entry, fake_handle_serial(handle), {}, value};
    if (const fake_session* session = fake_session_of(handle, plays, entry)) {
        call.ms = session->ms_id;
    }
    return call;
}

void* session_create(const char* entry, bool plays, int32_t ms_id, void* data) {
    fake_call call = {entry, 0, ms_id};
    {
        vel_lock_guard guard(state.lock);
        call.session = state.next_session++;
    }
    const call_effect effect = call_begin(std::move(call));
    const bool refused = words_flag(effect.rules, "null") || effect.result.value_or(0) != 0;
    if (!refused) {
        vel_lock_guard guard(state.lock);
        fake_session& session = state.sessions[effect.session];
        session.serial = effect.session;
        session.plays = plays;
        session.ms_id = ms_id;
        session.data = data;
    }
    call_end(effect, refused ? -1 : 0);
    return refused ? nullptr : fake_handle(effect.session);
}

int32_t session_destroy(const char* entry, bool plays, void* handle) {
    const call_effect effect = call_begin(session_call(entry, handle, plays));
    {
        vel_lock_guard guard(state.lock);
        if (fake_session* session = fake_session_at(effect.session)) {
            session->alive = false;
        }
    }
    return call_end(effect, effect.result.value_or(0));
}

void call_note_event(const std::string& kind, uint64_t session, int64_t result) {
    vel_lock_guard guard(state.lock);
    fake_call call = {"event." + kind, session};
    call.result = result;
    state.counts[call.entry].returned += 1;
    remember(std::move(call));
}

std::string calls_add_rule(const fake_words& words, std::string& fault) {
    fake_rule rule = {words_at(words, 1),
                      words_text(words, "id"),
                      words_number(words, "ms"),
                      words_number(words, "skip").value_or(0),
                      words_number(words, "times").value_or(INT64_MAX),
                      words};
    words_know(words, {"result", "null", "deaf", "signal", "exit", "page", "over", "count",
                       "nullid", "rewind", "inside", "after"});
    if (!fake_table_knows(rule.entry)) {
        fault = "no such entry: " + rule.entry;
        return "";
    }
    if (const auto gate = words_text(words, "block")) {
        state.open_gates.erase(*gate);
    }
    state.rules.push_back(std::move(rule));
    return "";
}

std::string calls_await(const fake_words& words, std::string& fault) {
    const std::string& entry = words_at(words, 1);
    const uint64_t wanted = static_cast<uint64_t>(words_to_number(words_at(words, 2)).value_or(1));
    if (!fake_table_knows(entry) && !entry.starts_with("event.")) {
        fault = "no such entry: " + entry;
    } else if (!fake_await([&] { return calls_of(words) >= wanted; })) {
        fault = std::to_string(calls_of(words)) + " of " + std::to_string(wanted) + " calls of " +
                entry;
    }
    return "";
}

std::string calls_await_blocked(const fake_words& words, std::string& fault) {
    const std::string& gate = words_at(words, 1);
    if (!fake_await([&] { return state.at_gate[gate] > 0; })) {
        fault = "nobody waits at " + gate;
    }
    return "";
}

std::string calls_count(const fake_words& words, std::string&) {
    return std::to_string(calls_of(words));
}

std::string calls_log(const fake_words& words, std::string&) {
    const std::string& entry = words_at(words, 1);
    std::string text;
    for (const fake_call& call : state.calls) {
        if (entry.empty() || entry == call.entry) {
            text += call.entry + word("session", std::to_string(call.session)) +
                    word("id", call.id.value_or("")) + word("value", call.value) +
                    word("result", std::to_string(call.result)) + '\n';
        }
    }
    return text;
}

void calls_forget() {
    state.calls.clear();
    state.counts.clear();
    state.first_call = state.next_call;
}

void calls_reset() {
    for (const fake_rule& rule : state.rules) {
        if (const auto gate = words_text(rule.words, "block")) {
            state.open_gates.insert(*gate);
        }
    }
    for (const auto& [gate, waiting] : state.at_gate) {
        state.open_gates.insert(gate);
    }
    state.rules.clear();
    calls_forget();
    fake_wake();
}
