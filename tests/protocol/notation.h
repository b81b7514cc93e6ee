/* Bytes as text, for tables of bytes written by hand: "0a" is a byte, "0*14" fourteen zeros,
 * "'abc'" the text itself, ".." any byte; "#" begins a comment up to the end of the line. */
#ifndef TEST_NOTATION_H
#define TEST_NOTATION_H

#include <string>
#include <vector>

constexpr int ANY_BYTE = -1;

/* The bytes, or ANY_BYTE; a text that is none fails the test. */
std::vector<int> notation_read(const std::string& text);
/* The same where every byte is given. */
std::string notation_bytes(const std::string& text);

/* The other way round, for messages. */
std::string notation_show(const std::string& bytes);
/* Fails the test unless the bytes are as written. */
void notation_expect(const std::string& bytes, const std::vector<int>& written,
                     const std::string& what);

#endif
