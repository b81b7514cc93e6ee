/* Which media sources there are now: the configured folders that exist, and the drives that are
 * plugged in. */
#ifndef LYRANE_FILES_SOURCES_H
#define LYRANE_FILES_SOURCES_H

#include <lyrane/plugin.h>

/* Reports the sources of all plug-ins that are there, and from now on those that come and go, on
 * threads of its own. Waits for the first reports, but not for a drive or folder that does not
 * answer. Does nothing when that was done already. [main], no lock held; sessions may be made
 * before this returns. */
void files_sources_start(const lyrane_internal_callbacks_table* callbacks);
/* Reports nothing any more, and has ended its threads but for one that hangs. The sources stay; the
 * next start reports them anew. [main], no lock held. */
void files_sources_stop() noexcept;

#endif
