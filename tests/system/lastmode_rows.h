/* A look into the database of a daemon that has ended. */
#ifndef TEST_LASTMODE_ROWS_H
#define TEST_LASTMODE_ROWS_H

#include <string>
#include <vector>

#include "daemon.h"

/* The rows of a query, the cells of each joined by bars, a missing one empty. */
std::vector<std::string> lastmode_rows(const test_daemon& daemon, const std::string& query);

#endif
