/* The reader's life: one request after the other. */
#ifndef LYRANE_READER_SERVE_H
#define LYRANE_READER_SERVE_H

#include "files_reader_answer.h"

/* Answers what comes over the standard input, which is one end of a SOCK_SEQPACKET pair, until the
 * other end goes. Confines the process first. `read` is reader_read, or a test's. */
void reader_serve(files_reader_found (*read)(int fd, const files_reader_request& request)) noexcept;

/* Sends one packet, or ends the process: nobody listens any more. */
void reader_serve_send(const void* first, size_t first_length, const void* second,
                       size_t second_length) noexcept;

#endif
