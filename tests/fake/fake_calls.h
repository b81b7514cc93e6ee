/* The call log, and what rules make of a call. Every entry of the plug-in begins with call_begin
 * and ends with call_end. */
#ifndef FAKE_CALLS_H
#define FAKE_CALLS_H

#include <cstdint>
#include <optional>
#include <string>

#include "fake_state.h"

/* What the rules ask of one call. */
struct call_effect {
    std::string entry;
    uint64_t serial = 0;  /* of the call in the log */
    uint64_t session = 0; /* of the session */
    std::optional<int32_t> result;
    bool null = false;
    std::optional<int32_t> page;
    int32_t over = 0;
    std::optional<int32_t> count;
    bool null_ids = false;
    bool rewind = false;
    std::string after;
};

/* Logs the call, then waits, blocks and makes events as the rules say. `call` holds entry,
 * session, id, ms and arguments. */
call_effect call_begin(fake_call call);

/* Logs the end and returns the result: what a rule asked for is the caller's to have applied. */
int32_t call_end(const call_effect& effect, int32_t result);

/* Adds a finished callback to the log. */
void call_note_event(const std::string& kind, uint64_t session, int64_t result);

/* " KEY=VALUE" for the log. */
std::string call_word(const char* key, const char* value);
std::string call_word(const char* key, int64_t value);

/* Commands: rule, unrule, release, blocked, await, count, log, clear. The text of the answer, or
 * nothing with the reason in `fault`. */
struct fake_words;
std::optional<std::string> calls_command(const fake_words& words, std::string& fault);

/* Drops rules, log and counters and opens every gate. */
void calls_reset(fake_state& state) VEL_REQUIRES(state.lock);

#endif
