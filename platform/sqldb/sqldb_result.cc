#include "sqldb_result.h"

void sqldb_result_add_row(sqldb_result* result, sqlite3_stmt* statement) {
    for (int column = 0; column < result->columns; ++column) {
        sqldb_cell_record& cell = result->cells.emplace_back();
        switch (sqlite3_column_type(statement, column)) {
        case SQLITE_INTEGER:
            cell.kind = sqldb_cell_kind::integer;
            cell.integer = sqlite3_column_int64(statement, column);
            break;
        case SQLITE_FLOAT:
            cell.kind = sqldb_cell_kind::real;
            cell.real = sqlite3_column_double(statement, column);
            break;
        case SQLITE_TEXT: {
            const void* text = sqlite3_column_text(statement, column);
            const int length = sqlite3_column_bytes(statement, column);
            cell.kind = sqldb_cell_kind::text;
            cell.text = result->texts.size();
            if (text != nullptr) {
                result->texts.append(static_cast<const char*>(text), static_cast<size_t>(length));
            }
            result->texts.push_back('\0');
            break;
        }
        default: /* no value, or a blob, which nobody here has a use for */
            break;
        }
    }
    ++result->rows;
}

static const sqldb_cell_record* find_cell(const sqldb_result* result, int64_t row, int32_t column) {
    if (result == nullptr || row < 0 || row >= result->rows || column < 0 ||
        column >= result->columns) {
        return nullptr;
    }
    return &result->cells[static_cast<size_t>(row) * static_cast<size_t>(result->columns) +
                          static_cast<size_t>(column)];
}

extern "C" {

void sqldb_freeresult(sqldb_result* result) noexcept {
    delete result;
}

int64_t sqldb_rows(const sqldb_result* result) noexcept {
    return result == nullptr ? 0 : result->rows;
}

int32_t sqldb_columns(const sqldb_result* result) noexcept {
    return result == nullptr ? 0 : result->columns;
}

const char* sqldb_cell(const sqldb_result* result, int64_t row, int32_t column) noexcept {
    const sqldb_cell_record* cell = find_cell(result, row, column);
    return cell == nullptr || cell->kind != sqldb_cell_kind::text
               ? nullptr
               : result->texts.data() + cell->text;
}

int64_t sqldb_cell_integer(const sqldb_result* result, int64_t row, int32_t column,
                           int64_t otherwise) noexcept {
    const sqldb_cell_record* cell = find_cell(result, row, column);
    return cell == nullptr || cell->kind != sqldb_cell_kind::integer ? otherwise : cell->integer;
}

double sqldb_cell_real(const sqldb_result* result, int64_t row, int32_t column,
                       double otherwise) noexcept {
    const sqldb_cell_record* cell = find_cell(result, row, column);
    if (cell != nullptr && cell->kind == sqldb_cell_kind::integer) {
        return static_cast<double>(cell->integer);
    }
    return cell == nullptr || cell->kind != sqldb_cell_kind::real ? otherwise : cell->real;
}
}
