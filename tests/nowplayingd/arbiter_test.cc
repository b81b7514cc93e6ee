/* Who gets the focus, step by step, under different policies. */
#include "arbiter.h"

#include <sstream>

#include <gtest/gtest.h>

#include "policy_file.h"

namespace {

struct script {
    const char* title;
    const char* policy; /* configuration file */
    const char* steps;  /* what happens, and to whom, and behind '>' what is told, in order */
};

/* a, b and c rank the same, h has a higher priority, n and x are of other kinds; "take" makes
 * outsiders. */
void populate(arbiter* arbiter) {
    arbiter_join(arbiter, 'a', {"a", "general", "low", ""});
    arbiter_join(arbiter, 'b', {"b", "no such kind", "no such priority", ""});
    arbiter_join(arbiter, 'c', {"c", "general", "low", ""});
    arbiter_join(arbiter, 'h', {"h", "general", "high", ""});
    arbiter_join(arbiter, 'n', {"n", "navigation", "low", ""});
    arbiter_join(arbiter, 'x', {"x", "phone", "high", ""});
}

bool play(arbiter* arbiter, const std::string& event, uint64_t id, arbiter_messages* out) {
    if (event == "acquire") {
        arbiter_acquire(arbiter, id, out);
    } else if (event == "release") {
        arbiter_release(arbiter, id, out);
    } else if (event == "leave") {
        arbiter_leave(arbiter, id, out);
    } else if (event == "take") {
        return arbiter_take(arbiter, id, {"outsider", "phone", "", ""}, out);
    } else if (event == "guide") {
        return arbiter_take(arbiter, id, {"outsider", "navigation", "", ""}, out);
    } else if (event == "tell-play") {
        return arbiter_tell(arbiter, id, ARBITER_PLAY, out);
    } else if (event == "tell-pause") {
        return arbiter_tell(arbiter, id, ARBITER_PAUSE, out);
    } else {
        arbiter_report(arbiter, id,
                       event == "playing"  ? ARBITER_PLAYING
                       : event == "paused" ? ARBITER_PAUSED
                                           : ARBITER_STOPPED,
                       out);
    }
    return true;
}

std::string perform(arbiter* arbiter, const std::string& step) {
    constexpr const char* WORDS[] = {"grant", "refuse", "revoke", "play", "pause"};
    std::istringstream words(step);
    std::string event;
    char who = 0;
    words >> event >> who;
    arbiter_messages out;
    std::string told = play(arbiter, event, static_cast<uint64_t>(who), &out) ? "" : "outranked";
    for (const arbiter_message& message : out) {
        told += (told.empty() ? "" : ", ") + std::string(WORDS[message.order]) + " " +
                static_cast<char>(message.to);
    }
    return told;
}

const script SCRIPTS[] = {
    {"the last of equals wins, and the interrupted ones come back in reverse", "{}",
     "acquire a > grant a; playing a; acquire a > grant a; acquire b > revoke a, grant b; "
     "playing b; acquire c > revoke b, grant c; playing c; stopped c > play b; release c; "
     "playing b; leave b > play a"},
    {"who does not play when it loses the focus does not resume", "{}",
     "acquire a > grant a; playing a; paused a; take p > revoke a; leave p; "
     "acquire b > grant b; release b"},
    {"a playing that crosses with the revoke is no claim, but gets a turn", "{}",
     "acquire a > grant a; acquire b > revoke a, grant b; playing a; playing b; "
     "release b > play a"},
    {"the same when the focus is free again meanwhile", "{}",
     "acquire a > grant a; acquire b > revoke a, grant b; release b; playing a > play a"},
    {"who plays in spite of the revoke is revoked again", "{}",
     "acquire a > grant a; playing a; acquire b > revoke a, grant b; paused a; "
     "playing a > revoke a; playing a > revoke a; acquire a > revoke b, grant a"},
    {"who stops or gives up while it waits has no turn", "{}",
     "acquire a > grant a; playing a; acquire b > revoke a, grant b; playing b; "
     "take p > revoke b; stopped a; release b; leave p"},
    {"players that played before the arbiter came: one goes on", "{}",
     "acquire a > grant a; acquire b > revoke a, grant b; playing a; playing b; "
     "leave b > play a"},
    {"one that did not ask, on a free focus, against an equal and against a higher one", "{}",
     "playing a; playing b > revoke a; take p > revoke b; acquire c > refuse c; "
     "playing c > revoke c; leave p > play c; playing c; release c > play b; "
     "release b > play a"},
    {"a phone outranks all and hands back; a lower one is refused for good", "{}",
     "acquire h > grant h; playing h; acquire a > refuse a; acquire n > revoke h, grant n; "
     "playing n; take p > revoke n; guide g > outranked; tell-play h > outranked; "
     "leave p > play n; release n > play h; release h"},
    {"who asks anew in vain and plays all the same is revoked", "{}",
     "acquire a > grant a; take p > revoke a; acquire a > refuse a; playing a > revoke a; "
     "leave p > play a"},
    {"an outsider ranks above all clients of its kind", "{}",
     "acquire x > grant x; take p > revoke x; acquire x > refuse x"},
    {"outsiders interrupt each other without a word", "{}",
     "take p; take q; acquire a > refuse a; leave q; acquire a > refuse a; leave p; "
     "acquire a > grant a"},
    {"a person's word counts as that of an equal that takes over", R"({"equal": "refused"})",
     "acquire a > grant a; playing a; acquire b > refuse b; tell-play b > revoke a, play b; "
     "playing b; tell-pause a > pause a; release b; tell-play a > play a; tell-play a > play a"},
    {"who waits is told at once, and plays in order behind the interrupted ones",
     R"({"equal": "waits", "lower": "waits"})",
     "acquire a > grant a; playing a; acquire b > refuse b; acquire c > refuse c; "
     "acquire b > refuse b; acquire h > revoke a, grant h; release h > play a; "
     "release a > play b; release b > play c; acquire b > refuse b; paused b; release c"},
    {"nobody resumes when the policy says so", R"({"resume_equal": false,
         "kinds": {"general": {"rank": 1}, "phone": {"rank": 2, "resume": false}}})",
     "acquire a > grant a; playing a; acquire b > revoke a, grant b; playing b; "
     "take p > revoke b; playing b; leave p; acquire b > grant b; playing b; "
     "acquire h > revoke b, grant h; release h > play b"},
};

} // namespace

TEST(Arbiter, Scripts) {
    for (const script& script : SCRIPTS) {
        SCOPED_TRACE(script.title);
        arbiter arbiter;
        std::string why;
        ASSERT_TRUE(policy_file_parse(script.policy, "test", &arbiter.rules, &why)) << why;
        populate(&arbiter);
        std::string seen;
        std::istringstream steps(script.steps);
        for (std::string step; std::getline(steps, step, ';');) {
            const std::string event = step.substr(0, step.find(" > "));
            const std::string told = perform(&arbiter, event);
            seen += (seen.empty() ? "" : ";") + event + (told.empty() ? "" : " > " + told);
        }
        EXPECT_EQ(seen, script.steps);
    }
}
