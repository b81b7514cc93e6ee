/* The text of published objects: two texts of any bytes, an object's file and an update. Merging,
 * writing, comparing and reading by lines must agree with each other. The first two bytes are the
 * length of the first text. */
#include "input.h"
#include "pps_content.h"

namespace {

bool same(const strm_dict* one, const strm_dict* other) {
    const int32_t count = strm_dict_count(one);
    const char* name = nullptr;
    const char* value = nullptr;
    for (int32_t i = 0; i < count && strm_dict_at(one, i, &name, &value) == 0; ++i) {
        const char* there = strm_dict_find(other, name);
        if (there == nullptr || strcmp(there, value) != 0) {
            return false;
        }
    }
    return count == strm_dict_count(other);
}

int32_t merge(const pps_attributes& attributes, const std::string& text,
              pps_strictness strictness) {
    return pps_content_merge(attributes.get(), text.data(), text.size(), strictness);
}

/* Lines as a reader finds them, applied by hand, are what the merge makes of the text. */
void require_lines(const std::string& text, const strm_dict* merged) {
    const pps_attributes read(strm_dict_new());
    const char* at = text.data();
    size_t left = text.size();
    pps_line line;
    while (pps_next_line(&at, &left, &line) == 1) {
        require(at + left == text.data() + text.size(), "a reader stays inside the text");
        const std::string name(line.name, line.name_length);
        require(!name.empty(), "a line has a name");
        if (line.kind == '=') {
            require(line.value_length >= 2 && line.value[0] == ':', "an attribute has a value");
            const std::string value(line.value, line.value_length);
            (void)strm_dict_set(read.get(), name.c_str(), value.c_str());
        } else if (line.kind == '-') {
            (void)strm_dict_delete(read.get(), name.c_str());
        }
    }
    require(left == 0, "a reader comes to the end");
    require(same(read.get(), merged), "a reader finds what the merge finds");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input = {data, size};
    const std::string file = input_bytes(&input, input_u16(&input));
    const std::string update = input_bytes(&input, input.left);
    const pps_attributes before(strm_dict_new());
    if (merge(before, file, pps_strictness::file) != 0) {
        return 0; /* too many attributes */
    }
    require_lines(file, before.get());

    std::string text;
    pps_content_format(&text, "object", before.get());
    const pps_attributes again(strm_dict_new());
    require(merge(again, text, pps_strictness::update) == 0 && same(before.get(), again.get()),
            "what is written is what was read");

    const pps_attributes after(strm_dict_clone(before.get()));
    if (merge(after, update, pps_strictness::update) != 0) {
        return 0; /* a line that is none */
    }
    pps_content_format_change(&text, "object", before.get(), after.get());
    require(merge(again, text, pps_strictness::update) == 0 && same(after.get(), again.get()),
            "a change makes the new content of the old");
    return 0;
}
