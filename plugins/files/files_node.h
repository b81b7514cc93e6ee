/* Nodes of a source: how an id names a file, and how one gets there without leaving the source.
 *
 * The id of a node is its path within the source: "/" for the source itself, else "/" and the names
 * on the way with a slash between them, any bytes but NUL. A name that begins with a dot is hidden
 * and no part of an id, so neither "." nor ".." is; every node has one id only. */
#ifndef LYRANE_FILES_NODE_H
#define LYRANE_FILES_NODE_H

#include <cstdint>
#include <string>

#include "files_source.h"

/* Type of a file by the ending of its name: LYR_NODE_AUDIO, LYR_NODE_VIDEO, or 0. */
int32_t files_node_media_type(const char* name) noexcept;

/* True when the text is the id of a node that could exist. Accepts null. */
bool files_node_id_valid(const char* id) noexcept;

/* Opens a node for reading (`flags` are further ones of open(2)); symbolic links are followed as
 * far as they stay within the source. A descriptor that the caller closes, or -1 with errno set:
 * ENODEV when the source has gone, even if something else stands in its place by now. Nothing of a
 * source is open but what is opened here, so a drive can be unmounted when nobody uses it.
 * [any thread] */
int files_node_open(const files_source& source, const char* id, int flags) noexcept;

/* LYR_NODE_* of what stands at the id now, 0 when there is nothing to browse or to play. */
int32_t files_node_type(const files_source& source, const char* id) noexcept;

/* Where the node is. May throw std::bad_alloc. */
std::string files_node_path(const files_source& source, const char* id);

/* The same as "file://" and the path, bytes outside of the plain ones as %XX. */
std::string files_node_uri(const files_source& source, const char* id);
std::string files_node_path_uri(const std::string& path);

#endif
