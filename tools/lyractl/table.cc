#include "table.h"

#include <algorithm>

#include "text.h"

namespace {

using line = std::vector<std::string>;

std::vector<line> printable_lines(const table& table) {
    std::vector<line> lines(1);
    for (const table_column& column : table.columns) {
        lines[0].push_back(column.head);
    }
    for (const line& row : table.rows) {
        line& cells = lines.emplace_back();
        for (size_t i = 0; i < table.columns.size(); i++) {
            cells.push_back(i < row.size() ? text_printable(row[i]) : std::string());
        }
    }
    return lines;
}

} // namespace

std::string table_text(const table& table) {
    const std::vector<line> lines = printable_lines(table);
    std::vector<int32_t> widths(table.columns.size(), 0);
    for (const line& cells : lines) {
        for (size_t i = 0; i < cells.size(); i++) {
            widths[i] = std::max(widths[i], text_width(cells[i]));
        }
    }
    std::string out;
    for (const line& cells : lines) {
        std::string text;
        for (size_t i = 0; i < cells.size(); i++) {
            text += (i > 0 ? "  " : "") + text_pad(cells[i], widths[i], table.columns[i].right);
        }
        text.erase(text.find_last_not_of(' ') + 1);
        out += text + "\n";
    }
    return out;
}
