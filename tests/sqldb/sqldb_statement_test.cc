/* Statements, their results, and the transaction that gathers them. */
#include <cmath>

#include "sqldb_root.h"

namespace {

struct sqldb_statement_test : sqldb_test {
    sqldb_connection* music = nullptr;
    void SetUp() override {
        sqldb_test::SetUp();
        start();
        configure("music", config_text("music"));
        ASSERT_TRUE(await_status("music", "Status::Valid"));
        music = connect("music");
        ASSERT_NE(music, nullptr) << strerror(errno);
    }
    void TearDown() override {
        sqldb_disconnect(music);
        sqldb_test::TearDown();
    }
    /* Closes with what that says, and opens again. */
    int32_t reconnect() {
        const int32_t result = sqldb_disconnect(music);
        music = connect("music");
        return result;
    }
    /* "type value" of the one cell that a statement without arguments finds. */
    std::string found(const char* statement) {
        const std::string typed = "SELECT typeof(v)||' '||v FROM (" + std::string(statement) + ")";
        if (sqldb_statement(music, typed.c_str()) != 0) {
            return "(error " + std::to_string(errno) + ")";
        }
        const result_owner result(sqldb_getresult(music));
        const char* text = sqldb_cell(result.get(), 0, 0);
        return text == nullptr ? "(none)" : text;
    }
};

} // namespace

TEST_F(sqldb_statement_test, stores_numbers_bit_for_bit) {
    static const struct {
        unsigned long long given;
        const char* found;
    } integers[] = {
        {0, "integer 0"},
        {9223372036854775807ULL, "integer 9223372036854775807"},
        {9223372036854775808ULL, "integer -9223372036854775808"},
        {18446744073709551615ULL, "integer -1"},
    };
    for (const auto& item : integers) {
        ASSERT_EQ(sqldb_statement(music, "INSERT INTO songs(number) VALUES(%llu)", item.given), 0);
        EXPECT_EQ(found("SELECT number AS v FROM songs ORDER BY id DESC LIMIT 1"), item.found);
        ASSERT_EQ(sqldb_statement(music,
                                  "SELECT 0-%llu=0-number, number-%d=number FROM songs "
                                  "WHERE number=%llu;",
                                  item.given, 0, item.given),
                  0);
        const result_owner result(sqldb_getresult(music));
        EXPECT_EQ(sqldb_cell_integer(result.get(), 0, 0, -7), 1);
    }
    for (const double given : {0.0, -1.0, 0.1, 1e300, 5e-324, 123456789.123456789}) {
        ASSERT_EQ(sqldb_statement(music, "INSERT INTO songs(rate, number) VALUES(%f, %d)", given,
                                  -2147483647 - 1),
                  0);
        ASSERT_EQ(sqldb_statement(music,
                                  "SELECT rate, number, typeof(%f) FROM songs "
                                  "ORDER BY id DESC LIMIT 1",
                                  given),
                  0);
        const result_owner result(sqldb_getresult(music));
        EXPECT_EQ(sqldb_cell_real(result.get(), 0, 0, -7), given);
        EXPECT_EQ(sqldb_cell_integer(result.get(), 0, 1, 0), -2147483648LL);
        EXPECT_STREQ(sqldb_cell(result.get(), 0, 2), "real");
    }
}

TEST_F(sqldb_statement_test, stores_any_text) {
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte) {
        bytes.push_back(static_cast<char>(byte));
    }
    const std::string texts[] = {
        "",
        "'",
        "''",
        "it's; DROP TABLE songs; --\n",
        "100% %q %n",
        bytes,
        std::string(1 << 20, '\''),
    };
    for (const std::string& text : texts) {
        ASSERT_EQ(add_song(music, text), 0) << strerror(errno);
        ASSERT_EQ(sqldb_statement(music, "SELECT name FROM songs WHERE name='%q'", text.c_str()),
                  0);
        const result_owner result(sqldb_getresult(music));
        ASSERT_EQ(sqldb_rows(result.get()), 1);
        EXPECT_EQ(sqldb_cell(result.get(), 0, 0), text);
    }
    ASSERT_EQ(sqldb_statement(music, "INSERT INTO songs(name, number) VALUES('%q' || 'null', 1)",
                              static_cast<const char*>(nullptr)),
              0);
    EXPECT_EQ(found("SELECT name AS v FROM songs WHERE number=1"), "text null");
}

