/* Configuration files that make no sense are refused, and the reason names what is wrong. */
#include "policy_file.h"

#include <gtest/gtest.h>

TEST(PolicyFile, Refused) {
    const struct {
        const char* text;
        const char* why;
    } cases[] = {
        {"", "f: parse error"},
        {"{\"equal\": }", "f: parse error at line 1"},
        {"[]", "f: must be a JSON object"},
        {R"({"equals": "takes"})", "f: equals: there is no such key"},
        {R"({"equal": "takes", "equal": "waits"})", "f: equal: is given twice"},
        {R"({"equal": 1})", R"(f: equal: must be one of "takes", "waits", "refused")"},
        {R"({"lower": "takes"})", R"(f: lower: must be one of "waits", "refused")"},
        {R"({"resume_equal": 1})", "f: resume_equal: must be true or false"},
        {R"({"kinds": {}})", "f: kinds: must be an object"},
        {R"({"kinds": {"general": {}}})", "f: kinds.general.rank: is missing"},
        {R"({"kinds": {"general": {"rank": 1.5}}})", "f: kinds.general.rank: must be a whole"},
        {R"({"kinds": {"general": {"rank": 18446744073709551615}}})", "f: kinds.general.rank"},
        {R"({"kinds": {"general": {"rank": 1, "x": 1}}})", "f: kinds.general.x: there is no"},
        {R"({"kinds": {"": {"rank": 1}}})", "f: kinds.: a word has"},
        {R"({"kinds": {"phone": {"rank": 1}}})", "f: unknown_kind: \"general\" is none"},
        {R"({"unknown_kind": null})", "f: unknown_kind: must be a text"},
    };
    for (const auto& wrong : cases) {
        policy rules = policy_default();
        std::string why;
        EXPECT_FALSE(policy_file_parse(wrong.text, "f", &rules, &why)) << wrong.text;
        EXPECT_TRUE(why.starts_with(wrong.why)) << why;
    }
}
