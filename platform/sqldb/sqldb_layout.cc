#include "sqldb_layout.h"

#include <cerrno>

static std::string column_text(sqlite3_stmt* statement, int column) {
    const void* text = sqlite3_column_text(statement, column);
    const int length = sqlite3_column_bytes(statement, column);
    return text == nullptr
               ? std::string()
               : std::string(static_cast<const char*>(text), static_cast<size_t>(length));
}

int32_t sqldb_layout_of(sqlite3* database, sqldb_layout* layout) {
    /* sqlite_sequence is one of them: without it no key would be counted. */
    constexpr const char* QUERY = "SELECT m.name, p.name, p.pk FROM sqlite_schema m, "
                                  "pragma_table_info(m.name) p WHERE m.type='table' "
                                  "ORDER BY m.name, p.cid";
    sqlite3_stmt* prepared = nullptr;
    int code = sqlite3_prepare_v2(database, QUERY, -1, &prepared, nullptr);
    const sqldb_prepared owner(prepared);
    if (code == SQLITE_OK) {
        code = sqlite3_step(prepared);
    }
    for (; code == SQLITE_ROW; code = sqlite3_step(prepared)) {
        (*layout)[column_text(prepared, 0)] +=
            column_text(prepared, 1) + ' ' + column_text(prepared, 2) + ',';
    }
    if (code != SQLITE_DONE) {
        errno = sqldb_sqlite_errno(database, code);
        return -1;
    }
    return 0;
}

int32_t sqldb_layout_of_schema(const std::string& schema, sqldb_layout* layout,
                               std::string* reason) {
    const sqldb_handle scratch =
        sqldb_sqlite_open(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    if (scratch == nullptr || sqldb_sqlite_run_schema(scratch.get(), schema.c_str()) != 0) {
        const int32_t error = errno;
        *reason = sqlite3_errmsg(scratch.get());
        errno = error;
        return -1;
    }
    return sqldb_layout_of(scratch.get(), layout);
}

std::string sqldb_layout_missing(const sqldb_layout& wanted, const sqldb_layout& present) {
    for (const auto& [table, columns] : wanted) {
        const auto found = present.find(table);
        if (found == present.end() || !found->second.starts_with(columns)) {
            return table;
        }
    }
    return {};
}
