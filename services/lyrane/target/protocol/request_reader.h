/* Reading a request's fields: the only place that touches bytes of clients.
 *
 * Every read is checked against the bytes that remain; the first that does not fit marks the
 * request as malformed, and all later ones give nothing. Fields are unaligned. */
#ifndef LYRANE_REQUEST_READER_H
#define LYRANE_REQUEST_READER_H

#include <cstdint>

#include <veloran/lock.h>

struct request_reader {
    const unsigned char* data; /* borrowed */
    int64_t size;
    int64_t at;
    bool malformed;
};

int8_t request_read_i8(request_reader* reader) noexcept;
uint16_t request_read_u16(request_reader* reader) noexcept;
int32_t request_read_i32(request_reader* reader) noexcept;
uint32_t request_read_u32(request_reader* reader) noexcept;
uint64_t request_read_u64(request_reader* reader) noexcept;
float request_read_f32(request_reader* reader) noexcept;
void request_skip(request_reader* reader, int64_t bytes) noexcept;

/* `length` bytes as a text of the caller's own, a NUL behind them. Null when they are not there
 * (malformed) or without memory (malformed, too). */
vel_text request_read_text(request_reader* reader, int64_t length) noexcept;

/* Bytes that remain. */
int64_t request_remaining(const request_reader* reader) noexcept;

#endif
