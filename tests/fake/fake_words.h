/* The words and options of one command. */
#ifndef FAKE_WORDS_H
#define FAKE_WORDS_H

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

struct fake_option {
    std::string key;
    std::string value;
    mutable bool used = false;
};

struct fake_words {
    std::vector<std::string> plain; /* the command itself first */
    std::vector<fake_option> options;
    std::string body;
};

/* Splits a command; false when it is not well-formed. */
bool words_parse(const std::string& text, fake_words& words);

/* The plain word at a position, or "". */
const std::string& words_at(const fake_words& words, size_t position);

/* An option's value; marks it as used. */
std::optional<std::string> words_text(const fake_words& words, const char* key);
std::optional<int64_t> words_number(const fake_words& words, const char* key);

/* Whether an option is there and not 0. */
bool words_flag(const fake_words& words, const char* key);

/* Marks options as used. */
void words_know(const fake_words& words, std::initializer_list<const char*> keys);

/* The first option that nobody asked for, or "". */
std::string words_unused(const fake_words& words);

/* A number in decimal or hexadecimal notation. */
std::optional<int64_t> words_to_number(const std::string& text);

/* Replaces \xHH, \n, \" and \\ . */
std::string words_unescape(const std::string& text);

/* A value as it can stand behind KEY=. */
std::string words_quote(const std::string& text);

#endif