TEST_F(sqldb_statement_test, refuses_what_is_no_statement) {
    ASSERT_EQ(add_song(music, "kept"), 0);
    static const struct {
        const char* format;
        int error;
    } cases[] = {
        {"", EINVAL},
        {" -- nothing", EINVAL},
        {"SELECT '%s'", EINVAL},
        {"SELECT %lu", EINVAL},
        {"SELECT 1 %", EINVAL},
        {"SELECT * FROM nowhere", EINVAL},
        {"DELETE FROM songs; DELETE FROM songs", EINVAL},
        {"COMMIT", EACCES},
        {"BEGIN", EACCES},
        {"SAVEPOINT mine", EACCES},
        {"ATTACH '/tmp/other.db' AS other", EACCES},
        {"INSERT INTO songs(name) VALUES('new'), ('kept')", EEXIST},
        {"INSERT INTO songs(id) VALUES('no number')", EINVAL},
    };
    for (const auto& item : cases) {
        errno = 0;
        EXPECT_EQ(sqldb_statement(music, item.format), -1) << item.format;
        EXPECT_EQ(errno, item.error) << item.format;
        EXPECT_EQ(sqldb_getresult(music), nullptr);
        EXPECT_EQ(errno, ENODATA);
    }
    for (const double number : {std::nan(""), HUGE_VAL, -HUGE_VAL}) {
        errno = 0;
        EXPECT_EQ(sqldb_statement(music, "INSERT INTO songs(rate) VALUES(%f)", number), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(songs(music), "kept");
    EXPECT_EQ(reconnect(), 0);
    EXPECT_EQ(songs(music), "kept");
}

/* Formats that are compiled, and formats that only look like one of them. */
TEST_F(sqldb_statement_test, takes_values_where_they_stand) {
    static const struct {
        const char* format;
        const char* found; /* name, number and rate of the row */
    } cases[] = {
        {"INSERT INTO songs(name, number, rate) VALUES('%q',%d,%f);", "it's|7|1.5"},
        {"INSERT INTO songs(name, number, rate) VALUES( '%q', %d , %f )", "it's|7|1.5"},
        {"INSERT INTO songs(name, number, rate) VALUES('x%q', 1%d, -%f)", "xit's|17|-1.5"},
        {"INSERT INTO songs(name, number, rate) VALUES('%q'||' %d', NULL, %f)", "it's 7||1.5"},
        {"INSERT INTO songs(name, number, rate) SELECT '%q', %d, %f", "it's|7|1.5"},
        {"INSERT INTO songs(name, number, rate) VALUES('%q' /* , %d */, 0, %f)", "it's|0|1.5"},
    };
    for (const auto& item : cases) {
        for (int times = 0; times < 2; ++times) {
            ASSERT_EQ(sqldb_statement(music, item.format, "it's", 7, 1.5), 0) << item.format;
            EXPECT_EQ(found("SELECT name||'|'||ifnull(number,'')||'|'||rate AS v FROM songs"),
                      std::string("text ") + item.found);
            ASSERT_EQ(sqldb_statement(music, "DELETE FROM songs"), 0);
        }
    }
    /* A failure of one use is none of the next. */
    const char* const format = "INSERT INTO songs(name, rate) VALUES('%q', %f)";
    ASSERT_EQ(sqldb_statement(music, format, "a", 1.0), 0);
    EXPECT_EQ(sqldb_statement(music, format, "a", 1.0), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(sqldb_statement(music, format, "b", std::nan("")), -1);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(sqldb_statement(music, format, "c", 1.0), 0);
    ASSERT_EQ(sqldb_backup(music, SQLDB_SCOPE_ALL), 0);
    ASSERT_EQ(sqldb_statement(music, format, "d", 1.0), 0);
    EXPECT_EQ(songs(music), "a c d");
}

TEST_F(sqldb_statement_test, reads_cells_by_their_kind) {
    ASSERT_EQ(sqldb_statement(music, "SELECT 4294967299, 1.5, '7', NULL, x'41' UNION ALL "
                                     "SELECT -1, 2, 'a', 'b', 'c'"),
              0);
    const result_owner result(sqldb_getresult(music));
    ASSERT_EQ(sqldb_rows(result.get()), 2);
    ASSERT_EQ(sqldb_columns(result.get()), 5);
    static const struct {
        int64_t row;
        int32_t column;
        int64_t integer;
        double real;
        const char* text;
    } cells[] = {
        {0, 0, 4294967299, 4294967299.0, nullptr},
        {0, 1, -9, 1.5, nullptr},
        {0, 2, -9, -9.0, "7"}, /* a text is no number, whatever it looks like */
        {0, 3, -9, -9.0, nullptr},
        {0, 4, -9, -9.0, nullptr},
        {1, 4, -9, -9.0, "c"},
        {0, 5, -9, -9.0, nullptr}, /* outside */
        {2, 0, -9, -9.0, nullptr},
        {-1, 0, -9, -9.0, nullptr},
        {0, -1, -9, -9.0, nullptr},
    };
    for (const auto& cell : cells) {
        EXPECT_EQ(sqldb_cell_integer(result.get(), cell.row, cell.column, -9), cell.integer);
        EXPECT_EQ(sqldb_cell_real(result.get(), cell.row, cell.column, -9.0), cell.real);
        EXPECT_STREQ(sqldb_cell(result.get(), cell.row, cell.column), cell.text);
    }
    EXPECT_EQ(sqldb_rows(nullptr), 0);
    EXPECT_EQ(sqldb_cell(nullptr, 0, 0), nullptr);
}

TEST_F(sqldb_statement_test, gathers_statements_into_one_transaction) {
    ASSERT_EQ(add_song(music, "a"), 0);
    EXPECT_EQ(songs(music), "a");
    EXPECT_EQ(songs_of("music"), ""); /* nobody else sees it yet */
    ASSERT_EQ(sqldb_rollback(music), 0);
    EXPECT_EQ(songs(music), "");
    ASSERT_EQ(add_song(music, "b"), 0);
    ASSERT_EQ(sqldb_backup(music, SQLDB_SCOPE_ALL), 0);
    EXPECT_EQ(songs_of("music"), "b");
    ASSERT_EQ(add_song(music, "c"), 0);
    EXPECT_EQ(songs_of("music"), "b");
    EXPECT_EQ(reconnect(), 0);
    EXPECT_EQ(songs(music), "b c");
    EXPECT_EQ(sqldb_backup(music, 1), -1);
    EXPECT_EQ(errno, EINVAL);
}

/* What follows a lost transaction must not be committed without what went before. */
TEST_F(sqldb_statement_test, commits_nothing_after_a_loss) {
    ASSERT_EQ(add_song(music, "old"), 0);
    ASSERT_EQ(reconnect(), 0);
    for (const bool is_backup : {false, true}) {
        ASSERT_EQ(sqldb_statement(music, "DELETE FROM songs"), 0);
        ASSERT_EQ(add_song(music, "new"), 0);
        ASSERT_EQ(sqldb_statement(music, "INSERT OR ROLLBACK INTO songs(name) VALUES('new')"), -1);
        for (int i = 0; i < 2; ++i) {
            errno = 0;
            EXPECT_EQ(add_song(music, "later"), -1);
            EXPECT_EQ(errno, EEXIST);
        }
        if (is_backup) {
            EXPECT_EQ(sqldb_backup(music, SQLDB_SCOPE_ALL), -1);
        }
        EXPECT_EQ(reconnect(), -1);
        EXPECT_EQ(songs(music), "old");
    }
    ASSERT_EQ(sqldb_statement(music, "INSERT OR ROLLBACK INTO songs(name) VALUES('old')"), -1);
    ASSERT_EQ(sqldb_rollback(music), 0);
    ASSERT_EQ(add_song(music, "later"), 0);
    EXPECT_EQ(reconnect(), 0);
    EXPECT_EQ(songs(music), "old later");
}
