/* One process of the reader, as the plug-in sees it. */
#ifndef LYRANE_FILES_READER_CHILD_H
#define LYRANE_FILES_READER_CHILD_H

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include <sys/types.h>

#include "files_listing.h"
#include "files_reader_message.h"

/* Time for a file, and for the start of a process, in ms. */
constexpr int64_t FILES_READER_FILE_MS = 5000;
constexpr int64_t FILES_READER_START_MS = 10000;
/* A process that has used so much of the processor is replaced before the next file. */
constexpr int64_t FILES_READER_WORN_MS = 30000;

/* Used by one thread at a time. */
struct files_reader_child {
    pid_t pid = -1; /* -1: there is none */
    int socket = -1;
    clockid_t clock = CLOCK_REALTIME; /* of what it uses of the processor; this one: unknown */
    bool greeted = false;             /* it has said that it is ready */
    std::vector<char> packet;         /* what was received last */
};

enum class files_reader_packet {
    whole,     /* an answer is there */
    died,      /* the process has ended */
    late,      /* the time is up */
    senseless, /* what came is no answer */
    cancelled,
};

/* Starts the program; false with the reason. May throw std::bad_alloc, as the next. */
bool files_reader_child_start(const std::string& program, files_reader_child* child,
                              std::string* reason);

/* Waits until it is ready, once; false with the reason, and it has ended. What is to be said of it
 * is in `notice`. */
bool files_reader_child_greet(files_reader_child* child, const files_cancel& cancel,
                              std::string* reason, std::string* notice);

/* Sends a request with a file; false when it cannot take more now, or is dead. */
bool files_reader_child_send(const files_reader_child& child, const files_reader_request& request,
                             int fd) noexcept;

/* Receives the answer of that number. May throw std::bad_alloc. */
files_reader_packet files_reader_child_receive(files_reader_child* child, uint32_t number,
                                               const files_cancel& cancel, std::string* bytes);

/* Ends the process, at once if it is to be killed, and forgets it: how it ended, as waitpid(2)
 * tells, or -1 when that is not known. Waits for a moment only: one that hangs on a dead drive is
 * left behind. */
int files_reader_child_end(files_reader_child* child, bool kill_it) noexcept;

/* Waits a moment for the processes that were left behind. */
void files_reader_child_collect() noexcept;

/* Milliseconds of the processor that it has used. */
int64_t files_reader_child_used(const files_reader_child& child) noexcept;

/* The same of the clock that only goes forward. */
int64_t files_reader_child_now() noexcept;

#endif
