/* The checks: their names and the rules behind them, in the order of the report. A name is
 * GROUP.CHECK; a group runs in a process of its own. */
#ifndef PLUGINCHECK_FACTS_H
#define PLUGINCHECK_FACTS_H

#include <string>
#include <vector>

struct check_fact {
    const char* id;
    const char* rule; /* what a plug-in has to do, in a sentence */
};

extern const std::vector<check_fact> check_facts;

/* The part in front of the point. */
std::string check_group_of(const std::string& id);

/* The rule of a check; every id that the program uses has one. */
const char* check_rule(const std::string& id);

#endif
