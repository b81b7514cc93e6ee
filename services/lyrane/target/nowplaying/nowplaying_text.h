/* What the arbiter says, read from its messages. */
#ifndef LYRANE_NOWPLAYING_TEXT_H
#define LYRANE_NOWPLAYING_TEXT_H

#include <cstdint>

/* What the arbiter tells a player to do. Of several words in one message the smaller number goes
 * first. */
constexpr int32_t NOWPLAYING_DO_NOTHING = 0;
constexpr int32_t NOWPLAYING_DO_PLAY = 1;
constexpr int32_t NOWPLAYING_DO_PAUSE = 2;
constexpr int32_t NOWPLAYING_DO_NEXT = 3;
constexpr int32_t NOWPLAYING_DO_PREVIOUS = 4;
constexpr int32_t NOWPLAYING_DO_REVOKE = 5;

struct nowplaying_message {
    int32_t command; /* NOWPLAYING_DO_* */
    bool answer;     /* to an acquire */
    bool refused;    /* whatever is answered in the same text: the answer is no */
    bool lost;       /* if this is the first of its text: the control object is gone */
};

/* Reads the first message of a text and returns where the next one begins, or null at the end. A
 * text may hold several: a line that begins with '@' or "-@" starts one, except behind a first line
 * "-@phone", and so does a second "msg::" or "res::" line. Words count only at the beginning of a
 * line, whatever stands behind them there, so that what the arbiter echoes of names cannot be taken
 * for them. */
const char* nowplaying_read(const char* text, nowplaying_message* message) noexcept;

#endif
