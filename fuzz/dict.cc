/* The dictionary against a list of pairs: sets, deletions, look-ups, copies, differences. */
#include <vector>

#include <veloran/dict.h>

#include "input.h"

namespace {

using pairs = std::vector<std::pair<std::string, std::string>>;

struct model {
    strm_dict* dict;
    pairs list;
};

pairs::iterator find(pairs* list, const std::string& key) {
    return std::find_if(list->begin(), list->end(),
                        [&](const auto& entry) { return entry.first == key; });
}

void require_equal(const strm_dict* dict, const pairs& list) {
    require(strm_dict_count(dict) == static_cast<int32_t>(list.size()), "the number of keys");
    for (size_t i = 0; i < list.size(); ++i) {
        const char* key = nullptr;
        const char* value = nullptr;
        require(strm_dict_at(dict, static_cast<int32_t>(i), &key, &value) == 0 &&
                    list[i].first == key && list[i].second == value,
                "keys and values in their order");
        require(strm_dict_find(dict, key) == value, "a key finds its value");
    }
    require(strm_dict_at(dict, static_cast<int32_t>(list.size()), nullptr, nullptr) == -1 &&
                strm_dict_at(dict, -1, nullptr, nullptr) == -1,
            "no position beyond the ends");
}

void set(model* m, const std::string& key, const std::string& value) {
    require(strm_dict_set(m->dict, key.c_str(), value.c_str()) == 0, "a key can be set");
    const auto place = find(&m->list, key);
    if (place != m->list.end()) {
        place->second = value;
    } else {
        m->list.emplace_back(key, value);
    }
}

void remove(model* m, const std::string& key) {
    const auto place = find(&m->list, key);
    const bool known = place != m->list.end();
    require((strm_dict_delete(m->dict, key.c_str()) == 0) == known, "what is there can be deleted");
    if (known) {
        m->list.erase(place);
    }
}

/* The text behind a length byte, up to a NUL in it; short ones meet each other. */
std::string text(fuzz_input* input) {
    const std::string bytes = input_bytes(input, input_u8(input) % 40);
    return bytes.c_str();
}

void step(model* one, model* other, fuzz_input* input) {
    switch (input_u8(input) % 6) {
    case 0:
        remove(one, text(input));
        break;
    case 1:
        std::swap(*one, *other);
        break;
    case 2:
        strm_dict_destroy(other->dict);
        *other = {strm_dict_clone(one->dict), one->list};
        break;
    case 3: {
        strm_dict* rest = strm_dict_subtract(one->dict, other->dict);
        strm_dict_destroy(one->dict);
        one->dict = rest;
        std::erase_if(one->list, [&](const auto& entry) {
            return find(&other->list, entry.first) != other->list.end();
        });
        break;
    }
    default: {
        const std::string key = text(input);
        set(one, key, text(input));
    }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input = {data, size};
    model one = {strm_dict_new(), {}};
    model other = {strm_dict_new(), {}};
    while (input.left > 0) {
        step(&one, &other, &input);
    }
    require_equal(one.dict, one.list);
    require_equal(other.dict, other.list);
    strm_dict_destroy(one.dict);
    strm_dict_destroy(other.dict);
    return 0;
}
