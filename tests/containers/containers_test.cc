#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "array.h"

namespace {

void* entry(char c) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(c));
}

std::string text_of(const pointer_array& array) {
    std::string text;
    for (int32_t i = 0; i < array.count; i++) {
        text += static_cast<char>(reinterpret_cast<uintptr_t>(array.items[i]));
    }
    return text;
}

pointer_array array_of(const char* entries) {
    pointer_array array = {};
    for (const char* c = entries; *c != '\0'; c++) {
        array_push(0, &array, entry(*c));
    }
    return array;
}

TEST(pointer_array, grows_and_gives_the_last_back_first) {
    pointer_array array = {};
    for (int32_t i = 1; i <= 17; i++) {
        ASSERT_EQ(array_push(0, &array, entry(static_cast<char>('a' + i))), i);
    }
    array_set(0, &array, 16, entry('x'));
    EXPECT_EQ(array_pop(0, &array), entry('x'));
    for (int32_t i = 16; i >= 1; i--) {
        ASSERT_EQ(array_pop(0, &array), entry(static_cast<char>('a' + i)));
    }
    EXPECT_EQ(array.count, 0);
    free(array.items);
}

TEST(pointer_array, inserts_and_deletes_in_order) {
    const struct {
        const char* before;
        int32_t insert; /* -1: delete */
        int32_t position;
        const char* after;
    } cases[] = {
        {"", 'x', 7, "x"},     {"ab", 'x', 0, "xab"},
        {"ab", 'x', 2, "abx"}, {"abcdefgh", 'x', 3, "abcxdefgh"}, /* moves while it grows */
        {"abc", -1, 0, "bc"},  {"abc", -1, 1, "ac"},
        {"abc", -1, 2, "ab"},  {"a", -1, 0, ""},
    };
    for (const auto& c : cases) {
        pointer_array array = array_of(c.before);
        const int32_t count = c.insert == -1 ? array_delete(0, &array, c.position)
                                             : array_insert(0, &array, c.position,
                                                            entry(static_cast<char>(c.insert)));
        EXPECT_EQ(text_of(array), c.after) << c.before << " at " << c.position;
        EXPECT_EQ(count, array.count);
        free(array.items);
    }
}

TEST(pointer_array_death, positions_that_name_no_entry_end_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    pointer_array empty = {};
    pointer_array array = array_of("ab");
    EXPECT_EXIT(array_pop(0, &empty), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(array_delete(0, &array, 2), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(array_delete(0, &array, -1), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(array_insert(0, &array, 3, nullptr), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(array_set(0, &array, 2, nullptr), testing::KilledBySignal(SIGABRT), "");
    free(array.items);
}

TEST(slot_table, indices_stay_and_the_lowest_free_one_comes_first) {
    slot_table table = {};
    EXPECT_EQ(_array_add(&table, -1), -1);
    EXPECT_EQ(_array_get(&table, 0), nullptr);
    for (int32_t i = 0; i < 9; i++) {
        ASSERT_EQ(_array_add(&table, 16), i);
        *static_cast<int32_t*>(_array_get(&table, i)) = i;
    }
    EXPECT_EQ(_array_del(&table, 5), 0);
    EXPECT_EQ(_array_del(&table, 1), 0);
    for (const int32_t index : {-1, 1, 9, 16, INT32_MAX}) {
        EXPECT_EQ(_array_get(&table, index), nullptr);
        EXPECT_EQ(_array_del(&table, index), -1);
    }
    EXPECT_EQ(_array_add(&table, 16), 1);
    EXPECT_EQ(*static_cast<int32_t*>(_array_get(&table, 1)), 0) << "a new record is zeroed";
    EXPECT_EQ(*static_cast<int32_t*>(_array_get(&table, 8)), 8);
    EXPECT_EQ(_array_add(&table, 0), 5) << "a record of no bytes takes its slot too";
    for (int32_t i = 0; i < 9; i++) {
        EXPECT_EQ(_array_del(&table, i), 0);
    }
    free(table.slots);
}

/* Allocations of this many bytes fail, so many of them. */
size_t scarce_size;
int32_t scarce_count;

TEST(slot_table, without_memory_for_a_record_grows_once_and_gives_up) {
    const struct {
        int32_t failures;
        int32_t index;
        int32_t count; /* of slots, afterwards; 8 before, all taken */
    } cases[] = {{1, 9, 16}, {7, 15, 16}, {8, -1, 16}};
    for (const auto& c : cases) {
        slot_table table = {};
        for (int32_t i = 0; i < 8; i++) {
            ASSERT_EQ(_array_add(&table, 16), i);
        }
        scarce_size = 4242;
        scarce_count = c.failures;
        EXPECT_EQ(_array_add(&table, 4242), c.index);
        EXPECT_EQ(scarce_count, 0);
        EXPECT_EQ(table.count, c.count);
        for (int32_t i = 0; i < table.count; i++) {
            (void)_array_del(&table, i);
        }
        free(table.slots);
    }
}

} // namespace

extern "C" {
void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size) {
    if (size == scarce_size && scarce_count > 0) {
        scarce_count--;
        return nullptr;
    }
    return __real_calloc(count, size);
}
}
