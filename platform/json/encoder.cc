/* The encoder writes its text as the calls come; only strings go through the JSON library, which
 * knows how to escape them and how to replace what is not UTF-8. */
#include <veloran/json.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <system_error>

#include <nlohmann/json.hpp>

namespace {

constexpr size_t FIRST_CAPACITY = 256;
constexpr size_t NUMBER_SIZE = 24; /* digits and sign of 64 bits */

} // namespace

static int32_t fail(pps_encoder* encoder, int32_t error) {
    if (encoder->error == PPS_JSON_OK) {
        encoder->error = error;
    }
    return encoder->error;
}

/* Appends bytes; the text always ends with a NUL. */
static int32_t append(pps_encoder* encoder, const char* bytes, size_t length) {
    if (length > SIZE_MAX / 4 || encoder->length > SIZE_MAX / 4) {
        return fail(encoder, PPS_JSON_NO_MEMORY);
    }
    const size_t needed = encoder->length + length + 1;
    if (needed > encoder->capacity) {
        size_t capacity = encoder->capacity == 0 ? FIRST_CAPACITY : encoder->capacity * 2;
        if (capacity < needed) {
            capacity = needed;
        }
        void* grown = std::realloc(encoder->text, capacity);
        if (grown == nullptr) {
            return fail(encoder, PPS_JSON_NO_MEMORY);
        }
        encoder->text = static_cast<char*>(grown);
        encoder->capacity = capacity;
    }
    std::memcpy(encoder->text + encoder->length, bytes, length);
    encoder->length += length;
    encoder->text[encoder->length] = '\0';
    return PPS_JSON_OK;
}

/* Appends a quoted JSON string. */
static int32_t append_string(pps_encoder* encoder, const char* text) {
    try {
        const std::string quoted =
            nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        return append(encoder, quoted.data(), quoted.size());
    } catch (const std::exception&) {
        return fail(encoder, PPS_JSON_NO_MEMORY);
    }
}

/* Appends what stands before a member's value: a comma where one is due, name and colon. */
static int32_t append_member(pps_encoder* encoder, const char* name) {
    if (encoder->error != PPS_JSON_OK) {
        return encoder->error;
    }
    if (encoder->depth == 0 || name == nullptr) {
        return fail(encoder, PPS_JSON_BAD_CALL);
    }
    if (encoder->text[encoder->length - 1] != '{') {
        append(encoder, ",", 1);
    }
    append_string(encoder, name);
    return append(encoder, ":", 1);
}

/* Appends a member whose value is a number's text. */
static int32_t append_number(pps_encoder* encoder, const char* name, const char* digits,
                             const char* end) {
    if (append_member(encoder, name) != PPS_JSON_OK) {
        return encoder->error;
    }
    return append(encoder, digits, static_cast<size_t>(end - digits));
}

extern "C" {

void pps_encoder_initialize(pps_encoder* encoder) noexcept {
    *encoder = pps_encoder{nullptr, 0, 0, 0, PPS_JSON_OK};
}

void pps_encoder_cleanup(pps_encoder* encoder) noexcept {
    std::free(encoder->text);
    pps_encoder_initialize(encoder);
}

int32_t pps_encoder_start_object(pps_encoder* encoder, const char* name) noexcept {
    if (encoder->error != PPS_JSON_OK) {
        return encoder->error;
    }
    if (encoder->depth == 0) {
        if (encoder->length != 0 || name == nullptr || *name == '\0' ||
            std::strpbrk(name, ":\n") != nullptr) {
            return fail(encoder, PPS_JSON_BAD_CALL);
        }
        append(encoder, name, std::strlen(name));
        append(encoder, ":json:{", 7);
    } else {
        if (encoder->depth == PPS_JSON_DEPTH_MAX) {
            return fail(encoder, PPS_JSON_DEPTH);
        }
        append_member(encoder, name);
        append(encoder, "{", 1);
    }
    ++encoder->depth;
    return encoder->error;
}

int32_t pps_encoder_end_object(pps_encoder* encoder) noexcept {
    if (encoder->error != PPS_JSON_OK) {
        return encoder->error;
    }
    if (encoder->depth == 0) {
        return fail(encoder, PPS_JSON_BAD_CALL);
    }
    --encoder->depth;
    return append(encoder, "}", 1);
}

int32_t pps_encoder_add_string(pps_encoder* encoder, const char* name, const char* value) noexcept {
    if (value == nullptr) {
        return encoder->error;
    }
    if (append_member(encoder, name) != PPS_JSON_OK) {
        return encoder->error;
    }
    return append_string(encoder, value);
}

int32_t pps_encoder_add_int(pps_encoder* encoder, const char* name, int32_t value) noexcept {
    return pps_encoder_add_int64(encoder, name, value);
}

int32_t pps_encoder_add_int64(pps_encoder* encoder, const char* name, int64_t value) noexcept {
    char digits[NUMBER_SIZE];
    return append_number(encoder, name, digits,
                         std::to_chars(digits, digits + sizeof(digits), value).ptr);
}

int32_t pps_encoder_add_uint64(pps_encoder* encoder, const char* name, uint64_t value) noexcept {
    char digits[NUMBER_SIZE];
    return append_number(encoder, name, digits,
                         std::to_chars(digits, digits + sizeof(digits), value).ptr);
}

const char* pps_encoder_buffer(const pps_encoder* encoder) noexcept {
    return encoder->error == PPS_JSON_OK && encoder->depth == 0 ? encoder->text : nullptr;
}

size_t pps_encoder_length(const pps_encoder* encoder) noexcept {
    return pps_encoder_buffer(encoder) == nullptr ? 0 : encoder->length;
}
}
