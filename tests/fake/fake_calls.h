/* The call log, what rules make of a call, and the sessions of both tables. Every entry of the
 * plug-in begins with call_begin and ends with call_end. */
#ifndef FAKE_CALLS_H
#define FAKE_CALLS_H

#include <cstdint>
#include <optional>
#include <string>

#include "fake_state.h"
#include "fake_words.h"

/* What the rules ask of one call. */
struct call_effect {
    std::string entry;
    uint64_t session;                   /* its serial */
    uint64_t serial = 0;                /* of the call in the log */
    fake_words rules = {};              /* their options, those of later rules first */
    std::optional<int32_t> result = {}; /* to be returned in place of doing anything */
};

/* Logs the call, then waits, blocks and makes events as the rules say. `call` holds entry,
 * session, id, ms and value. */
call_effect call_begin(fake_call call);

/* Logs the end and returns the result: what a rule asked for is the caller's to have applied. */
int32_t call_end(const call_effect& effect, int32_t result);

/* The log's record of a call on a session; noted when the handle is not a live one of the kind. */
fake_call session_call(const char* entry, const void* handle, bool plays,
                       const std::string& value = "");

void* session_create(const char* entry, bool plays, int32_t ms_id, void* data);
int32_t session_destroy(const char* entry, bool plays, void* handle);

/* Adds a finished callback to the log. */
void call_note_event(const std::string& kind, uint64_t session, int64_t result);

/* Commands, with the state's lock held: the text of the answer, or why there is none in `fault`. */
std::string calls_add_rule(const fake_words& words, std::string& fault);
std::string calls_await(const fake_words& words, std::string& fault);
std::string calls_await_blocked(const fake_words& words, std::string& fault);
std::string calls_count(const fake_words& words, std::string& fault);
std::string calls_log(const fake_words& words, std::string& fault);

/* Forgets log and counters. */
void calls_forget() VEL_REQUIRES(state.lock);

/* Drops rules, log and counters and opens every gate. */
void calls_reset() VEL_REQUIRES(state.lock);

#endif
