/* The stage: a directory beside the objects where everything is made before it is renamed into
 * place, and where what stands in the way of it ends up. It belongs to the user of the service
 * alone (mode 0700), and its names come from the kernel's random numbers, so nobody else can be
 * there first. */
#ifndef VELORAN_PPS_STAGE_H
#define VELORAN_PPS_STAGE_H

#include <cstddef>
#include <cstdint>

constexpr size_t PPS_STAGE_NAME = 48; /* bytes of a name on the stage */

/* The stage's descriptor, kept for the life of the process; -1 with errno set. */
int32_t pps_stage_open(void) noexcept;
/* A new file on the stage: its descriptor, its name in `name`. */
int32_t pps_stage_create(int32_t stage, char* name, uint32_t mode) noexcept;
/* A new directory on the stage, which belongs to the user of the service: 0, its name in `name`. */
int32_t pps_stage_make_directory(int32_t stage, char* name, uint32_t mode) noexcept;
/* Takes a file or directory out of `place`, and removes it with all it holds as far as that can be
 * done. It goes onto the stage; a directory of somebody else that may not leave its parent stays
 * there under a hidden name. 0 when the name in `place` is free. */
int32_t pps_stage_take(int32_t place, const char* name) noexcept;

#endif
