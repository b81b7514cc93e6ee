#include "table.h"

#include <gtest/gtest.h>

TEST(table, columns_stay_in_line_whatever_the_names_are) {
    table shown;
    shown.columns = {{"ID", true}, {"NAME"}, {"TYPE"}};
    shown.rows = {
        {"0", "\u65E5\u672C", "HDD"}, {"12", "e\u0301", "USB"}, {"3", "two\nlines", ""}, {"4"}};
    EXPECT_EQ(table_text(shown), "ID  NAME        TYPE\n"
                                 " 0  \u65E5\u672C        HDD\n"
                                 "12  e\u0301           USB\n"
                                 " 3  two\\nlines\n"
                                 " 4\n");
}
