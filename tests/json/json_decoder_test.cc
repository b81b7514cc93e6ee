/* The cursor decoder: order, duplicates, types, places of errors, hostile texts. */
#include <veloran/json.h>

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

namespace {
struct json_decoder : ::testing::Test {
    pps_decoder decoder{};
    void SetUp() override { ASSERT_EQ(pps_decoder_initialize(&decoder), PPS_JSON_OK); }
    void TearDown() override { pps_decoder_cleanup(&decoder); }
    int32_t parse(const std::string& text) {
        return pps_decoder_parse_json_str(&decoder, text.c_str());
    }
    int32_t push(const char* name = nullptr) { return pps_decoder_push(&decoder, name); }
    /* The names in the present container, each with a space behind it. */
    std::string names() {
        std::string text;
        for (int32_t i = 0; i < pps_decoder_length(&decoder); ++i) {
            EXPECT_EQ(pps_decoder_goto_index(&decoder, i), PPS_JSON_OK);
            const char* name = pps_decoder_name(&decoder);
            text += std::string(name == nullptr ? "(null)" : name) + " ";
        }
        return text;
    }
    std::string string_of(const char* name) const {
        const char* value = "(none)";
        pps_decoder_get_string(&decoder, name, &value);
        return value;
    }
};
} // namespace

TEST_F(json_decoder, walks_members_in_the_order_of_the_text) {
    ASSERT_EQ(parse("\xef\xbb\xbf{\"plugins\": {\"z.so\": {\"k\": \"v\", \"b\": \"w\"},"
                    " \"a.so\": {}}, \"list\": [\"x\", 2, []]}"),
              PPS_JSON_OK);
    EXPECT_EQ(pps_decoder_length(&decoder), 0);
    EXPECT_EQ(pps_decoder_pop(&decoder), PPS_JSON_BAD_CALL);
    ASSERT_EQ(push(), PPS_JSON_OK);
    ASSERT_EQ(push("plugins"), PPS_JSON_OK);
    EXPECT_EQ(names(), "z.so a.so ");
    ASSERT_EQ(pps_decoder_goto_index(&decoder, 0), PPS_JSON_OK);
    EXPECT_EQ(pps_decoder_goto_index(&decoder, 2), PPS_JSON_NOT_FOUND);
    EXPECT_EQ(pps_decoder_goto_index(&decoder, -1), PPS_JSON_NOT_FOUND);
    ASSERT_EQ(push(), PPS_JSON_OK);
    EXPECT_EQ(names(), "k b ");
    EXPECT_EQ(string_of(nullptr), "w");
    /* A failed push moves nothing. */
    EXPECT_EQ(push("k"), PPS_JSON_BAD_TYPE);
    EXPECT_EQ(push("missing"), PPS_JSON_NOT_FOUND);
    EXPECT_EQ(string_of("k"), "v");
    ASSERT_EQ(pps_decoder_pop(&decoder), PPS_JSON_OK);
    EXPECT_STREQ(pps_decoder_name(&decoder), "z.so"); /* where it entered */
    ASSERT_EQ(pps_decoder_pop(&decoder), PPS_JSON_OK);
    ASSERT_EQ(push("list"), PPS_JSON_OK);
    EXPECT_EQ(pps_decoder_name(&decoder), nullptr);
    EXPECT_EQ(string_of(nullptr), "x");
    EXPECT_EQ(string_of("x"), "(none)");
    EXPECT_EQ(pps_decoder_goto_index(&decoder, 2), PPS_JSON_OK);
    EXPECT_EQ(push(), PPS_JSON_OK);
    EXPECT_EQ(pps_decoder_type(&decoder, nullptr), PPS_JSON_NONE);
    ASSERT_EQ(parse("\"scalar\""), PPS_JSON_OK);
    EXPECT_EQ(push(), PPS_JSON_BAD_TYPE);
    EXPECT_EQ(string_of(nullptr), "scalar");
}

TEST_F(json_decoder, the_last_of_equal_members_wins_and_is_named) {
    ASSERT_EQ(parse("{\"player\":{\"a\":\"1\",\"b\":\"2\",\"a\":{\"x\":1},\"a\":\"3\"},"
                    "\"q\":1,\"player\":{\"a\":\"4\"}}"),
              PPS_JSON_OK);
    EXPECT_STREQ(pps_decoder_duplicate(&decoder, 0), "player.a");
    EXPECT_STREQ(pps_decoder_duplicate(&decoder, 1), "player.a");
    EXPECT_STREQ(pps_decoder_duplicate(&decoder, 2), "player");
    EXPECT_EQ(pps_decoder_duplicate(&decoder, 3), nullptr);
    ASSERT_EQ(push(), PPS_JSON_OK);
    EXPECT_EQ(names(), "player q ");
    ASSERT_EQ(push("player"), PPS_JSON_OK);
    EXPECT_EQ(names(), "a ");
    EXPECT_EQ(string_of("a"), "4");
}

