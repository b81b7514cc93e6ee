/* The cursor decoder: order, duplicates, types, places of errors, hostile texts. */
#include <veloran/json.h>

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {
struct json_decoder : ::testing::Test {
    pps_decoder decoder{};
    void SetUp() override { ASSERT_EQ(pps_decoder_initialize(&decoder), PPS_JSON_OK); }
    void TearDown() override { pps_decoder_cleanup(&decoder); }
};
} // namespace

static std::vector<std::string> member_names(pps_decoder* decoder) {
    std::vector<std::string> names;
    for (int32_t i = 0; i < pps_decoder_length(decoder); ++i) {
        EXPECT_EQ(pps_decoder_goto_index(decoder, i), PPS_JSON_OK);
        const char* name = pps_decoder_name(decoder);
        names.emplace_back(name == nullptr ? "(null)" : name);
    }
    return names;
}

static std::string string_of(const pps_decoder* decoder, const char* name) {
    const char* value = "(none)";
    pps_decoder_get_string(decoder, name, &value);
    return value;
}

TEST_F(json_decoder, walks_members_in_the_order_of_the_text) {
    ASSERT_EQ(pps_decoder_parse_json_str(
                  &decoder, "\xef\xbb\xbf{\"plugins\": {\"z.so\": {\"k\": \"v\", \"b\": \"w\"},"
                            " \"a.so\": {}}, \"list\": [\"x\", 2, []]}"),
              PPS_JSON_OK);
    EXPECT_EQ(pps_decoder_length(&decoder), 0);
    EXPECT_EQ(pps_decoder_pop(&decoder), PPS_JSON_BAD_CALL);
    ASSERT_EQ(pps_decoder_push(&decoder, nullptr), PPS_JSON_OK);
    ASSERT_EQ(pps_decoder_push(&decoder, "plugins"), PPS_JSON_OK);
    EXPECT_EQ(member_names(&decoder), (std::vector<std::string>{"z.so", "a.so"}));
    ASSERT_EQ(pps_decoder_goto_index(&decoder, 0), PPS_JSON_OK);
    EXPECT_EQ(pps_decoder_goto_index(&decoder, 2), PPS_JSON_NOT_FOUND);
    EXPECT_EQ(pps_decoder_goto_index(&decoder, -1), PPS_JSON_NOT_FOUND);
    ASSERT_EQ(pps_decoder_push(&decoder, nullptr), PPS_JSON_OK);
    EXPECT_EQ(member_names(&decoder), (std::vector<std::string>{"k", "b"}));
    EXPECT_EQ(string_of(&decoder, nullptr), "w");
    EXPECT_EQ(string_of(&decoder, "k"), "v");
    ASSERT_EQ(pps_decoder_pop(&decoder), PPS_JSON_OK);
    EXPECT_STREQ(pps_decoder_name(&decoder), "z.so"); /* where it entered */
    ASSERT_EQ(pps_decoder_pop(&decoder), PPS_JSON_OK);
    ASSERT_EQ(pps_decoder_push(&decoder, "list"), PPS_JSON_OK);
    EXPECT_EQ(pps_decoder_name(&decoder), nullptr);
    EXPECT_EQ(string_of(&decoder, nullptr), "x");
    EXPECT_EQ(string_of(&decoder, "x"), "(none)");
    EXPECT_EQ(pps_decoder_goto_index(&decoder, 2), PPS_JSON_OK);
    EXPECT_EQ(pps_decoder_push(&decoder, nullptr), PPS_JSON_OK);
    EXPECT_EQ(pps_decoder_type(&decoder, nullptr), PPS_JSON_NONE);
}

