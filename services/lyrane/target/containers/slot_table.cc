#include <cstdlib>

#include "array.h"

static bool add_free_slots(slot_table* table) {
    if (table->count > INT32_MAX - ARRAY_STEP) {
        return false;
    }
    const size_t wanted = static_cast<size_t>(table->count) + ARRAY_STEP;
    void** grown = static_cast<void**>(reallocarray(table->slots, wanted, sizeof(void*)));
    if (grown == nullptr) {
        return false;
    }
    for (int32_t i = 0; i < ARRAY_STEP; i++) {
        grown[table->count + i] = nullptr;
    }
    table->slots = grown;
    table->count += ARRAY_STEP;
    return true;
}

/* A record in the lowest free slot for which there is memory; its index, or -1. */
static int32_t fill_slot(slot_table* table, size_t size) {
    for (int32_t index = 0; index < table->count; index++) {
        if (table->slots[index] == nullptr) {
            table->slots[index] = calloc(1, size);
            if (table->slots[index] != nullptr) {
                return index;
            }
        }
    }
    return -1;
}

int32_t _array_add(slot_table* table, int32_t size) noexcept {
    if (size < 0) {
        return -1;
    }
    /* A record of no bytes still needs an address. */
    const size_t bytes = size > 0 ? static_cast<size_t>(size) : 1;
    const int32_t index = fill_slot(table, bytes);
    /* Another growth would not help a record that found no memory among free slots. */
    return index < 0 && add_free_slots(table) ? fill_slot(table, bytes) : index;
}

void* _array_get(const slot_table* table, int32_t index) noexcept {
    return index >= 0 && index < table->count ? table->slots[index] : nullptr;
}

int32_t _array_del(slot_table* table, int32_t index) noexcept {
    void* record = _array_get(table, index);
    if (record == nullptr) {
        return -1;
    }
    free(record);
    table->slots[index] = nullptr;
    return 0;
}
