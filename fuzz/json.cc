/* JSON: any text through the decoder. What it takes is walked to its last value, written by the
 * encoder as one object, and read back: names, types and values must be the same. */
#include <string_view>

#include <veloran/json.h>

#include "input.h"

namespace {

/* Reads a value in every way; only the ways of its type succeed. The text of a string, or null. */
const char* read_value(const pps_decoder* decoder, const char* name) {
    const int32_t type = pps_decoder_type(decoder, name);
    const bool is_number = type == PPS_JSON_INTEGER || type == PPS_JSON_DOUBLE;
    const char* text = nullptr;
    int32_t small = 0;
    int64_t large = 0;
    uint64_t natural = 0;
    double real = 0;
    bool truth = false;
    const bool is_text = pps_decoder_get_string(decoder, name, &text) == PPS_JSON_OK;
    require(is_text == (type == PPS_JSON_STRING) && is_text == (text != nullptr), "a string");
    const bool fits_64 = pps_decoder_get_int64(decoder, name, &large) == PPS_JSON_OK;
    const bool fits_32 = pps_decoder_get_int(decoder, name, &small) == PPS_JSON_OK;
    const bool is_natural = pps_decoder_get_uint64(decoder, name, &natural) == PPS_JSON_OK;
    require(!fits_64 || type == PPS_JSON_INTEGER, "an integer");
    require(!fits_32 || (fits_64 && small == large), "an integer of 32 bits");
    require(!is_natural || !fits_64 || natural == static_cast<uint64_t>(large), "both integers");
    require((fits_64 || is_natural) == (type == PPS_JSON_INTEGER), "an integer fits somewhere");
    require((pps_decoder_get_double(decoder, name, &real) == PPS_JSON_OK) == is_number, "a number");
    require((pps_decoder_get_bool(decoder, name, &truth) == PPS_JSON_OK) ==
                (type == PPS_JSON_BOOLEAN),
            "a boolean");
    return text;
}

void walk(pps_decoder* decoder, int depth) {
    require(depth <= PPS_JSON_DEPTH_MAX, "the depth has a bound");
    const int32_t length = pps_decoder_length(decoder);
    for (int32_t i = 0; i < length; ++i) {
        require(pps_decoder_goto_index(decoder, i) == PPS_JSON_OK, "each position is there");
        const char* name = pps_decoder_name(decoder);
        const char* text = read_value(decoder, nullptr);
        if (name != nullptr) {
            const char* named = read_value(decoder, name);
            require(text == named, "a member has one value");
        }
        const int32_t type = pps_decoder_type(decoder, nullptr);
        const bool entered = pps_decoder_push(decoder, nullptr) == PPS_JSON_OK;
        require(entered == (type == PPS_JSON_ARRAY || type == PPS_JSON_OBJECT), "a container");
        if (entered) {
            walk(decoder, depth + 1);
            require(pps_decoder_pop(decoder) == PPS_JSON_OK, "what was entered can be left");
        }
    }
    require(pps_decoder_goto_index(decoder, length) == PPS_JSON_NOT_FOUND, "the end");
}

/* The names and strings of the outermost object, written and read. */
void write_and_read(pps_decoder* decoder) {
    pps_encoder encoder;
    pps_encoder_initialize(&encoder);
    (void)pps_encoder_start_object(&encoder, "object");
    const int32_t length = pps_decoder_length(decoder);
    for (int32_t i = 0; i < length; ++i) {
        (void)pps_decoder_goto_index(decoder, i);
        const char* name = pps_decoder_name(decoder);
        const char* text = nullptr;
        if (name != nullptr && pps_decoder_get_string(decoder, nullptr, &text) == PPS_JSON_OK) {
            (void)pps_encoder_add_string(&encoder, name, text);
        }
    }
    require(pps_encoder_end_object(&encoder) == PPS_JSON_OK, "an object is written");
    const std::string_view written = pps_encoder_buffer(&encoder);
    constexpr std::string_view front = "object:json:";
    require(written.size() == pps_encoder_length(&encoder) && written.substr(0, 12) == front &&
                written.find('\n') == std::string_view::npos,
            "an attribute of one line");
    pps_decoder again;
    require(pps_decoder_initialize(&again) == PPS_JSON_OK, "memory");
    require(pps_decoder_parse_json_str(&again, written.data() + front.size()) == PPS_JSON_OK &&
                pps_decoder_push(&again, nullptr) == PPS_JSON_OK,
            "what is written can be read");
    require(pps_decoder_duplicate(&again, 0) == nullptr, "each member once");
    for (int32_t i = 0; pps_decoder_goto_index(&again, i) == PPS_JSON_OK; ++i) {
        const char* name = pps_decoder_name(&again);
        const char* before = read_value(decoder, name);
        const char* after = read_value(&again, nullptr);
        require(before != nullptr && after != nullptr && strcmp(before, after) == 0, "a string");
    }
    pps_decoder_cleanup(&again);
    pps_encoder_cleanup(&encoder);
}

/* Text of any bytes can be written, too: that is how tags come. */
void write_bytes(const char* text) {
    pps_encoder encoder;
    pps_encoder_initialize(&encoder);
    (void)pps_encoder_start_object(&encoder, "object");
    (void)pps_encoder_add_string(&encoder, text, text);
    require(pps_encoder_end_object(&encoder) == PPS_JSON_OK, "any bytes can be written");
    pps_decoder decoder;
    require(pps_decoder_initialize(&decoder) == PPS_JSON_OK, "memory");
    require(pps_decoder_parse_json_str(&decoder, pps_encoder_buffer(&encoder) +
                                                     strlen("object:json:")) == PPS_JSON_OK,
            "any bytes become JSON");
    pps_decoder_cleanup(&decoder);
    pps_encoder_cleanup(&encoder);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    write_bytes(text.c_str());
    pps_decoder decoder;
    require(pps_decoder_initialize(&decoder) == PPS_JSON_OK, "memory");
    const int32_t result = pps_decoder_parse_json_str(&decoder, text.c_str());
    int32_t line = 0;
    int32_t column = 0;
    const char* reason = nullptr;
    pps_decoder_error(&decoder, &line, &column, &reason);
    require((result == PPS_JSON_OK) == (line == 0), "a failure has a place");
    if (result == PPS_JSON_OK && pps_decoder_push(&decoder, nullptr) == PPS_JSON_OK) {
        walk(&decoder, 1);
        write_and_read(&decoder);
        require(pps_decoder_pop(&decoder) == PPS_JSON_OK, "the outermost value can be left");
    }
    pps_decoder_cleanup(&decoder);
    return 0;
}
