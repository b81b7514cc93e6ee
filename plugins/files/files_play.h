/* The play half of the plug-in. */
#ifndef LYRANE_FILES_PLAY_H
#define LYRANE_FILES_PLAY_H

#include <lyrane/plugin.h>

extern const lyr_play_api files_play_table;

/* The callbacks that play sessions made from now on use. */
void files_play_set_callbacks(const lyrane_internal_callbacks_table* callbacks) noexcept;

/* Ends what plays and returns when all its threads have ended. No lock held. */
void files_play_shutdown() noexcept;

#endif
