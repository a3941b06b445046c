// SPDX-License-Identifier: MIT
/** @file
 * StringMap, string keys to string values kept in ascending order of key hash.
 *
 * @par Example
 * @include reference/stringmap.c
 */
#ifndef VOKT_CONTAINERS_STRINGMAP_H
#define VOKT_CONTAINERS_STRINGMAP_H

#include <stdint.h>

#include "vokt/core/object.h"

#ifdef __cplusplus
extern "C" {
#endif

/** One key and its value; both owned by the map. */
typedef struct StringMapEntry {
    uint32_t hash; /**< The one-at-a-time hash of key. */
    char *key; /**< The key. */
    char *value; /**< The value. */
} StringMapEntry;
/** String keys to string values, kept in ascending order of key hash and found by halving.
 *  Capacity 4, doubled up to 128, then +16 at a time. No lock: one thread at a time. */
typedef struct StringMap {
    const ClassDescriptor *ftbl; /**< The StringMap descriptor. */
    StringMapEntry *entries; /**< The entries, in ascending order of hash. */
    int32_t count; /**< Number of entries. */
    int32_t capacity; /**< Room in entries. */
} StringMap;

/** Makes an empty map with room for 4 entries.
 * @return The map, owned by the caller (StringMap_Free()); null when memory ran out ("Unable
 *         to allocate StringMap map"). */
VOKT_API StringMap *StringMap_New(void);
/** Frees every key and value, the entries and the map (the class's Destroy slot).
 * @param map The map, dead afterwards. */
VOKT_API void StringMap_Free(StringMap *map);
/** Stores a copy of value under a copy of key, replacing the value of a key already there;
 *  a null value removes the key.
 * @param map The map.
 * @param key The key; keys are case-sensitive ("a" and "A" are two keys).
 * @param value The value, or null to remove the key.
 * @return 0 (also when a key to remove was not there); -2 when memory ran out, the map then as
 *         it was; -1 for a null map or key (reported).
 * @note A new key is inserted in hash order, moving the entries after it: filling a map with
 *       n keys takes time in proportion to n squared. Up to some ten thousand keys that is
 *       negligible; 100 000 keys take about a second, 300 000 about ten. For more, use an
 *       ObjectSet of your own records. */
VOKT_API int32_t StringMap_Set(StringMap *map, const char *key, const char *value);
/** Looks up a key (by halving over the hashes, then comparing keys).
 * @param map The map.
 * @param key The key, case-sensitive.
 * @return The stored value, borrowed: valid until that key is set, removed or the map cleared;
 *         null when the key is not there (or map or key is null). */
VOKT_API const char *StringMap_Get(const StringMap *map, const char *key);
/** Reads the key of one entry, in hash order.
 * @param map The map.
 * @param index From 0.
 * @return The key (borrowed, as StringMap_Get()'s value), or null outside the entries. */
VOKT_API const char *StringMap_KeyAt(const StringMap *map, int32_t index);
/** Removes every entry; a capacity above 128 shrinks back to 128 (when that fails, the larger
 *  array is kept).
 * @param map The map. */
VOKT_API void StringMap_Clear(StringMap *map);
/** Makes dst a copy of src: dst is cleared, then takes copies of src's entries.
 * @param dst The map that changes.
 * @param src The map copied; the same map as dst changes nothing.
 * @return 0; -2 when memory ran out (dst then holds the entries copied so far, in order); -1
 *         for a null map (reported). */
VOKT_API int32_t StringMap_Assign(StringMap *dst, const StringMap *src);
/** (extension) Counts the entries.
 * @param map The map.
 * @return The number of entries; 0 for a null map. */
VOKT_API int32_t StringMap_Length(const StringMap *map);
/** (extension) Reads the value of one entry, in hash order.
 * @param map The map.
 * @param index From 0.
 * @return The value (borrowed), or null outside the entries. */
VOKT_API const char *StringMap_ValueAt(const StringMap *map, int32_t index);

#ifdef __cplusplus
}
#endif
#endif
