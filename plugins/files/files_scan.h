/* The scan that keeps the indexes of all sources up to date.
 *
 * One thread of low priority, for all plug-ins of the library, looks through the sources one after
 * the other when they are connected, and through single folders when they have changed: when the
 * system tells so, and when somebody who browses finds a folder changed. Nothing waits for it. */
#ifndef LYRANE_FILES_SCAN_H
#define LYRANE_FILES_SCAN_H

#include <ctime>

#include "files_index.h"
#include "files_listing.h"
#include "files_source.h"

/* How long one waits for the end of the scan at most, in seconds. */
constexpr int FILES_SCAN_END_MOST = 5;

/* Looks through a source that was connected. The thread is started with the first one. Without
 * memory or thread the source is not indexed, with a line in the log. [any thread] */
void files_scan_add(const files_source_ref& source) noexcept;

/* Tells when a folder had last changed that was just read: it is looked through anew if the index
 * has it from another time. [any thread] */
void files_scan_noticed(const files_source_ref& source, const files_index_ref& index,
                        const char* id, const timespec& changed) noexcept;

/* Has the index of a source remember what listeners found out of its files (files_unread.h), if
 * there is anything. [any thread] */
void files_scan_remember(const files_source_ref& source, const files_index_ref& index) noexcept;

/* Waits until a source has been looked through, at most so many milliseconds; not when there is no
 * index of it, it goes, or the call is cancelled. May throw std::bad_alloc. [any thread] */
void files_scan_await(const files_source& source, int32_t most, const files_cancel& cancel);

/* Ends the scan and its thread; what is done so far is kept. A thread that hangs on a dead drive is
 * left behind and does nothing any more. The next source starts another one. [main] */
void files_scan_stop() noexcept;

#endif
