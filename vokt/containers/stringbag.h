// SPDX-License-Identifier: MIT
/** @file
 * StringBag, distinct texts (matched without regard to case) with counts.
 *
 * @par Example
 * @include reference/stringbag.c
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

/** Makes an empty bag.
 * @return The bag, owned by the caller (StringBag_Free()); null when memory ran out ("Unable
 *         to allocate StringBag sb"). */
VOKT_API StringBag *StringBag_New(void);
/** Destroys every element and the bag (the class's Destroy slot).
 * @param bag The bag, dead afterwards. */
VOKT_API void StringBag_Free(StringBag *bag);
/** Counts text: adds count to the element whose text equals it ignoring case (the newest such
 *  element first), or appends a new element holding a copy of text.
 * @param bag The bag.
 * @param text The text; the first spelling added is the one kept.
 * @param count What to add to its count.
 * @return 0; -2 when a new element could not be made (nothing changes); -1 for a null bag or
 *         text (reported). */
VOKT_API int32_t StringBag_Add(StringBag *bag, const char *text, uint32_t count);
/** Sorts the elements by text, ignoring case.
 * @param bag The bag. */
VOKT_API void StringBag_Sort(StringBag *bag);
/** Counts the distinct texts.
 * @param bag The bag.
 * @return The number of elements; 0 for a null bag (reported). */
VOKT_API int64_t StringBag_Length(StringBag *bag);
/** Makes one element, as StringBag_Add() does.
 * @param text The text, copied.
 * @param count Its count.
 * @return The element, owned by the caller; null when memory ran out ("Unable to allocate
 *         StringBagElem sbe") or text is null. */
VOKT_API StringBagElem *StringBagElem_New(const char *text, uint32_t count);

#ifdef __cplusplus
}
#endif
#endif
