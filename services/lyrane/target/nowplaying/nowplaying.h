/* The audio focus. The arbiter decides which client may sound; every player is a client of its own.
 *
 * Client half: a player asks before it plays and reports what it does. Monitor half: a thread for
 * each player registers it, takes the arbiter's answers and does what the arbiter tells. Without an
 * arbiter (np_fd is -1) players play freely, while the thread looks for one every second.
 *
 * A command that asks for the focus holds the player lock while it waits for the answer. So the
 * thread never waits for a player lock: it takes an answer at once, and a command of the arbiter's
 * when the lock is free. */
#ifndef LYRANE_NOWPLAYING_H
#define LYRANE_NOWPLAYING_H

#include <cstdint>

#include "player.h"

/* Where the arbiter is reached. */
constexpr char NOWPLAYING_CONTROL[] = "/pps/services/multimedia/mediaplayer/control?wait,delta";

/* Events of player.np_state. */
constexpr int32_t NOWPLAYING_PLAY = 0;
constexpr int32_t NOWPLAYING_PAUSE = 1;
constexpr int32_t NOWPLAYING_ACQUIRED = 2;
constexpr int32_t NOWPLAYING_REVOKED = 3;

/* What the thread does to its player; the players' own commands, which lie above this module. The
 * first five are called with the player lock held, `unpin` gives up the thread's pin. */
struct nowplaying_commands {
    int32_t (*play)(player*);
    int32_t (*pause)(player*);
    int32_t (*stop)(player*);
    int32_t (*next)(player*);
    int32_t (*previous)(player*);
    void (*unpin)(player*);
};

extern "C" {

/* Writes one message to the arbiter, if there is one; failure is logged. Never waits, raises no
 * signal. */
void nowplaying_msg(player* player, const char* text) noexcept;

/* Registers the player. Texts may be any bytes; what is no UTF-8 becomes U+FFFD. */
void nowplaying_register(player* player, const char* name, const char* prio, const char* audio,
                         const char* overlay) noexcept;

/* 1 when the player may play, else 0. The caller holds the player lock. Waits for the arbiter's
 * answer for a second at the most, in which an arbiter that accepts nobody at the moment may do so;
 * without an answer it is 0, and a grant that comes later is kept for the next play. A grant is
 * used up by the play that it is for. */
int32_t nowplaying_acquire(player* player) noexcept VEL_REQUIRES(player->lock);

/* Gives the focus back, a grant that was not used included. */
void nowplaying_release(player* player) noexcept;

/* Reports "playing", "paused" or "stopped". */
void nowplaying_state(player* player, const char* state) noexcept;

/* Connects to the arbiter and registers the player; tries once a second until there is one, and
 * every 20 ms while it is there but accepts nobody. No
 * message of the player's gets to the arbiter before the registration. Called by the player's
 * thread. 0, or -1 when the player has been closed. */
int32_t config_nowplaying(player* player) noexcept;

/* Body of the player's thread; the argument is the player. Ends, and gives up its pin, soon after
 * nowplaying_end. */
void* monitor_nowplaying_pps(void* player) noexcept;
}

/* nowplaying_msg for callers that hold the focus lock. */
void nowplaying_send(player* player, const char* text) noexcept VEL_REQUIRES(player->np_lock);

/* Sends an acquire, and notes which revokes had been read by then. */
void nowplaying_ask(player* player) noexcept VEL_REQUIRES(player->np_lock);

/* What nowplaying_register writes: malloc()ed, the caller's. Ends the process without memory. */
char* nowplaying_register_text(const char* name, const char* prio, const char* audio,
                               const char* overlay) noexcept;

/* Starts the player's thread, for which the caller has taken a pin. Failure ends the process.
 * `commands` is constant. */
void nowplaying_start(player* player, const nowplaying_commands* commands) noexcept;

/* Ends the thread and waits for it, a second at the most: it may be in a call into a plug-in, and
 * then leaves the closed player when that returns. The player lock is not held. */
void nowplaying_end(player* player) noexcept;

#endif
