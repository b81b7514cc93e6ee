/* The texts that clients write to the control object, and those they are answered with.
 *
 * A text is lines, in any order; a last line feed may be missing. One line is "msg::" and what is
 * meant; "dat::" and "dat:json:" lines bring data, all others say nothing here. */
#ifndef NOWPLAYINGD_MESSAGE_H
#define NOWPLAYINGD_MESSAGE_H

#include <string>
#include <string_view>

#include "arbiter.h"

constexpr size_t MESSAGE_NAME_MAX = 255; /* bytes of a client's name that are kept */
constexpr size_t MESSAGE_WORD_MAX = 63;  /* the same for its other words */

enum message_verb { MESSAGE_REGISTER, MESSAGE_ACQUIRE, MESSAGE_RELEASE, MESSAGE_STATE };

struct message {
    message_verb verb = MESSAGE_REGISTER;
    arbiter_words words;                   /* of MESSAGE_REGISTER */
    arbiter_state state = ARBITER_STOPPED; /* of MESSAGE_STATE */
};

/* False when it is no message of a client; *why says what is wrong with it. Any bytes. */
bool message_parse(std::string_view text, message* parsed, std::string* why);

/* What tells a client of an order. */
const char* message_text(arbiter_order order);

/* UTF-8 text, cut to so many bytes between two characters. */
std::string message_cut(std::string_view text, size_t bytes);

#endif
