#include <cstdlib>
#include <cstring>

#include "array.h"
#include "msglog.h"

static bool make_room(pointer_array* array) {
    if (array->count < array->capacity) {
        return true;
    }
    if (array->capacity > INT32_MAX - ARRAY_STEP) {
        return false;
    }
    const size_t wanted = static_cast<size_t>(array->capacity) + ARRAY_STEP;
    void** grown = static_cast<void**>(reallocarray(array->items, wanted, sizeof(void*)));
    if (grown == nullptr) {
        return false;
    }
    array->items = grown;
    array->capacity += ARRAY_STEP;
    return true;
}

/* Moves the entries from position `from` on to position `to`. */
static void move_tail(pointer_array* array, int32_t from, int32_t to) {
    memmove(array->items + to, array->items + from,
            static_cast<size_t>(array->count - from) * sizeof(void*));
}

int32_t array_push(int32_t, pointer_array* array, void* value) noexcept {
    if (!make_room(array)) {
        return -1;
    }
    array->items[array->count] = value;
    return ++array->count;
}

void* array_pop(int32_t, pointer_array* array) noexcept {
    if (array->count <= 0) {
        msglog(1, "Pop of an empty array");
    }
    return array->items[--array->count];
}

int32_t array_insert(int32_t, pointer_array* array, int32_t position, void* value) noexcept {
    const int32_t place = array->count == 0 ? 0 : position;
    if (place < 0 || place > array->count) {
        msglog(1, "Insert outside an array");
    }
    if (!make_room(array)) {
        return -1;
    }
    if (place < array->count) {
        move_tail(array, place, place + 1);
    }
    array->items[place] = value;
    return ++array->count;
}

int32_t array_delete(int32_t, pointer_array* array, int32_t position) noexcept {
    if (position < 0 || position >= array->count) {
        msglog(1, "Shift of an empty array");
    }
    if (position < array->count - 1) {
        move_tail(array, position + 1, position);
    }
    return --array->count;
}

void array_set(int32_t, pointer_array* array, int32_t position, void* value) noexcept {
    if (position < 0 || position >= array->count) {
        msglog(1, "Set outside an array");
    }
    array->items[position] = value;
}
