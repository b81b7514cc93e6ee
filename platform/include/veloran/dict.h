/* strm_dict: a dictionary from string to string, in the order of insertion.
 *
 * [any thread], but one dictionary belongs to one thread at a time. Keys compare byte for byte.
 * Strings handed in are copied. Nothing here throws. */
#ifndef VELORAN_DICT_H
#define VELORAN_DICT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define VEL_DICT_NOEXCEPT noexcept
extern "C" {
#else
#define VEL_DICT_NOEXCEPT
#endif

typedef struct strm_dict strm_dict;

/* An empty dictionary, or null without memory. The caller owns it. */
strm_dict* strm_dict_new(void) VEL_DICT_NOEXCEPT;
/* Frees the dictionary with its strings; accepts null. */
void strm_dict_destroy(strm_dict* dict) VEL_DICT_NOEXCEPT;
/* A copy that the caller owns, or null without memory. */
strm_dict* strm_dict_clone(const strm_dict* dict) VEL_DICT_NOEXCEPT;
/* Sets a key: a new one goes to the end, an existing one keeps its place. 0, or -1 without memory
 * (errno ENOMEM; the dictionary is unchanged). */
int32_t strm_dict_set(strm_dict* dict, const char* key, const char* value) VEL_DICT_NOEXCEPT;
/* Deletes a key. 0, or -1 when there is none (errno ENOENT). */
int32_t strm_dict_delete(strm_dict* dict, const char* key) VEL_DICT_NOEXCEPT;
/* The value of a key, or null. Borrowed, valid until the dictionary changes. */
const char* strm_dict_find(const strm_dict* dict, const char* key) VEL_DICT_NOEXCEPT;
/* Number of keys. */
int32_t strm_dict_count(const strm_dict* dict) VEL_DICT_NOEXCEPT;
/* Key and value at a position, 0 .. count - 1; borrowed. -1 when there is no such position. */
int32_t strm_dict_at(const strm_dict* dict, int32_t position, const char** key,
                     const char** value) VEL_DICT_NOEXCEPT;
/* A new dictionary of the entries of `from` whose key is not in `what` (by key alone, the values
 * do not count), in the order of `from`; null without memory. */
strm_dict* strm_dict_subtract(const strm_dict* from, const strm_dict* what) VEL_DICT_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
