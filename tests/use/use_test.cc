#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <link.h>

#include "usage_section.h"

namespace {

/* This program carries the service's message, like the service itself. */
std::vector<unsigned char> own_image() {
    std::ifstream file("/proc/self/exe", std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string found_in(const std::vector<unsigned char>& image) {
    size_t length = 0;
    const char* text = usage_section_find(image.data(), image.size(), &length);
    return text != nullptr ? std::string(text, length) : "none";
}

TEST(use, the_service_carries_its_message) {
    EXPECT_EQ(found_in(own_image()),
              "%C - Veloran Tovrin2 Multimedia Player\n"
              "\n"
              "%C\t[options]\n"
              "\n"
              "Options:\n"
              " -b            Don't run in background.\n"
              " -c            Configuration file [default: /etc/lyrane.conf]\n"
              " -s service    Service identifier name.provider [default: lyrane.sys]\n"
              " -l            Enalbe lastmode audio\n"
              " -P prio       Application priority.\n"
              " -U u[:g,...]  Downgrade from root to the specified user (and, optionally, "
              "groups).\n"
              " -v            Be verbose. Increase the number of v's to increase verbosity.\n"
              "\n"
              "SIGUSR1 can be used to bump the verbosity.\n"
              "\n"
              "If lastmode audio is enalbed, the default timeout is 5 seconds and \n"
              "the default enabled device is the hard drive. To overwrite it, please edit\n"
              "the specified lyrane config file. \n");
}

TEST(use, damaged_executables_have_no_message) {
    const std::vector<unsigned char> whole = own_image();
    ElfW(Ehdr) header = {};
    memcpy(&header, whole.data(), sizeof header);
    /* Cut within every table that is read. */
    for (const size_t size :
         {size_t{0}, size_t{4}, sizeof header - 1, sizeof header, size_t{header.e_shoff} + 1,
          size_t{header.e_shoff} + header.e_shnum * sizeof(ElfW(Shdr)) - 1}) {
        std::vector<unsigned char> cut(whole.begin(),
                                       whole.begin() + static_cast<std::ptrdiff_t>(size));
        found_in(cut); /* the address sanitizer looks on */
    }
    const auto with_header = [&](const ElfW(Ehdr) & changed) {
        std::vector<unsigned char> image = whole;
        memcpy(image.data(), &changed, sizeof changed);
        return found_in(image);
    };
    ElfW(Ehdr) changed = header;
    changed.e_shoff = SIZE_MAX;
    EXPECT_EQ(with_header(changed), "none");
    changed = header;
    changed.e_shstrndx = 0xFFFF;
    EXPECT_EQ(with_header(changed), "none");
    changed = header;
    changed.e_ident[EI_CLASS] = 7;
    EXPECT_EQ(with_header(changed), "none");
    /* Every section's header in turn points out of the image. */
    for (size_t i = 0; i < header.e_shnum; i++) {
        std::vector<unsigned char> image = whole;
        memset(image.data() + header.e_shoff + i * sizeof(ElfW(Shdr)), 0xFF, sizeof(ElfW(Shdr)));
        found_in(image);
    }
}

} // namespace
