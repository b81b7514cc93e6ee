#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <link.h>

#include "usage_section.h"

extern const char usage_message[];

namespace {

/* This program carries the service's message, like the service itself. */
std::string own_image() {
    std::ifstream file("/proc/self/exe", std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string found_in(const std::string& text) {
    const std::vector<unsigned char> image(text.begin(), text.end()); /* exactly these bytes */
    size_t length = 0;
    const char* found = usage_section_find(image.data(), image.size(), &length);
    return found != nullptr ? std::string(found, length) : "none";
}

TEST(use, the_service_carries_its_message) {
    EXPECT_EQ(found_in(own_image()), usage_message);
}

TEST(use, damaged_executables_have_no_message) {
    const std::string whole = own_image();
    ElfW(Ehdr) header = {};
    memcpy(&header, whole.data(), sizeof header);
    const size_t sections = header.e_shoff;
    /* Cut within every table that is read. */
    for (const size_t size : {size_t{0}, size_t{4}, sizeof header - 1, sizeof header, sections + 1,
                              sections + header.e_shnum * sizeof(ElfW(Shdr)) - 1}) {
        found_in(whole.substr(0, size)); /* the address sanitizer looks on */
    }
    const auto with_ones = [&](size_t offset, size_t length) {
        return found_in(std::string(whole).replace(offset, length, length, '\xFF'));
    };
    EXPECT_EQ(with_ones(offsetof(ElfW(Ehdr), e_shoff), sizeof header.e_shoff), "none");
    EXPECT_EQ(with_ones(offsetof(ElfW(Ehdr), e_shstrndx), sizeof header.e_shstrndx), "none");
    EXPECT_EQ(with_ones(EI_CLASS, 1), "none");
    /* Every section's header in turn points out of the image. */
    for (size_t i = 0; i < header.e_shnum; i++) {
        with_ones(sections + i * sizeof(ElfW(Shdr)), sizeof(ElfW(Shdr)));
    }
}

} // namespace
