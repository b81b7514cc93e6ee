/* JSON as the publish/subscribe objects use it: an encoder that writes attribute values, and a
 * decoder that walks a parsed text with a cursor.
 *
 * Records are the caller's, usually on the stack, and belong to one thread at a time. Nothing here
 * throws or logs; errno is not used. Results are PPS_JSON_* numbers. [any thread] */
#ifndef VELORAN_JSON_H
#define VELORAN_JSON_H

#include <cstddef>
#include <cstdint>

constexpr int32_t PPS_JSON_OK = 0;
constexpr int32_t PPS_JSON_NO_MEMORY = 1;
constexpr int32_t PPS_JSON_SYNTAX = 2; /* not valid JSON, not valid UTF-8, or a number too large */
constexpr int32_t PPS_JSON_DEPTH = 3;  /* nested deeper than PPS_JSON_DEPTH_MAX */
constexpr int32_t PPS_JSON_NOT_FOUND = 4; /* no such member, or no element at the position */
constexpr int32_t PPS_JSON_BAD_TYPE = 5;  /* there is a value, but of another type */
constexpr int32_t PPS_JSON_BAD_CALL = 6;  /* the call makes no sense at this point */

constexpr int32_t PPS_JSON_DEPTH_MAX = 64; /* objects and arrays within each other */

/* Types of values, as pps_decoder_type tells them. */
constexpr int32_t PPS_JSON_NONE = 0; /* no such value */
constexpr int32_t PPS_JSON_NULL = 1;
constexpr int32_t PPS_JSON_BOOLEAN = 2;
constexpr int32_t PPS_JSON_INTEGER =
    3; /* a number without fraction and exponent that fits 64 bits */
constexpr int32_t PPS_JSON_DOUBLE = 4;
constexpr int32_t PPS_JSON_STRING = 5;
constexpr int32_t PPS_JSON_ARRAY = 6;
constexpr int32_t PPS_JSON_OBJECT = 7;

/* The encoder. Its fields are its own. */
struct pps_encoder {
    char* text;
    size_t length;
    size_t capacity;
    int32_t depth;
    int32_t error; /* the first PPS_JSON_* failure; it stays */
};

/* The decoder; its fields are its own. */
struct pps_decoder_state;
struct pps_decoder {
    pps_decoder_state* state;
};

