/* What several commands print. */
#ifndef LYRACTL_OUTPUT_H
#define LYRACTL_OUTPUT_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

/* Writes text to the standard output, at once. False when it cannot be written. */
bool output_text(const std::string& text);

/* One JSON document in one line; bytes that are no UTF-8 become U+FFFD, and what acts on a terminal
 * is written as \uNNNN. */
bool output_json(const nlohmann::ordered_json& document);

/* Names and values below each other; entries without a value are left out. */
bool output_list(const std::vector<std::pair<std::string, std::string>>& entries);

/* Words for the numbers of the records. */
std::string output_tracks(int32_t count); /* "1 track", "2 tracks" */
std::string output_status(int32_t status);
std::string output_shuffle(int32_t mode);
std::string output_repeat(int32_t mode);
/* Their numbers; -1 for any other word. */
int32_t output_shuffle_mode(const std::string& text);
int32_t output_repeat_mode(const std::string& text);
std::string output_node_type(int32_t type);
std::vector<std::string> output_source_types(int32_t types);

#endif
