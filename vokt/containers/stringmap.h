// SPDX-License-Identifier: MIT
/** @file
 * StringMap, string keys to string values kept in ascending order of key hash.
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

/** New empty map with room for 4 entries, or null. */
VOKT_API StringMap *StringMap_New(void);
/** Frees every key and value, the entries and the map. */
VOKT_API void StringMap_Free(StringMap *map);
/** Stores a copy of value under a copy of key; a NULL value removes the key: 0, or -2
 * (the map then unchanged). Keys are case-sensitive. */
VOKT_API int32_t StringMap_Set(StringMap *map, const char *key, const char *value);
/** The stored value (borrowed, valid until the key changes), or NULL. */
VOKT_API const char *StringMap_Get(const StringMap *map, const char *key);
/** Key of the entry at index (hash order), or NULL outside the map. */
VOKT_API const char *StringMap_KeyAt(const StringMap *map, int32_t index);
/** Removes every entry; a capacity above 128 shrinks back to 128. */
VOKT_API void StringMap_Clear(StringMap *map);
/** dst := copies of src's entries: 0, or -2 with the entries copied so far. */
VOKT_API int32_t StringMap_Assign(StringMap *dst, const StringMap *src);
/** (extension) Number of entries. */
VOKT_API int32_t StringMap_Length(const StringMap *map);
/** (extension) Value of the entry at index (hash order), or NULL outside the map. */
VOKT_API const char *StringMap_ValueAt(const StringMap *map, int32_t index);

#ifdef __cplusplus
}
#endif
#endif
