/* The dictionary: order, replacement, subtraction, arguments that point into itself. */
#include <veloran/dict.h>

#include <cerrno>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

using dict_owner = std::unique_ptr<strm_dict, decltype(&strm_dict_destroy)>;
using pairs = std::vector<std::pair<std::string, std::string>>;

static dict_owner own(strm_dict* dict) {
    return {dict, &strm_dict_destroy};
}

static dict_owner make(const pairs& content) {
    dict_owner dict = own(strm_dict_new());
    for (const auto& [key, value] : content) {
        EXPECT_EQ(strm_dict_set(dict.get(), key.c_str(), value.c_str()), 0);
    }
    return dict;
}

static pairs content_of(const strm_dict* dict) {
    pairs result;
    const char* key = nullptr;
    const char* value = nullptr;
    for (int32_t i = 0; strm_dict_at(dict, i, &key, &value) == 0; ++i) {
        result.emplace_back(key, value);
    }
    EXPECT_EQ(strm_dict_count(dict), static_cast<int32_t>(result.size()));
    return result;
}

TEST(dict, keeps_order_and_place) {
    dict_owner dict =
        make({{"b", "1"}, {"a", "2"}, {"", "3"}, {"b", "a longer value than before"}});
    EXPECT_EQ(content_of(dict.get()),
              (pairs{{"b", "a longer value than before"}, {"a", "2"}, {"", "3"}}));
    EXPECT_EQ(strm_dict_delete(dict.get(), "a"), 0);
    EXPECT_EQ(strm_dict_delete(dict.get(), "a"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(strm_dict_set(dict.get(), "a", "again"), 0);
    EXPECT_EQ(strm_dict_set(dict.get(), "b", ""), 0);
    EXPECT_EQ(content_of(dict.get()), (pairs{{"b", ""}, {"", "3"}, {"a", "again"}}));
    EXPECT_EQ(strm_dict_find(dict.get(), "B"), nullptr);
}

TEST(dict, a_value_may_come_from_the_dictionary) {
    dict_owner dict = make({{"key", "0123456789"}, {"other", "x"}});
    const char* own_text = strm_dict_find(dict.get(), "key");
    EXPECT_EQ(strm_dict_set(dict.get(), "key", own_text + 3), 0);
    EXPECT_STREQ(strm_dict_find(dict.get(), "key"), "3456789");
    EXPECT_EQ(strm_dict_set(dict.get(), "other", strm_dict_find(dict.get(), "key")), 0);
    EXPECT_EQ(strm_dict_set(dict.get(), strm_dict_find(dict.get(), "other"), "y"), 0);
    EXPECT_EQ(content_of(dict.get()),
              (pairs{{"key", "3456789"}, {"other", "3456789"}, {"3456789", "y"}}));
}

TEST(dict, subtracts_by_key_alone) {
    dict_owner from = make({{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", "4"}});
    dict_owner what = make({{"c", "other"}, {"a", "1"}, {"z", "9"}});
    dict_owner rest = own(strm_dict_subtract(from.get(), what.get()));
    EXPECT_EQ(content_of(rest.get()), (pairs{{"b", "2"}, {"d", "4"}}));
    EXPECT_EQ(strm_dict_count(from.get()), 4);
    dict_owner all = own(strm_dict_subtract(from.get(), own(strm_dict_new()).get()));
    EXPECT_EQ(content_of(all.get()), content_of(from.get()));
}

TEST(dict, a_clone_stands_alone) {
    dict_owner dict = make({{"a", "1"}, {"b", "2"}});
    dict_owner copy = own(strm_dict_clone(dict.get()));
    strm_dict_set(copy.get(), "a", "changed");
    strm_dict_delete(copy.get(), "b");
    EXPECT_EQ(content_of(dict.get()), (pairs{{"a", "1"}, {"b", "2"}}));
    dict.reset();
    EXPECT_EQ(content_of(copy.get()), (pairs{{"a", "changed"}}));
}
