/* The encoder: exact texts, any bytes, calls in the wrong order. */
#include <veloran/json.h>

#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

static std::string encode_text(const char* text) {
    pps_encoder encoder;
    pps_encoder_initialize(&encoder);
    pps_encoder_start_object(&encoder, "n");
    pps_encoder_add_string(&encoder, "t", text);
    pps_encoder_end_object(&encoder);
    const char* buffer = pps_encoder_buffer(&encoder);
    const std::string result = buffer == nullptr ? "(null)" : buffer;
    EXPECT_EQ(pps_encoder_length(&encoder), result.size());
    pps_encoder_cleanup(&encoder);
    return result;
}

TEST(json_encoder, writes_members_in_order) {
    pps_encoder encoder;
    pps_encoder_initialize(&encoder);
    EXPECT_EQ(pps_encoder_start_object(&encoder, "media_source"), PPS_JSON_OK);
    EXPECT_EQ(pps_encoder_add_string(&encoder, "name", "a disc"), PPS_JSON_OK);
    EXPECT_EQ(pps_encoder_add_string(&encoder, "view_name", nullptr), PPS_JSON_OK);
    EXPECT_EQ(pps_encoder_add_int(&encoder, "id", -1), PPS_JSON_OK);
    EXPECT_EQ(pps_encoder_add_int64(&encoder, "low", std::numeric_limits<int64_t>::min()),
              PPS_JSON_OK);
    EXPECT_EQ(pps_encoder_add_uint64(&encoder, "capabilities", UINT64_MAX), PPS_JSON_OK);
    EXPECT_EQ(pps_encoder_start_object(&encoder, "in"), PPS_JSON_OK);
    EXPECT_EQ(pps_encoder_end_object(&encoder), PPS_JSON_OK);
    EXPECT_EQ(pps_encoder_add_int(&encoder, "after", 0), PPS_JSON_OK);
    EXPECT_EQ(pps_encoder_buffer(&encoder), nullptr); /* still open */
    EXPECT_EQ(pps_encoder_end_object(&encoder), PPS_JSON_OK);
    EXPECT_STREQ(pps_encoder_buffer(&encoder),
                 "media_source:json:{\"name\":\"a disc\",\"id\":-1,\"low\":-9223372036854775808,"
                 "\"capabilities\":18446744073709551615,\"in\":{},\"after\":0}");
    pps_encoder_cleanup(&encoder);
}

TEST(json_encoder, takes_any_bytes) {
    static const struct {
        const char* text;
        const char* expected;
    } cases[] = {
        {"", "n:json:{\"t\":\"\"}"},
        {"\"\\/", "n:json:{\"t\":\"\\\"\\\\/\"}"},
        {"a\nb::c\r\t\x01\x7f", "n:json:{\"t\":\"a\\nb::c\\r\\t\\u0001\x7f\"}"},
        {"Bj\xc3\xb6rk \xf0\x9f\x8e\xb5", "n:json:{\"t\":\"Bj\xc3\xb6rk \xf0\x9f\x8e\xb5\"}"},
        {"Bj\xf6rk", "n:json:{\"t\":\"Bj\xef\xbf\xbdrk\"}"},
        {"cut \xf0\x9f\x8e", "n:json:{\"t\":\"cut \xef\xbf\xbd\"}"},
        {"\xc0\xaf", "n:json:{\"t\":\"\xef\xbf\xbd\xef\xbf\xbd\"}"}, /* overlong */
        {"brace{", "n:json:{\"t\":\"brace{\"}"},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(encode_text(item.text), item.expected);
    }
    const std::string large(3 << 20, 'x');
    EXPECT_EQ(encode_text(large.c_str()), "n:json:{\"t\":\"" + large + "\"}");
}

TEST(json_encoder, refuses_wrong_calls_and_keeps_the_failure) {
    static const char* const bad_names[] = {nullptr, "", "a:b", "a\nb"};
    for (const char* name : bad_names) {
        pps_encoder encoder;
        pps_encoder_initialize(&encoder);
        EXPECT_EQ(pps_encoder_start_object(&encoder, name), PPS_JSON_BAD_CALL);
        EXPECT_EQ(pps_encoder_start_object(&encoder, "good"), PPS_JSON_BAD_CALL);
        EXPECT_EQ(pps_encoder_buffer(&encoder), nullptr);
        pps_encoder_cleanup(&encoder);
    }
    pps_encoder encoder;
    pps_encoder_initialize(&encoder);
    EXPECT_EQ(pps_encoder_add_int(&encoder, "lost", 1), PPS_JSON_BAD_CALL);
    pps_encoder_cleanup(&encoder);
    EXPECT_EQ(pps_encoder_end_object(&encoder), PPS_JSON_BAD_CALL);
    pps_encoder_cleanup(&encoder);
    pps_encoder_start_object(&encoder, "one");
    pps_encoder_end_object(&encoder);
    EXPECT_EQ(pps_encoder_start_object(&encoder, "two"), PPS_JSON_BAD_CALL);
    pps_encoder_cleanup(&encoder);
    int32_t result = PPS_JSON_OK;
    for (int32_t i = 0; i <= PPS_JSON_DEPTH_MAX; ++i) {
        EXPECT_EQ(result, PPS_JSON_OK) << i;
        result = pps_encoder_start_object(&encoder, "deep");
    }
    EXPECT_EQ(result, PPS_JSON_DEPTH);
    pps_encoder_cleanup(&encoder);
}
