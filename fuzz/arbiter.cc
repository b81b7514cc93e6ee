/* What goes over the control object of the audio focus, both ways: the policy's file, what clients
 * and persons write to the arbiter, what players read of one. Any bytes; afterwards the arbiter's
 * books must balance, and players understand what it sends.
 *
 * An input: the policy's length (2 bytes) and text; then steps: a byte (bits 0 and 1 the client,
 * bits 2 and up what happens), for some the length of a text and the text. */
#include <iterator>

#include <nlohmann/json.hpp>

#include <veloran/server_object.h>

#include "arbiter.h"
#include "control.h"
#include "input.h"
#include "message.h"
#include "nowplaying_text.h"
#include "policy_file.h"

namespace {

constexpr int STEPS = 40;
constexpr uint64_t FIRST_OUTSIDER = 10;

/* The same text read as a whole and message by message. */
void require_read(const std::string& text) {
    const char* at = text.c_str();
    const char* next = nullptr;
    do {
        nowplaying_message message;
        nowplaying_message again;
        next = nowplaying_read(at, &message);
        require(next == nullptr || (next > at && next <= text.c_str() + text.size()),
                "a reader goes on inside the text");
        const std::string alone = next == nullptr ? at : std::string(at, next);
        require(nowplaying_read(alone.c_str(), &again) == nullptr, "one message is one");
        require(again.command == message.command && again.answer == message.answer &&
                    again.refused == message.refused && again.lost == message.lost,
                "a message means the same alone");
        at = next;
    } while (next != nullptr);
}

/* What a player understands of each order. */
void require_understood(arbiter_order order) {
    static constexpr nowplaying_message expected[] = {
        {NOWPLAYING_DO_NOTHING, true, false, false},  {NOWPLAYING_DO_NOTHING, true, true, false},
        {NOWPLAYING_DO_REVOKE, false, false, false},  {NOWPLAYING_DO_PLAY, false, false, false},
        {NOWPLAYING_DO_PAUSE, false, false, false},   {NOWPLAYING_DO_NEXT, false, false, false},
        {NOWPLAYING_DO_PREVIOUS, false, false, false}};
    nowplaying_message read;
    require(nowplaying_read(message_text(order), &read) == nullptr, "an order is one message");
    const nowplaying_message& wanted = expected[order];
    require(read.command == wanted.command && read.answer == wanted.answer &&
                read.refused == wanted.refused && read.lost == wanted.lost,
            "a player understands an order");
}

void require_balance(const arbiter& arbiter, const arbiter_messages& out) {
    for (const arbiter_message& message : out) {
        const auto member = arbiter.members.find(message.to);
        require(member == arbiter.members.end() || !member->second.outside,
                "only clients are told anything");
        require_understood(message.order);
    }
    require(arbiter.holder == 0 || arbiter.members.contains(arbiter.holder),
            "the holder is a member");
    for (const uint64_t id : arbiter_turns(arbiter)) {
        require(arbiter.holder != 0 && id != arbiter.holder, "a turn is for somebody else's focus");
    }
}

void take_message(arbiter* arbiter, uint64_t id, const std::string& text, arbiter_messages* out) {
    message parsed;
    std::string why;
    if (!message_parse(text, &parsed, &why)) {
        require(!why.empty(), "a message is refused with a reason");
        return;
    }
    switch (parsed.verb) {
    case MESSAGE_REGISTER:
        require(!parsed.words.name.empty() && parsed.words.name.size() <= MESSAGE_NAME_MAX &&
                    parsed.words.kind.size() <= MESSAGE_WORD_MAX,
                "words are cut");
        (void)arbiter_join(arbiter, id, parsed.words);
        break;
    case MESSAGE_ACQUIRE:
        arbiter_acquire(arbiter, id, out);
        break;
    case MESSAGE_RELEASE:
        arbiter_release(arbiter, id, out);
        break;
    case MESSAGE_STATE:
        arbiter_report(arbiter, id, parsed.state, out);
        break;
    }
}

void take_request(arbiter* arbiter, const std::string& text, uint64_t fresh,
                  arbiter_messages* out) {
    const std::string answer = control_answer(arbiter, text, fresh, out);
    require(answer.size() <= SERVER_OBJECT_MESSAGE_MAX, "an answer fits into a message");
    const nlohmann::json read = nlohmann::json::parse(answer, nullptr, false);
    require(read.is_object() && read.contains("ok") && read["ok"].is_boolean(),
            "an answer is an object with a result");
    require(read["ok"] == true || read.contains("why"), "a refusal has a reason");
}

void step(fuzz_input* input, arbiter* arbiter, uint64_t* fresh) {
    static constexpr const char* TEXTS[] = {
        "msg::acquire",
        "msg::release",
        "msg::state\ndat::playing",
        "msg::state\ndat::paused",
        "msg::state\ndat::stopped",
        "msg::register\ndat:json:{\"name\":\"a\",\"prio\":\"high\"}",
        "msg::register\ndat:json:{\"name\":\"b\",\"audio\":\"navigation\"}"};
    static constexpr const char* REQUESTS[] = {
        R"({"command":"take","name":"x"})", R"({"command":"give-back","name":"x"})",
        R"({"command":"play","name":"a"})", R"({"command":"pause","name":"#2"})",
        R"({"command":"status"})",          R"({"command":"next","name":"b"})"};
    const unsigned op = input_u8(input);
    const uint64_t id = (op & 3) + 1;
    const unsigned what = (op >> 2) % (3 + std::size(TEXTS) + std::size(REQUESTS));
    arbiter_messages out;
    arbiter->now += op & 1;
    if (what == 0) {
        arbiter_leave(arbiter, id, &out);
    } else if (what <= 2) {
        const std::string text = input_bytes(input, input_u8(input));
        require_read(text);
        if (what == 1) {
            take_message(arbiter, id, text, &out);
        } else {
            take_request(arbiter, text, (*fresh)++, &out);
        }
    } else if (what < 3 + std::size(TEXTS)) {
        take_message(arbiter, id, TEXTS[what - 3], &out);
    } else {
        take_request(arbiter, REQUESTS[what - 3 - std::size(TEXTS)], (*fresh)++, &out);
    }
    require_balance(*arbiter, out);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input = {data, size};
    arbiter arbiter;
    arbiter.rules = policy_default();
    std::string why;
    if (!policy_file_parse(input_bytes(&input, input_u16(&input)), "FILE", &arbiter.rules, &why)) {
        require(why.starts_with("FILE: "), "a policy is refused with a reason");
    }
    require(arbiter.rules.kinds.contains(arbiter.rules.unknown_kind) &&
                arbiter.rules.priorities.contains(arbiter.rules.unknown_priority),
            "a policy knows what unknown words count as");
    uint64_t fresh = FIRST_OUTSIDER;
    for (int i = 0; i < STEPS && input.left > 0; ++i) {
        step(&input, &arbiter, &fresh);
    }
    return 0;
}
