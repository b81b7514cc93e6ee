/* Tables for people: columns as wide as their widest cell on a terminal. */
#ifndef LYRACTL_TABLE_H
#define LYRACTL_TABLE_H

#include <string>
#include <vector>

struct table_column {
    std::string head;
    bool right = false; /* numbers stand at the right */
};

struct table {
    std::vector<table_column> columns;
    std::vector<std::vector<std::string>> rows; /* cells as they came; escaped when printed */
};

/* The table as lines, the heads first; two blanks between columns, none at a line's end. */
std::string table_text(const table& table);

#endif
