/* Metadata for people and for programs. */
#ifndef LYRACTL_METADATA_H
#define LYRACTL_METADATA_H

#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "request.h"

/* An object; texts that are not known are left out. */
nlohmann::ordered_json metadata_json(const request_metadata& known);

/* The same as names and values, those without a value empty. */
std::vector<std::pair<std::string, std::string>> metadata_list(const request_metadata& known);

#endif
