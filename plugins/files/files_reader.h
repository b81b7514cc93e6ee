/* Reading media files and playlists, which is done by a program of its own, `files-reader`.
 *
 * What is on a drive comes from anybody. So it is taken apart in a process that can do nothing but
 * that, has little memory, and is killed when it takes too long; a file that makes it end is named
 * in the log and not read again until it changes (files_unread.h). There are two such processes,
 * one for the scan and one for listeners, each started when it is needed first. Without them files
 * have no tags; nothing is ever taken apart in here.
 *
 * A reader is held by one thread at a time; who waits for it holds no lock. The files of a hold
 * are read in the order in which they are put in, several ahead of the one that is taken out. */
#ifndef LYRANE_FILES_READER_H
#define LYRANE_FILES_READER_H

#include <cstdint>
#include <memory>
#include <string>

#include "files_listing.h"
#include "files_reader_answer.h"
#include "files_source.h"
#include "files_unread.h"

/* So many files may be put in before one is taken out. */
constexpr size_t FILES_READER_AHEAD = 32;

enum class files_reader_use { listener, scan };

enum class files_reader_end {
    read,      /* there is an answer */
    unread,    /* the file is one that is not read until it changes */
    for_now,   /* it is not read as things are, for which it may not be to blame */
    cancelled, /* or the source has gone */
};

/* A file to be read. The descriptor stays the caller's, and open until the file is taken out. */
struct files_reader_job {
    int fd = -1;
    files_unread_file file = {};
    files_reader_wish wish = {};
};

struct files_reader;
struct files_reader_let_go {
    void operator()(files_reader* reader) const noexcept;
};
/* Files that are still in it are not read any more. */
using files_reader_hold = std::unique_ptr<files_reader, files_reader_let_go>;

/* Opens a plain file of a source for reading and fills in the job but for its wish: the descriptor
 * is the caller's. False with errno. May throw std::bad_alloc. */
bool files_reader_open(const files_source& source, const std::string& id, files_reader_job* job);

/* Waits until the reader is free; null: cancelled, or the plug-in ends. [any thread; no lock] */
files_reader_hold files_reader_begin(files_reader_use use, const files_cancel& cancel);

/* Puts a file in. May throw std::bad_alloc, as the next. [holder] */
void files_reader_put(files_reader* reader, const files_source& source, files_reader_job job);

/* Takes out the file that was put in first; there is one. [holder] */
files_reader_end files_reader_take(files_reader* reader, const files_source& source,
                                   const files_cancel& cancel, files_reader_found* found);

/* Reads one file for a listener. What cannot be opened is for_now. May throw std::bad_alloc.
 * [any thread; no lock] */
files_reader_end files_reader_ask(const files_source& source, const char* id,
                                  const files_reader_wish& wish, const files_cancel& cancel,
                                  files_reader_found* found);

/* Starts the process for listeners if there is none, without waiting for it. Called when sources
 * have come, and when somebody is going to browse: the first track does not wait for its start.
 * [any thread; no lock] */
void files_reader_prepare() noexcept;

/* Ends the process of the scan until it is needed again. [holder of none] */
void files_reader_rest() noexcept;

/* Lets readers be started, when the plug-in starts. [main] */
void files_reader_allow() noexcept;
/* Ends both processes; nothing is read from now on. [main] */
void files_reader_stop() noexcept;

#endif
