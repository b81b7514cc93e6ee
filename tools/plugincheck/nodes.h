/* Copies of media nodes, to be kept and compared. */
#ifndef PLUGINCHECK_NODES_H
#define PLUGINCHECK_NODES_H

#include <cstdint>
#include <optional>
#include <string>

#include <lyrane/records.h>

struct node_copy {
    std::optional<std::string> id;
    std::optional<std::string> name;
    std::optional<std::string> url;
    std::optional<std::string> ms_uid;
    int32_t type = 0;
    int32_t count = 0;
    int32_t ms_id = 0;
    int32_t ms_type = 0;
};

node_copy node_copy_of(const medianode& node);

/* A record with malloc()ed texts that the caller frees. */
medianode node_record(const node_copy& copy);

/* The id, fit for a message. */
std::string node_shown(const std::string& id);

#endif
