/* The report, for people and for programs. */
#ifndef PLUGINCHECK_SHOW_H
#define PLUGINCHECK_SHOW_H

#include <string>
#include <vector>

#include "runner.h"

/* The lines of some checks. */
void show_checks(const std::vector<check_result>& checks);
/* The last line. */
void show_summary(const std::vector<check_result>& checks);
/* Everything as one JSON document. */
void show_json(const std::string& library, const std::vector<check_result>& checks);
/* Every check with its rule. */
void show_rules();

int32_t show_failed(const std::vector<check_result>& checks);

#endif
