/* The two growable containers behind every list of the service.
 *
 * Both grow by ARRAY_STEP entries and never shrink. Neither takes a lock: whoever owns a list says
 * what guards it. A zeroed record is a valid empty container. The leading argument of the pointer
 * array's operations is not used; callers pass 0. */
#ifndef LYRANE_ARRAY_H
#define LYRANE_ARRAY_H

#include <cstdint>

constexpr int32_t ARRAY_STEP = 8;

/* An ordered vector of borrowed pointers. */
struct pointer_array {
    int32_t count;
    int32_t capacity;
    void** items;
};

/* A table of zeroed records that it owns, addressed by an index that stays while the record
 * lives; the lowest free index is always taken first. */
struct slot_table {
    int32_t count;
    void** slots;
};

extern "C" {

/* Appends. The new count, or -1 when the array could not grow (it is unchanged then). */
int32_t array_push(int32_t ignored, pointer_array* array, void* value) noexcept;

/* Removes and returns the last entry. An empty array ends the process. */
void* array_pop(int32_t ignored, pointer_array* array) noexcept;

/* Inserts before position (0 .. count); into an empty array always as entry 0. The new count, or
 * -1 when the array could not grow. */
int32_t array_insert(int32_t ignored, pointer_array* array, int32_t position, void* value) noexcept;

/* Removes the entry at position, the later ones move down. The new count. A position that names no
 * entry ends the process. */
int32_t array_delete(int32_t ignored, pointer_array* array, int32_t position) noexcept;

/* Replaces the entry at position, which must exist. */
void array_set(int32_t ignored, pointer_array* array, int32_t position, void* value) noexcept;

/* Adds a zeroed record of `size` bytes. Its index, or -1 for a negative size and when there is no
 * memory for it in any free slot, one growth of the table included. */
int32_t _array_add(slot_table* table, int32_t size) noexcept;

/* The record at an index, or null when there is none. */
void* _array_get(const slot_table* table, int32_t index) noexcept;

/* Frees the record at an index. 0, or -1 when there is none. */
int32_t _array_del(slot_table* table, int32_t index) noexcept;
}

#endif
