/* Last mode: what the players play is saved when the service ends and comes back when it starts.
 *
 * At start-up every saved player is opened. For each saved track session a thread waits until its
 * media source is there and then makes the session of the saved tracks, as the player had it.
 * Whatever a client starts on the player meanwhile wins. */
#ifndef LYRANE_LASTMODE_H
#define LYRANE_LASTMODE_H

#include <cstdint>

#include <lyrane/records.h>

#include "control.h"
#include "player.h"
#include "trksession.h"

struct lastmode_rows;

/* What is saved of one player with a track session; owned by its restore thread. */
struct player_state {
    int32_t status;
    int32_t shuffle_mode;
    int32_t repeat_mode;
    float playback_rate; /* read and not applied */
    int32_t ms_type;     /* read and not used */
    char* ms_uid;        /* owned, as all texts here */
    char* ms_plugin_name;
    char* mn_id;     /* folder that the session was built from */
    int32_t length;  /* of tracks */
    int32_t trk_id;  /* index of the current track */
    int32_t trk_pos; /* position in it */
    trksession_draw drawn;
    medianode* tracks;   /* owned; with their strings until a session takes these over */
    ::player* player;    /* pinned */
    lastmode_rows* rows; /* where all this comes from */
};

extern "C" {

/* Asks the database service for our database and waits until it is valid, ten seconds at the most.
 * 0, or -1. [main] */
int32_t database_initialize(control_block* control) noexcept;

/* Saves every player that has a track session, in the place of what was saved before, asks for a
 * backup and gives the database up. 0, or -1 when it cannot be reached or cleared; then what was
 * saved before is still there. With "keep_missing", the rows of sessions whose source did not come
 * stay as they are, and what could not be read is left alone. [main], after lastmode_end and
 * lastmode_checkpoints_stop */
int32_t players_save_state(control_block* control) noexcept;

/* Opens the saved players and starts a thread for each saved track session. 0, or -1. [main] */
int32_t lastmode_restore(control_block* control) noexcept;

/* Body of a restore thread; the argument is its player_state. Returns null. */
void* lastmode_thread(void* state) noexcept;

/* Frees a state, with the strings of its tracks if `deep` is not 0, and gives up its pin. */
void free_player_state(player_state** state, int32_t deep) noexcept;
}

/* Starts the database service inside this process, which gets its configuration from here and not
 * from the object; does nothing when another process has it. Whatever an earlier run left behind is
 * withdrawn. [main] */
void lastmode_database_start(const control_block* control) noexcept;
void lastmode_database_stop(void) noexcept;

/* Starts the saves while the service runs, if the configuration wants them: as often as it says at
 * the most, and only when something has changed. They delay nobody: a player's lock is held for a
 * copy of its numbers, and none while they write. [main], after lastmode_restore */
void lastmode_checkpoints_start(control_block* control) noexcept;

/* Ends them; one that is being written is given up. [main] */
void lastmode_checkpoints_stop(void) noexcept;

/* Tells the restore threads to end and waits for them, a second at the most: one of them may be
 * in a call into a plug-in. [main] */
void lastmode_end(void) noexcept;

#endif
