/* Statements, their results, and the transaction that gathers them. */
#include <atomic>
#include <cmath>
#include <thread>

#include "sqldb_root.h"

namespace {

struct sqldb_statement_test : sqldb_test {
    sqldb_connection* music = nullptr;
    void SetUp() override {
        sqldb_test::SetUp();
        start();
        configure_valid("music", config_text("music"));
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
    /* Executes a statement: 0, or errno; and tells its rows. */
    template <typename... values>
    int execute(const char* format, values... given) {
        return sqldb_statement(music, format, given...) == 0 ? 0 : errno;
    }
    template <typename... values>
    result_owner select(const char* format, values... given) {
        EXPECT_EQ(execute(format, given...), 0) << format;
        return result_owner(sqldb_getresult(music));
    }
    int add(const std::string& name) { return add_song(music, name) == 0 ? 0 : errno; }
};

} // namespace

TEST_F(sqldb_statement_test, stores_numbers_bit_for_bit) {
    static const struct {
        unsigned long long integer;
        double real;
    } cases[] = {
        {0, 0.0},
        {9223372036854775807ULL, -1.0},
        {9223372036854775808ULL, 0.1},
        {18446744073709551615ULL, 5e-324},
        {1, 1e300},
        {2, 123456789.123456789},
    };
    for (const auto& [integer, real] : cases) {
        EXPECT_EQ(execute("INSERT INTO songs(number, rate) VALUES(%llu, %f)", integer, real), 0);
        const result_owner result =
            select("SELECT number, rate, number=%llu AND 0-number=0-%llu, rate=%f, typeof(%f), %d "
                   "FROM songs ORDER BY id DESC LIMIT 1",
                   integer, integer, real, real, -2147483647 - 1);
        EXPECT_EQ(sqldb_cell_integer(result.get(), 0, 0, -7), static_cast<int64_t>(integer));
        EXPECT_EQ(sqldb_cell_real(result.get(), 0, 1, -7), real);
        EXPECT_EQ(sqldb_cell_integer(result.get(), 0, 2, -7), 1) << integer;
        EXPECT_EQ(sqldb_cell_integer(result.get(), 0, 3, -7), 1) << real;
        EXPECT_STREQ(sqldb_cell(result.get(), 0, 4), "real");
        EXPECT_EQ(sqldb_cell_integer(result.get(), 0, 5, -7), -2147483648LL);
    }
}

TEST_F(sqldb_statement_test, stores_any_text) {
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte) {
        bytes.push_back(static_cast<char>(byte));
    }
    for (const std::string& text :
         {std::string(), bytes, std::string("it's; DROP TABLE songs; -- 100% %q %n\n"),
          std::string(1 << 20, '\'')}) {
        EXPECT_EQ(add(text), 0);
        const result_owner result = select("SELECT name FROM songs WHERE name='%q'", text.c_str());
        ASSERT_EQ(sqldb_rows(result.get()), 1);
        EXPECT_EQ(sqldb_cell(result.get(), 0, 0), text);
    }
    const char* const none = nullptr;
    EXPECT_EQ(execute("DELETE FROM songs"), 0);
    EXPECT_EQ(execute("INSERT INTO songs(name) VALUES('%q' || 'null')", none), 0);
    EXPECT_EQ(songs(music), "null");
}

