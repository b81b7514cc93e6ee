/* Random events against what must always hold, seen from what the clients are told. */
#include "arbiter.h"

#include <random>

#include <gtest/gtest.h>

namespace {

constexpr uint64_t CLIENTS = 8;   /* ids 1 .. 8 */
constexpr uint64_t OUTSIDERS = 2; /* 9, 10 */
constexpr int ROUNDS = 300;
constexpr int EVENTS = 400;

struct seen {
    bool holds = false;   /* granted or told to play, or plays unasked, and not revoked since */
    bool playing = false; /* has said so */
    bool wants = false;   /* may be told to play: was interrupted, or put off */
};

struct model {
    arbiter focus;
    seen clients[CLIENTS + 1];
    bool told_by_person = false; /* the present event is a person's order to play */
};

void forget(seen* client) {
    client->holds = false;
    client->playing = false;
    client->wants = false;
}

/* Nobody else may believe to have the focus when somebody gets it. */
void check_alone(const model& model, uint64_t id) {
    for (uint64_t other = 1; other <= CLIENTS; other++) {
        EXPECT_TRUE(other == id || !model.clients[other].holds) << other << " beside " << id;
    }
}

void hear(model* model, const arbiter_message& message) {
    ASSERT_TRUE(message.to >= 1 && message.to <= CLIENTS);
    ASSERT_TRUE(model->focus.members.contains(message.to));
    seen& client = model->clients[message.to];
    switch (message.order) {
    case ARBITER_PLAY:
        EXPECT_TRUE(client.wants || model->told_by_person) << message.to;
        [[fallthrough]];
    case ARBITER_GRANT:
        check_alone(*model, message.to);
        client.holds = true;
        client.wants = false;
        break;
    case ARBITER_REVOKE:
        client.wants = client.wants || client.playing;
        client.playing = false;
        client.holds = false;
        break;
    case ARBITER_REFUSE:
        EXPECT_NE(model->focus.holder, message.to);
        client.wants = client.wants || model->focus.rules.lower == POLICY_WAITS ||
                       model->focus.rules.equal == POLICY_WAITS;
        break;
    default:
        break;
    }
}

void check(const model& model) {
    const arbiter& arbiter = model.focus;
    EXPECT_TRUE(arbiter.holder == 0 || arbiter.members.contains(arbiter.holder));
    EXPECT_TRUE(arbiter.holder != 0 || arbiter_turns(arbiter).empty()) << "waits for a free focus";
    for (uint64_t id = 1; id <= CLIENTS; id++) {
        EXPECT_EQ(model.clients[id].holds, arbiter.holder == id) << id;
    }
    for (const uint64_t id : arbiter_turns(arbiter)) {
        EXPECT_NE(id, arbiter.holder);
        EXPECT_TRUE(id > CLIENTS || model.clients[id].wants) << id;
    }
}

/* One that said "playing" and was not revoked for it has the focus. */
void report_playing(model* model, uint64_t id, arbiter_messages* out) {
    seen& client = model->clients[id];
    const bool joined = model->focus.members.contains(id);
    arbiter_report(&model->focus, id, ARBITER_PLAYING, out);
    const bool revoked = !out->empty() && out->back().to == id;
    if (joined) {
        client.playing = true;
        client.wants = true;
        if (model->focus.holder == id && !revoked) {
            for (const arbiter_message& message : *out) {
                hear(model, message);
            }
            out->clear();
            check_alone(*model, id);
            client.holds = true;
        }
    }
}

void report_quiet(model* model, uint64_t id, arbiter_state state, arbiter_messages* out) {
    if (state == ARBITER_STOPPED) {
        forget(&model->clients[id]);
    }
    model->clients[id].playing = false;
    arbiter_report(&model->focus, id, state, out);
}

void person(model* model, int choice, uint64_t id, arbiter_messages* out) {
    if (choice == 0) {
        model->told_by_person = true;
        arbiter_tell(&model->focus, id, ARBITER_PLAY, out);
    } else if (choice == 1) {
        model->clients[id].wants = false;
        arbiter_tell(&model->focus, id, ARBITER_PAUSE, out);
    } else if (model->focus.members.contains(CLIENTS + 1 + id % OUTSIDERS)) {
        arbiter_leave(&model->focus, CLIENTS + 1 + id % OUTSIDERS, out);
    } else {
        arbiter_take(&model->focus, CLIENTS + 1 + id % OUTSIDERS,
                     {"", id % 3 == 0 ? "general" : "phone", "", ""}, out);
    }
}

void happen(model* model, int choice, uint64_t id, arbiter_messages* out) {
    constexpr const char* KINDS[] = {"general", "navigation", "phone"};
    constexpr const char* PRIORITIES[] = {"low", "high"};
    arbiter* arbiter = &model->focus;
    model->told_by_person = false;
    switch (choice) {
    case 0:
        arbiter_join(arbiter, id, {"", KINDS[id % 5 % 3], PRIORITIES[id % 2], ""});
        break;
    case 1:
        forget(&model->clients[id]);
        arbiter_leave(arbiter, id, out);
        break;
    case 2:
    case 3:
        arbiter_acquire(arbiter, id, out);
        break;
    case 4:
        forget(&model->clients[id]);
        arbiter_release(arbiter, id, out);
        break;
    case 5:
    case 6:
        report_playing(model, id, out);
        break;
    case 7:
    case 8:
        report_quiet(model, id, choice == 7 ? ARBITER_PAUSED : ARBITER_STOPPED, out);
        break;
    default:
        person(model, choice - 9, id, out);
    }
}

policy random_policy(std::mt19937* random) {
    policy rules = policy_default();
    rules.equal = static_cast<policy_answer>((*random)() % 3);
    rules.lower = (*random)() % 2 == 0 ? POLICY_WAITS : POLICY_REFUSED;
    rules.resume_equal = (*random)() % 2 == 0;
    for (auto& [word, kind] : rules.kinds) {
        kind.resume = (*random)() % 2 == 0;
    }
    return rules;
}

} // namespace

TEST(Arbiter, RandomEvents) {
    for (unsigned seed = 0; seed < ROUNDS && !testing::Test::HasFailure(); seed++) {
        std::mt19937 random(seed);
        model model;
        model.focus.rules = random_policy(&random);
        for (int i = 0; i < EVENTS && !testing::Test::HasFailure(); i++) {
            const int choice = static_cast<int>(random() % 12);
            const uint64_t id = random() % CLIENTS + 1;
            SCOPED_TRACE(testing::Message()
                         << "seed " << seed << ", event " << i << ": " << choice << " of " << id);
            arbiter_messages out;
            happen(&model, choice, id, &out);
            for (const arbiter_message& message : out) {
                hear(&model, message);
            }
            check(model);
        }
    }
}
