#include "message.h"

#include <veloran/json.h>

namespace {

constexpr std::string_view VERB = "msg::";
constexpr std::string_view DATA = "dat::";
constexpr std::string_view JSON = "dat:json:";

/* The values of a text's lines; those that a text does not have have no data. */
struct lines {
    std::string_view verb;
    std::string_view data;
    std::string_view json;
};

bool store(std::string_view line, std::string_view head, std::string_view* value,
           std::string* why) {
    if (value->data() != nullptr) {
        *why = "it has two \"" + std::string(head) + "\" lines";
        return false;
    }
    *value = line.substr(head.size());
    return true;
}

bool split(std::string_view text, lines* found, std::string* why) {
    while (true) {
        const size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        if ((line.starts_with(VERB) && !store(line, VERB, &found->verb, why)) ||
            (line.starts_with(DATA) && !store(line, DATA, &found->data, why)) ||
            (line.starts_with(JSON) && !store(line, JSON, &found->json, why))) {
            return false;
        }
        if (end == std::string_view::npos) {
            break;
        }
        text.remove_prefix(end + 1);
    }
    if (found->verb.data() == nullptr) {
        *why = "it has no \"msg::\" line";
        return false;
    }
    return true;
}

/* A member of the open object; what is missing stays as it is. */
bool read_word(const pps_decoder* decoder, const char* key, size_t bytes, std::string* word,
               std::string* why) {
    const char* value = nullptr;
    const int32_t result = pps_decoder_get_string(decoder, key, &value);
    if (result == PPS_JSON_OK) {
        *word = message_cut(value, bytes);
    } else if (result != PPS_JSON_NOT_FOUND) {
        *why = std::string("its \"") + key + "\" is no text";
        return false;
    }
    return true;
}

bool read_words(pps_decoder* decoder, std::string_view json, arbiter_words* words,
                std::string* why) {
    if (json.find('\0') != std::string_view::npos ||
        pps_decoder_parse_json_str(decoder, std::string(json).c_str()) != PPS_JSON_OK ||
        pps_decoder_type(decoder, nullptr) != PPS_JSON_OBJECT ||
        pps_decoder_push(decoder, nullptr) != PPS_JSON_OK) {
        *why = "what stands behind \"dat:json:\" is no JSON object";
        return false;
    }
    *words = {{}, "general", "low", "plain"};
    if (!read_word(decoder, "name", MESSAGE_NAME_MAX, &words->name, why) ||
        !read_word(decoder, "prio", MESSAGE_WORD_MAX, &words->priority, why) ||
        !read_word(decoder, "audio", MESSAGE_WORD_MAX, &words->kind, why) ||
        !read_word(decoder, "overlay", MESSAGE_WORD_MAX, &words->overlay, why)) {
        return false;
    }
    if (words->name.empty()) {
        *why = "it says no \"name\"";
        return false;
    }
    return true;
}

bool parse_register(std::string_view json, arbiter_words* words, std::string* why) {
    pps_decoder decoder;
    if (pps_decoder_initialize(&decoder) != PPS_JSON_OK) {
        *why = "there is no memory";
        return false;
    }
    const bool read = read_words(&decoder, json, words, why);
    pps_decoder_cleanup(&decoder);
    return read;
}

bool parse_state(std::string_view data, arbiter_state* state, std::string* why) {
    if (data == "playing") {
        *state = ARBITER_PLAYING;
    } else if (data == "paused") {
        *state = ARBITER_PAUSED;
    } else if (data == "stopped") {
        *state = ARBITER_STOPPED;
    } else {
        *why = "its state is none of playing, paused and stopped";
        return false;
    }
    return true;
}

} // namespace

bool message_parse(std::string_view text, message* parsed, std::string* why) {
    lines found;
    if (!split(text, &found, why)) {
        return false;
    }
    if (found.verb == "register") {
        parsed->verb = MESSAGE_REGISTER;
        return parse_register(found.json, &parsed->words, why);
    }
    if (found.verb == "state") {
        parsed->verb = MESSAGE_STATE;
        return parse_state(found.data, &parsed->state, why);
    }
    if (found.verb == "acquire" || found.verb == "release") {
        parsed->verb = found.verb == "acquire" ? MESSAGE_ACQUIRE : MESSAGE_RELEASE;
        return true;
    }
    *why = "it is none of register, acquire, release and state";
    return false;
}

const char* message_text(arbiter_order order) {
    switch (order) {
    case ARBITER_GRANT:
        return "res::acquire\nid::1";
    case ARBITER_REFUSE:
        return "res::acquire\nid::1\nerr::revoked";
    case ARBITER_REVOKE:
        return "msg::revoke\nid::1";
    case ARBITER_PLAY:
        return "msg::track\nid::1\ndat::play";
    case ARBITER_PAUSE:
        return "msg::track\nid::1\ndat::pause";
    case ARBITER_NEXT:
        return "msg::track\nid::1\ndat::next";
    case ARBITER_PREVIOUS:
        break;
    }
    return "msg::track\nid::1\ndat::prev";
}

std::string message_cut(std::string_view text, size_t bytes) {
    if (text.size() > bytes) {
        while (bytes > 0 && (static_cast<unsigned char>(text[bytes]) & 0xC0) == 0x80) {
            bytes--;
        }
        text = text.substr(0, bytes);
    }
    return std::string(text);
}
