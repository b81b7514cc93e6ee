/* The usage message that a program carries in the section ".usage" of its executable. */
#ifndef USAGE_SECTION_H
#define USAGE_SECTION_H

#include <cstddef>

/* Finds the message in the image of an executable of this machine's kind, which may be damaged or
 * hostile. Its start within the image, and its length up to the first NUL; null when the image is
 * no such executable, or has no message. */
const char* usage_section_find(const unsigned char* image, size_t size, size_t* length) noexcept;

#endif
