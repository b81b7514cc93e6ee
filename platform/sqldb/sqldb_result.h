/* The rows of a statement as a table of cells. */
#ifndef VELORAN_SQLDB_RESULT_H
#define VELORAN_SQLDB_RESULT_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <veloran/sqldb.h>

#include "sqldb_sqlite.h"

enum class sqldb_cell_kind : uint8_t { none, integer, real, text };

struct sqldb_cell_record {
    sqldb_cell_kind kind = sqldb_cell_kind::none;
    union {
        int64_t integer = 0;
        double real;
        size_t text; /* where it begins in the texts */
    };
};

struct sqldb_result {
    int32_t columns = 0;
    int64_t rows = 0;
    std::vector<sqldb_cell_record> cells; /* row by row */
    std::string texts;                    /* all texts, each with a NUL behind it */
};

struct sqldb_free_result {
    void operator()(sqldb_result* result) const noexcept { sqldb_freeresult(result); }
};
using sqldb_result_owner = std::unique_ptr<sqldb_result, sqldb_free_result>;

/* Appends the row that a statement stands on. */
void sqldb_result_add_row(sqldb_result* result, sqlite3_stmt* statement);

#endif