TEST_F(json_decoder, a_failed_push_moves_nothing) {
    ASSERT_EQ(pps_decoder_parse_json_str(&decoder, "{\"s\":\"t\",\"o\":{\"in\":\"side\"}}"),
              PPS_JSON_OK);
    ASSERT_EQ(pps_decoder_push(&decoder, nullptr), PPS_JSON_OK);
    EXPECT_EQ(pps_decoder_push(&decoder, "s"), PPS_JSON_BAD_TYPE);
    EXPECT_EQ(pps_decoder_push(&decoder, "missing"), PPS_JSON_NOT_FOUND);
    EXPECT_EQ(string_of(&decoder, "s"), "t");
    EXPECT_EQ(pps_decoder_pop(&decoder), PPS_JSON_OK);
    EXPECT_EQ(pps_decoder_pop(&decoder), PPS_JSON_BAD_CALL);
    ASSERT_EQ(pps_decoder_parse_json_str(&decoder, "\"scalar\""), PPS_JSON_OK);
    EXPECT_EQ(pps_decoder_push(&decoder, nullptr), PPS_JSON_BAD_TYPE);
    EXPECT_EQ(string_of(&decoder, nullptr), "scalar");
}

TEST_F(json_decoder, the_last_of_equal_members_wins_and_is_named) {
    ASSERT_EQ(pps_decoder_parse_json_str(
                  &decoder, "{\"player\":{\"a\":\"1\",\"b\":\"2\",\"a\":{\"x\":1},\"a\":\"3\"},"
                            "\"q\":1,\"player\":{\"a\":\"4\"}}"),
              PPS_JSON_OK);
    EXPECT_STREQ(pps_decoder_duplicate(&decoder, 0), "player.a");
    EXPECT_STREQ(pps_decoder_duplicate(&decoder, 1), "player.a");
    EXPECT_STREQ(pps_decoder_duplicate(&decoder, 2), "player");
    EXPECT_EQ(pps_decoder_duplicate(&decoder, 3), nullptr);
    ASSERT_EQ(pps_decoder_push(&decoder, nullptr), PPS_JSON_OK);
    EXPECT_EQ(member_names(&decoder), (std::vector<std::string>{"player", "q"}));
    ASSERT_EQ(pps_decoder_push(&decoder, "player"), PPS_JSON_OK);
    EXPECT_EQ(member_names(&decoder), (std::vector<std::string>{"a"}));
    EXPECT_EQ(string_of(&decoder, "a"), "4");
}

TEST_F(json_decoder, reads_each_type_and_no_other) {
    ASSERT_EQ(pps_decoder_parse_json_str(
                  &decoder,
                  "{\"i\":-7,\"w\":4294967296,\"u\":18446744073709551615,\"d\":1.5,"
                  "\"t\":true,\"n\":null,\"s\":\"7\",\"z\":\"a\\u0000b\",\"a\\u0000b\":1}"),
              PPS_JSON_OK);
    ASSERT_EQ(pps_decoder_push(&decoder, nullptr), PPS_JSON_OK);
    static const struct {
        const char* name;
        int32_t type;
        bool is_int, is_int64, is_uint64, is_double, is_bool, is_string;
    } cases[] = {
        {"i", PPS_JSON_INTEGER, true, true, false, true, false, false},
        {"w", PPS_JSON_INTEGER, false, true, true, true, false, false},
        {"u", PPS_JSON_INTEGER, false, false, true, true, false, false},
        {"d", PPS_JSON_DOUBLE, false, false, false, true, false, false},
        {"t", PPS_JSON_BOOLEAN, false, false, false, false, true, false},
        {"n", PPS_JSON_NULL, false, false, false, false, false, false},
        {"s", PPS_JSON_STRING, false, false, false, false, false, true},
        {"z", PPS_JSON_NULL, false, false, false, false, false, false},
    };
    for (const auto& item : cases) {
        int32_t narrow = 0;
        int64_t wide = 0;
        uint64_t natural = 0;
        double real = 0;
        bool flag = false;
        const char* text = nullptr;
        const auto expected = [](bool is_it) { return is_it ? PPS_JSON_OK : PPS_JSON_BAD_TYPE; };
        EXPECT_EQ(pps_decoder_type(&decoder, item.name), item.type) << item.name;
        EXPECT_EQ(pps_decoder_get_int(&decoder, item.name, &narrow), expected(item.is_int));
        EXPECT_EQ(pps_decoder_get_int64(&decoder, item.name, &wide), expected(item.is_int64));
        EXPECT_EQ(pps_decoder_get_uint64(&decoder, item.name, &natural), expected(item.is_uint64));
        EXPECT_EQ(pps_decoder_get_double(&decoder, item.name, &real), expected(item.is_double));
        EXPECT_EQ(pps_decoder_get_bool(&decoder, item.name, &flag), expected(item.is_bool));
        EXPECT_EQ(pps_decoder_get_string(&decoder, item.name, &text), expected(item.is_string));
    }
    uint64_t natural = 0;
    pps_decoder_get_uint64(&decoder, "u", &natural);
    EXPECT_EQ(natural, UINT64_MAX);
    EXPECT_EQ(member_names(&decoder).back(), "(null)"); /* a name that is no C string */
    EXPECT_EQ(pps_decoder_get_int64(&decoder, "a", nullptr), PPS_JSON_NOT_FOUND);
}

