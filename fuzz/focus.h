/* The arbiter of the audio focus in the process of a fuzz target, and the clock of the players'
 * threads that look for it: the real policy, one thread, and no time that passes by itself. */
#ifndef FUZZ_FOCUS_H
#define FUZZ_FOCUS_H

#include <string>

/* Begins with an arbiter of one of a few policies, or without any. */
void focus_begin(bool there, unsigned policy);

/* Comes, unless it is there; goes, its clients lose their connections. */
void focus_come(void);
void focus_go(void);

/* A second passes: players that look for an arbiter look again. */
void focus_tick(void);

/* Works until the players' threads and the arbiter have nothing to say to each other. That they
 * come to an end is checked. */
void focus_rest(void);

/* The next request for the focus is not answered; the player's patience ends at once. */
void focus_mute(void);

/* A person's request, as over the control object; a text of the arbiter's to its nth client. */
void focus_ask(const std::string& request);
void focus_say(unsigned client, const std::string& text);

/* Whether the arbiter was there all the time, and has said nothing else than arbiters say. */
bool focus_is_orderly(void);

/* Goes, and waits for the end of the players' threads. */
void focus_end(void);

#endif
