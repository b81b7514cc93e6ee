#include "usage_section.h"

#include <cstring>

#include <link.h>

namespace {

using elf_header = ElfW(Ehdr);
using elf_section = ElfW(Shdr);

constexpr char SECTION[] = ".usage";
constexpr unsigned char OWN_CLASS = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
constexpr unsigned char OWN_DATA =
    __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? ELFDATA2LSB : ELFDATA2MSB;

struct image_view {
    const unsigned char* bytes;
    size_t size;
};

bool inside(const image_view& image, size_t offset, size_t length) {
    return offset <= image.size && length <= image.size - offset;
}

bool read_header(const image_view& image, elf_header* header) {
    if (!inside(image, 0, sizeof *header)) {
        return false;
    }
    memcpy(header, image.bytes, sizeof *header);
    return memcmp(header->e_ident, ELFMAG, SELFMAG) == 0 &&
           header->e_ident[EI_CLASS] == OWN_CLASS && header->e_ident[EI_DATA] == OWN_DATA &&
           header->e_shentsize == sizeof(elf_section);
}

/* The section of a number, when its contents lie within the image. */
bool read_section(const image_view& image, const elf_header& header, size_t number,
                  elf_section* section) {
    const size_t offset = number * sizeof *section;
    if (header.e_shoff > image.size || !inside(image, header.e_shoff + offset, sizeof *section)) {
        return false;
    }
    memcpy(section, image.bytes + header.e_shoff + offset, sizeof *section);
    return section->sh_type != SHT_NOBITS && inside(image, section->sh_offset, section->sh_size);
}

} // namespace

const char* usage_section_find(const unsigned char* bytes, size_t size, size_t* length) noexcept {
    const image_view image = {bytes, size};
    elf_header header = {};
    elf_section names = {};
    if (!read_header(image, &header) || !read_section(image, header, header.e_shstrndx, &names)) {
        return nullptr;
    }
    for (size_t i = 0; i < header.e_shnum; i++) {
        elf_section section = {};
        if (!read_section(image, header, i, &section) || section.sh_name >= names.sh_size ||
            names.sh_size - section.sh_name < sizeof SECTION ||
            memcmp(bytes + names.sh_offset + section.sh_name, SECTION, sizeof SECTION) != 0) {
            continue;
        }
        const char* text = reinterpret_cast<const char*>(bytes + section.sh_offset);
        *length = strnlen(text, section.sh_size);
        return text;
    }
    return nullptr;
}
