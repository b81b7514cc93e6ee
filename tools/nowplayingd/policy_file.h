/* The configuration file: a policy in JSON. Comments as in C++ are allowed. */
#ifndef NOWPLAYINGD_POLICY_FILE_H
#define NOWPLAYINGD_POLICY_FILE_H

#include <string>

#include "policy.h"

/* Reads a file; a key that it does not have keeps what policy_default says. False with *why, which
 * names the file and the key. */
bool policy_file_read(const std::string& file, policy* rules, std::string* why);

/* The same of a text; `file` is for *why. */
bool policy_file_parse(const std::string& text, const std::string& file, policy* rules,
                       std::string* why);

#endif
