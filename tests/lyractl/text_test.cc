// What a terminal gets to see of names and tags that may be any bytes.
#include "text.h"

#include <gtest/gtest.h>

TEST(text, printable_lets_nothing_through_that_acts_on_a_terminal) {
    const std::pair<std::string, const char*> cases[] = {
        {"plain", "plain"},
        {"caf\xC3\xA9 \xE6\x97\xA5 \xF0\x9F\x8E\xB5", "caf\u00E9 \u65E5 \U0001F3B5"},
        {"a\tb\r\n", "a\\tb\\r\\n"},
        {"\x1B[2J", "\\x1b[2J"},
        {std::string("nul\0!", 5), "nul\\x00!"},
        {"\x7F", "\\x7f"},
        {"\xC2\x9B"
         "0m",
         "\\u{9b}0m"},                                /* a one-character control sequence */
        {"\u202Egpj.exe", "\\u{202e}gpj.exe"},        /* right-to-left override */
        {"\u2028", "\\u{2028}"},                      /* line separator */
        {"r\xE9mi", "r\\xe9mi"},                      /* Latin-1 */
        {"\xC0\xAF", "\\xc0\\xaf"},                   /* longer than needed */
        {"\xED\xA0\x80", "\\xed\\xa0\\x80"},          /* surrogate */
        {"\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"}, /* beyond the last character */
        {"cut \xE6\x97", "cut \\xe6\\x97"},           /* ends early */
        {"\xE6\x97x", "\\xe6\\x97x"},
    };
    for (const auto& [bytes, shown] : cases) {
        EXPECT_EQ(text_printable(bytes), shown);
    }
}

TEST(text, is_measured_in_columns) {
    EXPECT_EQ(text_width("caf\u00E9"), 4);
    EXPECT_EQ(text_width("\u65E5\u672C"), 4); /* two columns each */
    EXPECT_EQ(text_width("e\u0301"), 1);      /* a combining accent takes none */
    EXPECT_EQ(text_cut("four", 4), "four");
    EXPECT_EQ(text_cut("fours", 4), "fou\u2026");
    /* A wide character that would reach over the edge goes whole. */
    EXPECT_EQ(text_cut("\u65E5\u672C\u8A9E", 4), "\u65E5\u2026");
    for (int32_t width = 0; width < 12; width++) {
        EXPECT_LE(text_width(text_cut("a\u65E5b\u672Cc\u8A9Ed", width)), width);
    }
    EXPECT_EQ(text_pad("\u65E5", 4, false), "\u65E5  ");
    EXPECT_EQ(text_pad("7", 3, true), "  7");
    EXPECT_EQ(text_pad("long", 2, false), "long");
}

TEST(text, clock) {
    const std::pair<int64_t, const char*> cases[] = {
        {-1, "-:--"}, {999, "0:00"}, {61000, "1:01"}, {3599999, "59:59"}, {3723000, "1:02:03"}};
    for (const auto& [milliseconds, shown] : cases) {
        EXPECT_EQ(text_clock(milliseconds), shown);
    }
}

TEST(text, number_takes_a_whole_number_alone) {
    int64_t number = 0;
    EXPECT_TRUE(text_number("-12", &number));
    EXPECT_EQ(number, -12);
    for (const char* text : {"", "1 ", " 1", "1x", "0x1", "99999999999999999999"}) {
        EXPECT_FALSE(text_number(text, &number)) << text;
    }
}
