/* The service's tree of published objects: its root. The operations on directories and objects are
 * in <lyrane/plugin.h>. One lock of the tree guards links, use counts and paths together. */
#ifndef LYRANE_PPSDIR_H
#define LYRANE_PPSDIR_H

#include <cstdint>

#include <lyrane/plugin.h>

#include "control.h"

extern "C" {

/* Makes the root "/pps/services/lyrane" and stores it in the control block. 0, or the error
 * number; a root that cannot be made ends the process. [main] */
int32_t ppsdir_initialize(control_block* control) noexcept;

/* Makes a root node for a path of the publish/subscribe name space. Null with *error set. */
lyr_ppsdir* lyr_ppsdir_makeroot(const char* path, int32_t* error) noexcept;
}

/* lyr_ppsdir_create and lyr_ppswriter_create for what a client asked for: a failure of the system
 * is a line at level 3 and the caller's to refuse, where theirs ends the process. */
[[nodiscard]] lyr_ppsdir* ppsdir_try_create(lyr_ppsdir* parent, const char* name, uint32_t mode,
                                            int32_t* error) noexcept;
[[nodiscard]] lyr_ppswriter* ppswriter_try_create(lyr_ppsdir* dir, const char* name,
                                                  int32_t* error) noexcept;

#endif
