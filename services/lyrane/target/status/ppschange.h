/* Noticing that something was published, for who follows the state of all players at leisure.
 *
 * A count that each published update raises; it wraps. State is changed before it is published, so
 * who reads the count first and the state then misses nothing: what comes later raises it again. */
#ifndef LYRANE_PPSCHANGE_H
#define LYRANE_PPSCHANGE_H

#include <cstdint>

/* [any thread] */
uint32_t ppschange_count(void) noexcept;

/* Sleeps until the count is no longer `seen`. [any thread] */
void ppschange_await(uint32_t seen) noexcept;

/* Raises the count: one update, or a wish to wake who sleeps. [any thread] */
void ppschange_raise(void) noexcept;

#endif
