// SPDX-License-Identifier: MIT
/** @file
 * StringBag, distinct texts (matched without regard to case) with counts.
 */
#ifndef VOKT_CONTAINERS_STRINGBAG_H
#define VOKT_CONTAINERS_STRINGBAG_H

#include <stdint.h>

#include "vokt/containers/vector.h"
#include "vokt/core/object.h"
#include "vokt/text/string.h"

#ifdef __cplusplus
extern "C" {
#endif

/** One distinct text of a StringBag and how often it was added. */
typedef struct StringBagElem {
    const ClassDescriptor *ftbl; /**< The StringBagElem descriptor (Compare: text ignoring case). */
    String *string; /**< The text, owned by the element. */
    uint32_t count; /**< The sum of the counts added (wraps past 2^32 - 1). */
} StringBagElem;
/** Distinct texts, matched without regard to case, with counts, in the order first added.
 *  No lock: one thread at a time. */
typedef struct StringBag {
    const ClassDescriptor *ftbl; /**< The StringBag descriptor. */
    Vector *elements; /**< The StringBagElem objects (an owning Vector). */
} StringBag;

/** New empty bag, or null. */
VOKT_API StringBag *StringBag_New(void);
/** Destroys every element and the bag. */
VOKT_API void StringBag_Free(StringBag *bag);
/** Adds count to the element whose text equals text ignoring case (newest first), or
 * appends a new element: 0, or -2. */
VOKT_API int32_t StringBag_Add(StringBag *bag, const char *text, uint32_t count);
/** Sorts the elements by text, ignoring case. */
VOKT_API void StringBag_Sort(StringBag *bag);
/** Number of distinct texts; 0 (reported) for a null bag. */
VOKT_API int64_t StringBag_Length(StringBag *bag);
/** New element holding a copy of text, or null. */
VOKT_API StringBagElem *StringBagElem_New(const char *text, uint32_t count);

#ifdef __cplusplus
}
#endif
#endif