TEST_F(sqldb_statement_test, refuses_what_is_no_statement) {
    ASSERT_EQ(add("kept"), 0);
    static const struct {
        const char* format;
        int error;
    } cases[] = {
        {" -- nothing", EINVAL},
        {"SELECT '%s'", EINVAL},
        {"SELECT %lu", EINVAL},
        {"SELECT 1 %", EINVAL},
        {"SELECT * FROM nowhere", EINVAL},
        {"DELETE FROM songs; DELETE FROM songs", EINVAL},
        {"COMMIT", EACCES},
        {"SAVEPOINT mine", EACCES},
        {"ATTACH '/tmp/other.db' AS other", EACCES},
        {"INSERT INTO songs(name) VALUES('new'), ('kept')", EEXIST},
        {"INSERT INTO songs(id) VALUES('no number')", EINVAL},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(execute(item.format), item.error) << item.format;
        EXPECT_EQ(sqldb_getresult(music), nullptr);
        EXPECT_EQ(errno, ENODATA);
    }
    for (const double number : {std::nan(""), -HUGE_VAL}) {
        EXPECT_EQ(execute("INSERT INTO songs(rate) VALUES(%f)", number), EINVAL);
        EXPECT_EQ(execute("SELECT %f", number), EINVAL);
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
            EXPECT_EQ(execute(item.format, "it's", 7, 1.5), 0) << item.format;
            const result_owner row =
                select("SELECT name||'|'||ifnull(number,'')||'|'||rate FROM songs");
            EXPECT_STREQ(sqldb_cell(row.get(), 0, 0), item.found);
            EXPECT_EQ(execute("DELETE FROM songs"), 0);
        }
    }
    /* A failure of one use is none of the next. */
    const char* const format = "INSERT INTO songs(name, rate) VALUES('%q', %f)";
    EXPECT_EQ(execute(format, "a", 1.0), 0);
    EXPECT_EQ(execute(format, "a", 1.0), EEXIST);
    EXPECT_EQ(execute(format, "b", std::nan("")), EINVAL);
    EXPECT_EQ(execute(format, "c", 1.0), 0);
    EXPECT_EQ(sqldb_backup(music, SQLDB_SCOPE_ALL), 0);
    EXPECT_EQ(execute(format, "d", 1.0), 0);
    EXPECT_EQ(songs(music), "a c d");
}

TEST_F(sqldb_statement_test, reads_cells_by_their_kind) {
    const result_owner result = select("SELECT 4294967299, 1.5, '7', NULL, x'41' UNION ALL "
                                       "SELECT -1, 2, 'a', 'b', 'c'");
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
    EXPECT_EQ(add("a"), 0);
    EXPECT_EQ(songs(music), "a");
    EXPECT_EQ(songs_of("music"), ""); /* nobody else sees it yet */
    EXPECT_EQ(sqldb_rollback(music), 0);
    EXPECT_EQ(songs(music), "");
    EXPECT_EQ(add("b"), 0);
    EXPECT_EQ(sqldb_backup(music, SQLDB_SCOPE_ALL), 0);
    EXPECT_EQ(songs_of("music"), "b");
    EXPECT_EQ(add("c"), 0);
    EXPECT_EQ(songs_of("music"), "b");
    EXPECT_EQ(reconnect(), 0);
    EXPECT_EQ(songs(music), "b c");
    EXPECT_EQ(sqldb_backup(music, 1), -1);
    EXPECT_EQ(errno, EINVAL);
}

/* What follows a lost transaction must not be committed without what went before. */
TEST_F(sqldb_statement_test, commits_nothing_after_a_loss) {
    const char* const lose = "INSERT OR ROLLBACK INTO songs(name) VALUES('old')";
    EXPECT_EQ(add("old"), 0);
    EXPECT_EQ(reconnect(), 0);
    for (const bool is_backup : {false, true}) {
        EXPECT_EQ(execute("DELETE FROM songs"), 0);
        EXPECT_EQ(add("old"), 0);
        EXPECT_EQ(add("new"), 0);
        EXPECT_EQ(execute(lose), EEXIST);
        EXPECT_EQ(add("later"), EEXIST);
        EXPECT_EQ(add("later"), EEXIST);
        if (is_backup) {
            EXPECT_EQ(sqldb_backup(music, SQLDB_SCOPE_ALL), -1);
        }
        EXPECT_EQ(reconnect(), -1);
        EXPECT_EQ(songs(music), "old");
    }
    EXPECT_EQ(execute(lose), EEXIST);
    EXPECT_EQ(sqldb_rollback(music), 0);
    EXPECT_EQ(add("later"), 0);
    EXPECT_EQ(reconnect(), 0);
    EXPECT_EQ(songs(music), "old later");
}

/* Nobody is kept waiting for another's transaction beyond what was asked for. */
TEST_F(sqldb_statement_test, gives_up_waiting_when_it_is_told_to) {
    ASSERT_EQ(add("first"), 0); /* and holds the lock */
    std::atomic<bool> give_up = false;
    sqldb_connection* other = connect("music");
    ASSERT_NE(other, nullptr);
    sqldb_set_patience(other, 0, nullptr);
    EXPECT_EQ(add_song(other, "second"), -1);
    EXPECT_EQ(errno, EBUSY);
    sqldb_set_patience(other, INT32_MAX, &give_up);
    std::thread waiting([other] {
        EXPECT_EQ(add_song(other, "second"), -1);
        EXPECT_EQ(errno, EBUSY);
    });
    give_up = true;
    waiting.join();
    EXPECT_EQ(sqldb_disconnect(other), 0);
}
