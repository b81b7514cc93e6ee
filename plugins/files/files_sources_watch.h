/* A thread that looks at the media sources whenever something has changed that they depend on.
 *
 * It sleeps until the mount table changes, a block device comes or goes, or one of the names
 * changes that it was told to watch; nothing is looked at by the clock. Folders and drives have a
 * watch each: a network share that does not answer holds up only the one that asks for it. */
#ifndef LYRANE_FILES_SOURCES_WATCH_H
#define LYRANE_FILES_SOURCES_WATCH_H

#include <string>

struct files_watch;

/* How long one waits for a watch at most, in seconds: for its first look, and for its end. */
constexpr int FILES_WATCH_FIRST_MOST = 3;
constexpr int FILES_WATCH_END_MOST = 5;

/* Looks at what is there now; on the watch's thread, first when it starts. Nothing that changes
 * after the begin of a look is missed. */
using files_watch_look = void (*)(files_watch* watch) noexcept;

/* Starts a watch and waits until it has looked once. `name` is the thread's, 15 bytes at most.
 * Null, with a line in the log, when there is no memory or thread. [main] */
files_watch* files_watch_start(const char* name, files_watch_look look) noexcept;

/* Ends a watch and its thread. One that hangs in a look is left behind; it reports nothing more.
 * Accepts null. Not from inside a look, and with no lock held that a callback needs. */
void files_watch_stop(files_watch* watch) noexcept;

/* True when the watch is to end: its look reports nothing more. */
bool files_watch_ending(const files_watch* watch) noexcept;

/* [look] Looks again when what is called `name` in a folder comes, goes or is replaced. The folder
 * is a path without symbolic links. False when that cannot be watched. May throw std::bad_alloc. */
bool files_watch_name(files_watch* watch, const std::string& folder, const std::string& name);
/* [look] Drops the names that were not watched again since the last call of this. */
void files_watch_drop_names(files_watch* watch);

#endif
