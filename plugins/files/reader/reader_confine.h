/* Giving up what reading files does not need. */
#ifndef LYRANE_READER_CONFINE_H
#define LYRANE_READER_CONFINE_H

#include <cstddef>

/* The process may have so much memory in bytes, and so many seconds of the processor in all: the
 * plug-in takes another one before. Builds with sanitizers have no bound of memory. */
constexpr size_t READER_MEMORY = size_t{256} * 1024 * 1024;
constexpr unsigned READER_SECONDS = 60;

/* From here on the process can read from the descriptors that it gets and write to its socket,
 * STDIN_FILENO, and nothing else. False when the filter of system calls cannot be set; the rest is. What
 * cannot be given up ends the process. */
bool reader_confine() noexcept;

#endif
