/* The configuration file. */
#ifndef LYRANE_CONFIG_H
#define LYRANE_CONFIG_H

#include <cstdint>

#include "control.h"

extern "C" {

/* Reads the configuration file, stores the player settings in the control block and loads the
 * plug-ins in the order of the file. Every failure ends the process with its message; so it
 * returns 0. [main], before any other thread of the service. */
int32_t load_config(control_block* control, const char* path) noexcept;
}

#endif
