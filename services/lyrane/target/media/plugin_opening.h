/* Which tracks plug-ins are opening, so that one that ends the service does not end it again.
 *
 * A track counts as being opened from its attach until that returns, and from its play until it is
 * heard, PLUGIN_OPENING_SECONDS at the most. The notes stay in memory. Only when the process
 * crashes, or a library calls exit(), are they written, to the file DATABASE.opening: after a kill
 * or a power cut no track is suspected. The next start reads them: those tracks are suspects until
 * an orderly end, and what walks a session by itself passes over them.
 *
 * A note is a hash of player and track. Where nothing was loaded nothing is written. */
#ifndef LYRANE_PLUGIN_OPENING_H
#define LYRANE_PLUGIN_OPENING_H

#include <cstdint>

#include "media.h"

constexpr int32_t PLUGIN_OPENING_SECONDS = 10;

/* Opens the file beside the database, made if need be, and takes the suspects from it. Without it
 * the log says why, and nothing is suspected. [main], before any session */
void plugin_opening_load(const char* database) noexcept;

/* After the save of an orderly end: no track is suspected any more, whatever comes. [main, or who
 * saves in its place] */
void plugin_opening_saved(void) noexcept;

/* The plug-in begins to open a node (null: the one that it was given last). The player lock is held
 * here and in the next four. */
void plugin_opening_begin(const mediasource_session* session, const medianode* node) noexcept;
/* It does not open the node now, and may do so at the next play. */
void plugin_opening_rest(const mediasource_session* session) noexcept;
/* Its position has moved: it has been opened, if it was to be. */
void plugin_opening_heard(const mediasource_session* session) noexcept;
/* The node has ended, is refused, or goes. */
void plugin_opening_over(const mediasource_session* session) noexcept;

/* Whether the node is a suspect; then the log says that it is passed over. */
[[nodiscard]] bool plugin_opening_suspects(const mediasource_session* session,
                                           const medianode* node) noexcept;
/* Somebody wants this very node: it is no suspect any more. */
void plugin_opening_trust(const mediasource_session* session, const medianode* node) noexcept;

/* The process ends in disorder: writes what is being opened, by the player whose call the thread is
 * in, else by all. Safe in a signal handler. */
void plugin_opening_crashed(void) noexcept;

#endif
