#include "request_reader.h"

#include <cstdlib>
#include <cstring>

/* The next `bytes` bytes, or null. */
static const unsigned char* take(request_reader* reader, int64_t bytes) noexcept {
    if (reader->malformed || bytes < 0 || bytes > reader->size - reader->at) {
        reader->malformed = true;
        return nullptr;
    }
    const unsigned char* at = reader->data + reader->at;
    reader->at += bytes;
    return at;
}

static void take_into(request_reader* reader, void* field, size_t bytes) noexcept {
    const unsigned char* at = take(reader, static_cast<int64_t>(bytes));
    if (at != nullptr) {
        memcpy(field, at, bytes);
    }
}

int8_t request_read_i8(request_reader* reader) noexcept {
    int8_t value = 0;
    take_into(reader, &value, sizeof value);
    return value;
}

uint16_t request_read_u16(request_reader* reader) noexcept {
    uint16_t value = 0;
    take_into(reader, &value, sizeof value);
    return value;
}

int32_t request_read_i32(request_reader* reader) noexcept {
    int32_t value = 0;
    take_into(reader, &value, sizeof value);
    return value;
}

uint32_t request_read_u32(request_reader* reader) noexcept {
    uint32_t value = 0;
    take_into(reader, &value, sizeof value);
    return value;
}

uint64_t request_read_u64(request_reader* reader) noexcept {
    uint64_t value = 0;
    take_into(reader, &value, sizeof value);
    return value;
}

float request_read_f32(request_reader* reader) noexcept {
    float value = 0;
    take_into(reader, &value, sizeof value);
    return value;
}

void request_skip(request_reader* reader, int64_t bytes) noexcept {
    (void)take(reader, bytes);
}

vel_text request_read_text(request_reader* reader, int64_t length) noexcept {
    const unsigned char* at = take(reader, length);
    if (at == nullptr) {
        return nullptr;
    }
    vel_text text(static_cast<char*>(malloc(static_cast<size_t>(length) + 1)));
    if (text == nullptr) {
        reader->malformed = true;
        return nullptr;
    }
    memcpy(text.get(), at, static_cast<size_t>(length));
    text.get()[length] = '\0';
    return text;
}

int64_t request_remaining(const request_reader* reader) noexcept {
    return reader->malformed ? 0 : reader->size - reader->at;
}
