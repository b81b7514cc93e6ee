/* Texts from outside, cut to what is allowed. */
#ifndef LYRANE_FILES_TAGS_TEXT_H
#define LYRANE_FILES_TAGS_TEXT_H

#include <cstddef>
#include <string>

/* A UTF-8 text up to its first NUL, cut between two characters where it is longer than `most`
 * bytes. May throw std::bad_alloc. */
std::string files_tags_cut(const std::string& text, size_t most);

/* A malloc()ed copy of the same; null when nothing is left. May throw std::bad_alloc. */
char* files_tags_text(const std::string& text, size_t most);

#endif
