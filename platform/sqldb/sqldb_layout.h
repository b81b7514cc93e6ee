/* The tables that a schema makes, to be compared with those of a database. */
#ifndef VELORAN_SQLDB_LAYOUT_H
#define VELORAN_SQLDB_LAYOUT_H

#include <cstdint>
#include <map>
#include <string>

#include "sqldb_sqlite.h"

/* Table name to its columns in order. */
using sqldb_layout = std::map<std::string, std::string>;

/* The tables of an open database. 0, or -1 with errno set. */
int32_t sqldb_layout_of(sqlite3* database, sqldb_layout* layout);

/* The tables that the text of a schema makes. -1 with errno and *reason set when it is no SQL. */
int32_t sqldb_layout_of_schema(const std::string& schema, sqldb_layout* layout,
                               std::string* reason);

/* The name of the first table of `wanted` that is missing or does not begin with its columns;
 * empty: none. Further tables and columns are somebody's who knows what they are for. */
std::string sqldb_layout_missing(const sqldb_layout& wanted, const sqldb_layout& present);

#endif
