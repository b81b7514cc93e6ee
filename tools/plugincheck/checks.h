/* The groups of checks. Each runs in a process of its own and leaves nothing of the plug-in. */
#ifndef PLUGINCHECK_CHECKS_H
#define PLUGINCHECK_CHECKS_H

#include "host.h"

void checks_load(const host_options& options);
void checks_life(const host_options& options);
void checks_sources(const host_options& options);
void checks_browse(const host_options& options);
void checks_metadata(const host_options& options);
void checks_play(const host_options& options);
void checks_order(const host_options& options);
void checks_locks(const host_options& options);

#endif