TEST_F(json_decoder, reads_each_type_and_no_other) {
    ASSERT_EQ(parse("{\"i\":-7,\"w\":4294967296,\"u\":18446744073709551615,\"d\":1.5,"
                    "\"t\":true,\"n\":null,\"s\":\"7\",\"z\":\"a\\u0000b\",\"a\\u0000b\":1}"),
              PPS_JSON_OK);
    ASSERT_EQ(push(), PPS_JSON_OK);
    static const struct {
        const char* name;
        const char* kinds; /* that it can be read as */
        int32_t type;
    } cases[] = {
        {"i", "int int64 double ", PPS_JSON_INTEGER},
        {"w", "int64 uint64 double ", PPS_JSON_INTEGER},
        {"u", "uint64 double ", PPS_JSON_INTEGER},
        {"d", "double ", PPS_JSON_DOUBLE},
        {"t", "bool ", PPS_JSON_BOOLEAN},
        {"n", "", PPS_JSON_NULL},
        {"s", "string ", PPS_JSON_STRING},
        {"z", "", PPS_JSON_NULL},
    };
    for (const auto& item : cases) {
        int32_t narrow = 0;
        int64_t wide = 0;
        uint64_t natural = 0;
        double real = 0;
        bool flag = false;
        const char* text = nullptr;
        std::string kinds;
        const auto note = [&](int32_t result, const char* kind) {
            EXPECT_TRUE(result == PPS_JSON_OK || result == PPS_JSON_BAD_TYPE) << result;
            kinds += result == PPS_JSON_OK ? kind : "";
        };
        note(pps_decoder_get_int(&decoder, item.name, &narrow), "int ");
        note(pps_decoder_get_int64(&decoder, item.name, &wide), "int64 ");
        note(pps_decoder_get_uint64(&decoder, item.name, &natural), "uint64 ");
        note(pps_decoder_get_double(&decoder, item.name, &real), "double ");
        note(pps_decoder_get_bool(&decoder, item.name, &flag), "bool ");
        note(pps_decoder_get_string(&decoder, item.name, &text), "string ");
        EXPECT_EQ(kinds, item.kinds) << item.name;
        EXPECT_EQ(pps_decoder_type(&decoder, item.name), item.type) << item.name;
    }
    uint64_t natural = 0;
    pps_decoder_get_uint64(&decoder, "u", &natural);
    EXPECT_EQ(natural, UINT64_MAX);
    EXPECT_EQ(names(), "i w u d t n s z (null) "); /* the last one is no C string */
    EXPECT_EQ(pps_decoder_get_int64(&decoder, "a", nullptr), PPS_JSON_NOT_FOUND);
}

TEST_F(json_decoder, tells_where_a_text_breaks) {
    const auto nested = [](int32_t depth) {
        return std::string(static_cast<size_t>(depth), '[') +
               std::string(static_cast<size_t>(depth), ']');
    };
    const struct {
        std::string text;
        int32_t line, column;
        int32_t result = PPS_JSON_SYNTAX;
    } cases[] = {
        {"", 1, 1},
        {"{\"a\": 1,}", 1, 9},
        {"{\n  \"a\": \"b\"\n  \"c\": 1\n}", 3, 5},
        {"{\"a\":\n\"latin \xf6\"}", 2, 8},
        {"{\"a\": 1e999}", 1, 11},
        {"{} {}", 1, 4},
        {"[1, 2", 1, 6},
        {std::string(2 << 20, '['), 1, PPS_JSON_DEPTH_MAX + 1, PPS_JSON_DEPTH},
        /* Brackets in strings and containers that have ended do not count for the place. */
        {"[{},\"[\\\"[\",\n " + nested(PPS_JSON_DEPTH_MAX), 2, 1 + PPS_JSON_DEPTH_MAX,
         PPS_JSON_DEPTH},
    };
    int32_t line = 0;
    for (const auto& item : cases) {
        SCOPED_TRACE(item.text.substr(0, 30));
        int32_t column = 0;
        const char* reason = "";
        EXPECT_EQ(parse(item.text), item.result);
        pps_decoder_error(&decoder, &line, &column, &reason);
        EXPECT_EQ(line, item.line) << reason;
        EXPECT_EQ(column, item.column) << reason;
        EXPECT_STRNE(reason, "");
        EXPECT_EQ(push(), PPS_JSON_NOT_FOUND);
    }
    ASSERT_EQ(parse(nested(PPS_JSON_DEPTH_MAX)), PPS_JSON_OK);
    pps_decoder_error(&decoder, &line, nullptr, nullptr);
    EXPECT_EQ(line, 0);
    int32_t depth = 0;
    while (push() == PPS_JSON_OK) {
        ++depth;
    }
    EXPECT_EQ(depth, PPS_JSON_DEPTH_MAX);
}

/* A hundred thousand members, each twice: the time must not grow with the square. */
TEST_F(json_decoder, takes_many_members) {
    std::string text = "{";
    for (int32_t i = 0; i < 200000; ++i) {
        text += "\"m" + std::to_string(i % 100000) + "\":" + std::to_string(i) + ",";
    }
    text.back() = '}';
    ASSERT_EQ(parse(text), PPS_JSON_OK);
    ASSERT_EQ(push(), PPS_JSON_OK);
    EXPECT_EQ(pps_decoder_length(&decoder), 100000);
    int32_t value = 0;
    ASSERT_EQ(pps_decoder_goto_index(&decoder, 1), PPS_JSON_OK);
    EXPECT_EQ(pps_decoder_get_int(&decoder, nullptr, &value), PPS_JSON_OK);
    EXPECT_EQ(value, 100001);
}
