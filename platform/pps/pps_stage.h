/* The stage: a directory beside the objects where new content is written before it is renamed into
 * place, and where directories end up that cannot be removed on the spot. Everybody may write to
 * it and nobody may touch another's files in it (sticky), so that it serves a service that gives
 * up its privileges, too. */
#ifndef VELORAN_PPS_STAGE_H
#define VELORAN_PPS_STAGE_H

#include <cstddef>
#include <cstdint>

constexpr size_t PPS_STAGE_NAME = 48; /* bytes of a name on the stage */

/* The stage's descriptor, kept for the life of the process; -1 with errno set. */
int32_t pps_stage_open(void) noexcept;
/* A new file on the stage: its descriptor, its name in `name`. */
int32_t pps_stage_create(int32_t stage, char* name, uint32_t mode) noexcept;
/* Takes a file or directory out of `place` onto the stage, and removes it there with all it holds
 * as far as that can be done. 0 when the name in `place` is free. */
int32_t pps_stage_take(int32_t place, const char* name) noexcept;

#endif