extern "C" {

/* --- Encoder -------------------------------------------------------------------------------------
 *
 * The outermost object with name N gives the text "N:json:{...}", without a line end. Members keep
 * the order of the calls. A failure is kept and makes the following calls fail the same, so a
 * caller may test pps_encoder_buffer alone. */

/* Makes an empty encoder. Always followed by pps_encoder_cleanup. */
void pps_encoder_initialize(pps_encoder* encoder) noexcept;
/* Releases the text; the encoder is empty again. */
void pps_encoder_cleanup(pps_encoder* encoder) noexcept;
/* Opens an object. The outermost one's name is an attribute name: not empty, without ':' and
 * line feed; only one is allowed. Inside another object it becomes a member of that name. */
int32_t pps_encoder_start_object(pps_encoder* encoder, const char* name) noexcept;
int32_t pps_encoder_end_object(pps_encoder* encoder) noexcept;
/* Adds a member to the open object. Text may be any bytes: each sequence that is not UTF-8 becomes
 * U+FFFD, control characters are escaped (so the text is always one line). The strings are copied.
 * A null string adds nothing and succeeds. */
int32_t pps_encoder_add_string(pps_encoder* encoder, const char* name, const char* value) noexcept;
int32_t pps_encoder_add_int(pps_encoder* encoder, const char* name, int32_t value) noexcept;
int32_t pps_encoder_add_int64(pps_encoder* encoder, const char* name, int64_t value) noexcept;
int32_t pps_encoder_add_uint64(pps_encoder* encoder, const char* name, uint64_t value) noexcept;
/* The text, borrowed until the next call on the encoder; null after a failure or while an object
 * is still open. */
const char* pps_encoder_buffer(const pps_encoder* encoder) noexcept;
/* Bytes of that text, 0 where the text is null. */
size_t pps_encoder_length(const pps_encoder* encoder) noexcept;

/* --- Decoder -------------------------------------------------------------------------------------
 *
 * A cursor stands in a container (an object or an array) at a position (0 .. length - 1); entering
 * a container puts it at position 0. Before the first push it stands in front of the one top-level
 * value. Where `name` is null, the element at the position is meant; otherwise the member of that
 * name. The position moves by pps_decoder_goto_index alone. A call that fails moves nothing.
 *
 * Members and elements keep the order of the text. Of members of the same name in one object the
 * last value counts, at the place of the first; pps_decoder_duplicate names them. */

/* Makes an empty decoder: PPS_JSON_OK or PPS_JSON_NO_MEMORY (then cleanup is not needed). */
int32_t pps_decoder_initialize(pps_decoder* decoder) noexcept;
/* Releases all; strings handed out are no longer valid. Accepts a cleaned-up decoder. */
void pps_decoder_cleanup(pps_decoder* decoder) noexcept;
/* Parses a NUL-terminated text, in place of an earlier one. PPS_JSON_OK, _SYNTAX, _DEPTH or
 * _NO_MEMORY; after a failure every other call finds nothing. The text is not needed afterwards.
 * A leading byte-order mark is skipped. */
int32_t pps_decoder_parse_json_str(pps_decoder* decoder, const char* text) noexcept;
/* Where and why the last parse failed: line and column count from 1, the column in bytes. The
 * reason is borrowed until the next parse; it may quote the text. Line 0 when nothing failed.
 * Any pointer may be null. */
void pps_decoder_error(const pps_decoder* decoder, int32_t* line, int32_t* column,
                       const char** reason) noexcept;
/* The path ("player.audio_output") of the nth member (n from 0) of the text that was given more
 * than once, borrowed until the next parse; null when there are not so many. */
const char* pps_decoder_duplicate(const pps_decoder* decoder, int32_t n) noexcept;

/* Enters an object or array: PPS_JSON_OK, _NOT_FOUND or _BAD_TYPE. */
int32_t pps_decoder_push(pps_decoder* decoder, const char* name) noexcept;
/* Leaves the container; the cursor is back at the position where it entered. PPS_JSON_OK, or
 * _BAD_CALL in front of the top-level value. */
int32_t pps_decoder_pop(pps_decoder* decoder) noexcept;
/* Elements of the present container; 0 in front of the top-level value. */
int32_t pps_decoder_length(const pps_decoder* decoder) noexcept;
/* Moves to a position of the present container: PPS_JSON_OK or _NOT_FOUND. */
int32_t pps_decoder_goto_index(pps_decoder* decoder, int32_t position) noexcept;
/* Name of the member at the position, borrowed until the next parse. Null in an array, in an empty
 * container, and for a name that holds a NUL and so is no C string. */
const char* pps_decoder_name(const pps_decoder* decoder) noexcept;
/* PPS_JSON_NONE .. PPS_JSON_OBJECT. A string that holds a NUL is PPS_JSON_NULL: no string. */
int32_t pps_decoder_type(const pps_decoder* decoder, const char* name) noexcept;

/* Read a value: PPS_JSON_OK, _NOT_FOUND or _BAD_TYPE (also for a number out of the range of the
 * type). *value is written on success only. Strings are borrowed until the next parse. */
int32_t pps_decoder_get_string(const pps_decoder* decoder, const char* name,
                               const char** value) noexcept;
int32_t pps_decoder_get_int(const pps_decoder* decoder, const char* name, int32_t* value) noexcept;
int32_t pps_decoder_get_int64(const pps_decoder* decoder, const char* name,
                              int64_t* value) noexcept;
int32_t pps_decoder_get_uint64(const pps_decoder* decoder, const char* name,
                               uint64_t* value) noexcept;
/* Any number. */
int32_t pps_decoder_get_double(const pps_decoder* decoder, const char* name,
                               double* value) noexcept;
int32_t pps_decoder_get_bool(const pps_decoder* decoder, const char* name, bool* value) noexcept;
}

#endif
