#include "lastmode_rows.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

std::vector<std::string> lastmode_rows(const test_daemon& daemon, const std::string& query) {
    std::vector<std::string> lines;
    sqlite3* database = nullptr;
    const std::string file = daemon.root + "/state/db/lyrane.db";
    EXPECT_EQ(sqlite3_open_v2(file.c_str(), &database, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(database, query.c_str(), -1, &statement, nullptr), SQLITE_OK)
        << sqlite3_errmsg(database);
    while (sqlite3_step(statement) == SQLITE_ROW) {
        std::string& line = lines.emplace_back();
        for (int i = 0; i < sqlite3_column_count(statement); ++i) {
            const void* cell = sqlite3_column_blob(statement, i);
            const auto size = static_cast<size_t>(sqlite3_column_bytes(statement, i));
            line += (i == 0 ? "" : "|") +
                    (cell == nullptr ? "" : std::string(static_cast<const char*>(cell), size));
        }
    }
    sqlite3_finalize(statement);
    sqlite3_close(database);
    return lines;
}
