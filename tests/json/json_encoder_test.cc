/* The encoder: exact texts, any bytes, calls in the wrong order. */
#include <veloran/json.h>

#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace {
struct json_encoder : ::testing::Test {
    pps_encoder encoder{};
    void SetUp() override { pps_encoder_initialize(&encoder); }
    void TearDown() override { pps_encoder_cleanup(&encoder); }
};
} // namespace

TEST_F(json_encoder, writes_members_in_order) {
    pps_encoder_start_object(&encoder, "media_source");
    pps_encoder_add_string(&encoder, "name", "a disc");
    EXPECT_EQ(pps_encoder_add_string(&encoder, "view_name", nullptr), PPS_JSON_OK);
    pps_encoder_add_int(&encoder, "id", -1);
    pps_encoder_add_int64(&encoder, "low", std::numeric_limits<int64_t>::min());
    pps_encoder_add_uint64(&encoder, "capabilities", UINT64_MAX);
    pps_encoder_start_object(&encoder, "in");
    pps_encoder_end_object(&encoder);
    pps_encoder_add_int(&encoder, "after", 0);
    EXPECT_EQ(pps_encoder_buffer(&encoder), nullptr); /* still open */
    EXPECT_EQ(pps_encoder_end_object(&encoder), PPS_JSON_OK);
    EXPECT_STREQ(pps_encoder_buffer(&encoder),
                 "media_source:json:{\"name\":\"a disc\",\"id\":-1,\"low\":-9223372036854775808,"
                 "\"capabilities\":18446744073709551615,\"in\":{},\"after\":0}");
}

TEST_F(json_encoder, takes_any_bytes) {
    const std::string large(3 << 20, 'x');
    const struct {
        const char* text;
        std::string expected;
    } cases[] = {
        {"\"\\/", "\\\"\\\\/"},
        {"a\nb::c\r\t\x01\x7f", "a\\nb::c\\r\\t\\u0001\x7f"},
        {"Bj\xc3\xb6rk \xf0\x9f\x8e\xb5", "Bj\xc3\xb6rk \xf0\x9f\x8e\xb5"},
        {"Bj\xf6rk", "Bj\xef\xbf\xbdrk"},
        {"cut \xf0\x9f\x8e", "cut \xef\xbf\xbd"},
        {"\xc0\xaf", "\xef\xbf\xbd\xef\xbf\xbd"}, /* overlong */
        {large.c_str(), large},
    };
    for (const auto& item : cases) {
        pps_encoder_start_object(&encoder, "n");
        pps_encoder_add_string(&encoder, "t", item.text);
        pps_encoder_end_object(&encoder);
        const std::string expected = "n:json:{\"t\":\"" + item.expected + "\"}";
        EXPECT_EQ(pps_encoder_length(&encoder), expected.size());
        EXPECT_STREQ(pps_encoder_buffer(&encoder), expected.c_str());
        pps_encoder_cleanup(&encoder);
    }
}

TEST_F(json_encoder, refuses_wrong_calls_and_keeps_the_failure) {
    for (const char* name : {static_cast<const char*>(nullptr), "", "a:b", "a\nb"}) {
        EXPECT_EQ(pps_encoder_start_object(&encoder, name), PPS_JSON_BAD_CALL);
        EXPECT_EQ(pps_encoder_start_object(&encoder, "good"), PPS_JSON_BAD_CALL);
        EXPECT_EQ(pps_encoder_buffer(&encoder), nullptr);
        pps_encoder_cleanup(&encoder);
    }
    EXPECT_EQ(pps_encoder_add_int(&encoder, "lost", 1), PPS_JSON_BAD_CALL);
    pps_encoder_cleanup(&encoder);
    EXPECT_EQ(pps_encoder_end_object(&encoder), PPS_JSON_BAD_CALL);
    pps_encoder_cleanup(&encoder);
    pps_encoder_start_object(&encoder, "one");
    pps_encoder_end_object(&encoder);
    EXPECT_EQ(pps_encoder_start_object(&encoder, "two"), PPS_JSON_BAD_CALL);
    pps_encoder_cleanup(&encoder);
    for (int32_t i = 0; i < PPS_JSON_DEPTH_MAX; ++i) {
        EXPECT_EQ(pps_encoder_start_object(&encoder, "deep"), PPS_JSON_OK) << i;
    }
    EXPECT_EQ(pps_encoder_start_object(&encoder, "deep"), PPS_JSON_DEPTH);
}
