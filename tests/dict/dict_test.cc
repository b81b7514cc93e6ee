/* The dictionary: order, replacement, subtraction, arguments that point into itself. */
#include <veloran/dict.h>

#include <cerrno>
#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>

using dict_owner = std::unique_ptr<strm_dict, decltype(&strm_dict_destroy)>;

static dict_owner make(std::initializer_list<std::pair<const char*, const char*>> content) {
    dict_owner dict(strm_dict_new(), &strm_dict_destroy);
    for (const auto& [key, value] : content) {
        EXPECT_EQ(strm_dict_set(dict.get(), key, value), 0);
    }
    return dict;
}

static std::string content_of(const dict_owner& dict) {
    std::string text;
    const char* key = nullptr;
    const char* value = nullptr;
    for (int32_t i = 0; strm_dict_at(dict.get(), i, &key, &value) == 0; ++i) {
        text += std::string(key) + "=" + value + " ";
    }
    return text;
}

TEST(dict, keeps_order_and_place_and_takes_arguments_from_itself) {
    const dict_owner owner = make({{"b", "1"}, {"a", "x"}, {"", "3"}, {"b", "0123456789"}});
    strm_dict* dict = owner.get();
    EXPECT_EQ(content_of(owner), "b=0123456789 a=x =3 ");
    EXPECT_EQ(strm_dict_set(dict, "b", strm_dict_find(dict, "b") + 3), 0);
    EXPECT_EQ(strm_dict_set(dict, "a", strm_dict_find(dict, "b")), 0);
    EXPECT_EQ(strm_dict_set(dict, strm_dict_find(dict, "a"), ""), 0);
    EXPECT_EQ(content_of(owner), "b=3456789 a=3456789 =3 3456789= ");
    EXPECT_EQ(strm_dict_delete(dict, "a"), 0);
    EXPECT_EQ(strm_dict_delete(dict, "a"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(strm_dict_set(dict, "a", "again"), 0);
    EXPECT_EQ(content_of(owner), "b=3456789 =3 3456789= a=again ");
}

TEST(dict, what_is_made_of_others_stands_alone) {
    dict_owner from = make({{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", "4"}});
    const dict_owner what = make({{"c", "other"}, {"a", "1"}, {"z", "9"}});
    const dict_owner rest(strm_dict_subtract(from.get(), what.get()), &strm_dict_destroy);
    const dict_owner copy(strm_dict_clone(from.get()), &strm_dict_destroy);
    strm_dict_set(copy.get(), "a", "changed");
    EXPECT_EQ(content_of(from), "a=1 b=2 c=3 d=4 ");
    from.reset();
    EXPECT_EQ(content_of(rest), "b=2 d=4 ");
    EXPECT_EQ(content_of(copy), "a=changed b=2 c=3 d=4 ");
}