TEST_F(json_decoder, tells_where_a_text_breaks) {
    static const struct {
        const char* text;
        int32_t line, column;
    } cases[] = {
        {"", 1, 1},
        {"{\"a\": 1,}", 1, 9},
        {"{\n  \"a\": \"b\"\n  \"c\": 1\n}", 3, 5},
        {"{\"a\":\n\"latin \xf6\"}", 2, 8},
        {"{\"a\": 1e999}", 1, 11},
        {"{} {}", 1, 4},
        {"[1, 2", 1, 6},
    };
    for (const auto& item : cases) {
        int32_t line = 0;
        int32_t column = 0;
        const char* reason = "";
        EXPECT_EQ(pps_decoder_parse_json_str(&decoder, item.text), PPS_JSON_SYNTAX) << item.text;
        pps_decoder_error(&decoder, &line, &column, &reason);
        EXPECT_EQ(line, item.line) << item.text << ": " << reason;
        EXPECT_EQ(column, item.column) << item.text << ": " << reason;
        EXPECT_STRNE(reason, "");
        EXPECT_EQ(pps_decoder_push(&decoder, nullptr), PPS_JSON_NOT_FOUND);
    }
    EXPECT_EQ(pps_decoder_parse_json_str(&decoder, "[1]"), PPS_JSON_OK);
    int32_t line = -1;
    pps_decoder_error(&decoder, &line, nullptr, nullptr);
    EXPECT_EQ(line, 0);
}

TEST_F(json_decoder, bounds_the_depth) {
    const auto nested = [](int32_t depth) {
        return std::string(static_cast<size_t>(depth), '[') +
               std::string(static_cast<size_t>(depth), ']');
    };
    EXPECT_EQ(pps_decoder_parse_json_str(&decoder, nested(PPS_JSON_DEPTH_MAX + 1).c_str()),
              PPS_JSON_DEPTH);
    EXPECT_EQ(pps_decoder_parse_json_str(&decoder, std::string(2 << 20, '[').c_str()),
              PPS_JSON_DEPTH);
    /* Brackets in strings and containers that have ended do not count for the place. */
    const std::string front = "[{},\"[\\\"[\",\n ";
    EXPECT_EQ(pps_decoder_parse_json_str(&decoder, (front + nested(PPS_JSON_DEPTH_MAX)).c_str()),
              PPS_JSON_DEPTH);
    int32_t line = 0;
    int32_t column = 0;
    pps_decoder_error(&decoder, &line, &column, nullptr);
    EXPECT_EQ(line, 2);
    EXPECT_EQ(column, 1 + PPS_JSON_DEPTH_MAX);
    ASSERT_EQ(pps_decoder_parse_json_str(&decoder, nested(PPS_JSON_DEPTH_MAX).c_str()),
              PPS_JSON_OK);
    int32_t depth = 0;
    while (pps_decoder_push(&decoder, nullptr) == PPS_JSON_OK) {
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
    ASSERT_EQ(pps_decoder_parse_json_str(&decoder, text.c_str()), PPS_JSON_OK);
    ASSERT_EQ(pps_decoder_push(&decoder, nullptr), PPS_JSON_OK);
    EXPECT_EQ(pps_decoder_length(&decoder), 100000);
    int32_t value = 0;
    ASSERT_EQ(pps_decoder_goto_index(&decoder, 1), PPS_JSON_OK);
    EXPECT_EQ(pps_decoder_get_int(&decoder, nullptr, &value), PPS_JSON_OK);
    EXPECT_EQ(value, 100001);
}
