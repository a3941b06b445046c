// SPDX-License-Identifier: MIT
/** @file
 * Vector, the growable (optionally owning, optionally synchronised) object array.
 *
 * @par Example
 * @include reference/vector.c
 */
#ifndef VOKT_CONTAINERS_VECTOR_H
#define VOKT_CONTAINERS_VECTOR_H

#include <stdint.h>

#include "vokt/core/object.h"
#include "vokt/sync/vokt_sync.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A linearly growing array of object pointers (capacity 10, then +10 at a time), optionally
 *  owning its elements and optionally guarded by its own recursive mutex. Unsynchronised, one
 *  thread at a time; synchronised, every operation runs under the mutex. */
typedef struct Vector {
    const ClassDescriptor *ftbl; /**< The Vector descriptor (a VectorDescriptor). */
    int64_t size; /**< Number of elements in use. */
    int64_t capacity; /**< Element slots in data (raised even when a growth failed). */
    int64_t growBy; /**< Slots added by each growth; 10. */
    int32_t bSynchronized; /**< Nonzero: every operation locks mutex. */
    Mutex *mutex; /**< The vector's own recursive mutex, made when first synchronised. */
    int32_t bOwnsElements; /**< Nonzero: Vector_Clear and Vector_Free destroy the elements. */
    Object **data; /**< The elements. One hidden word before data[0] holds the number of slots really
 *  allocated; never free data yourself. */
} Vector;

/** The Vector class descriptor: the generic slots, then the Vector operations that other
 *  modules call through it. */
typedef struct VectorDescriptor {
    ClassDescriptor base; /**< The generic slots (Destroy is Vector_Free). */
    void *(*GetAt)(Vector *v, int64_t index); /**< Slot 6: Vector_GetAt. */
    void (*SetAt)(Vector *v, int64_t index, void *obj); /**< Slot 7: Vector_SetAt. */
    void *(*Add)(Vector *v, void *obj); /**< Slot 8: Vector_Add. */
    int32_t (*AddAll)(Vector *target, Vector *source); /**< Slot 9: Vector_AddAll. */
    void *(*Remove)(Vector *v, void *probe); /**< Slot 10: Vector_Remove. */
    void *(*RemoveAt)(Vector *v, int64_t index); /**< Slot 11: Vector_RemoveAt. */
    void *(*RemoveIdentical)(Vector *v, void *obj); /**< Slot 12: Vector_RemoveIdentical. */
    int32_t (*Contains)(Vector *v, void *probe); /**< Slot 13: Vector_Contains. */
} VectorDescriptor;

/** Makes an empty, non-owning, unsynchronised vector (capacity 10, growth 10).
 * @return The vector, owned by the caller (Vector_Free()); null when memory ran out ("Unable
 *         to allocate ObjectVector vec" in the log when the record failed; no message when
 *         its array did). */
VOKT_API Vector *Vector_New(void);
/** As Vector_New(), but the vector owns its elements: Vector_Clear() and Vector_Free() destroy
 *  them through their descriptors.
 * @return The vector, owned by the caller; null when memory ran out. */
VOKT_API Vector *Vector_NewOwning(void);
/** Switches the vector's own recursive lock on or off.
 * @param v The vector.
 * @param flag Nonzero: from now on every operation runs under the lock (made at the first
 *        call); 0: no locking (the lock is kept for later).
 * @return 0; -2 when the lock cannot be allocated (the vector stays unsynchronised); -1 for a
 *         null v (reported).
 * @note Switch it on before the vector is shared between threads. */
VOKT_API int32_t Vector_SetSynchronized(Vector *v, int32_t flag);
/** Takes a synchronised vector's lock, to make several operations one atomic step; every
 *  operation may be called while holding it, and it must be released as often (Vector_Unlock()).
 * @param v The vector; an unsynchronised one is reported ("v->bSynchronized") and nothing is
 *        locked; null is reported and ignored. */
VOKT_API void Vector_Lock(Vector *v);
/** Releases one level of Vector_Lock().
 * @param v The vector (the same reports as Vector_Lock()). */
VOKT_API void Vector_Unlock(Vector *v);
/** Counts the elements.
 * @param v The vector.
 * @return The number of elements; 0 for a null v (reported). */
VOKT_API int64_t Vector_Length(Vector *v);
/** Reads one element.
 * @param v The vector.
 * @param index From 0.
 * @return The element (borrowed: the vector keeps it); null for a null v or an index outside
 *         the elements (reported: "index < v->size"). */
VOKT_API void *Vector_GetAt(Vector *v, int64_t index);
/** Overwrites one slot; the element that was there is never destroyed, even by an owning
 *  vector.
 * @param v The vector.
 * @param index From 0; an index outside the elements is reported and nothing is written.
 * @param obj The new element (may be null); an owning vector now owns it. */
VOKT_API void Vector_SetAt(Vector *v, int64_t index, void *obj);
/** Appends one element, growing the array by growBy slots when it is full.
 * @param v The vector.
 * @param obj The element (null elements are stored too); an owning vector now owns it.
 * @return obj; null when the growth failed (or obj was null). A failed growth leaves capacity
 *         raised and the old array in place and, on a synchronised vector, keeps the lock held
 *         once more: release it with Vector_Unlock(). */
VOKT_API void *Vector_Add(Vector *v, void *obj);
/** Appends every element of source to target, in order.
 * @param target The vector that grows.
 * @param source The vector read; a synchronised one is locked first, then target.
 * @return 0; -2 when an append returned null (memory ran out, or a null element, which is
 *         appended and ends the copy); -1 for a null vector (reported).
 * @note Two threads copying in opposite directions between two synchronised vectors can
 *       deadlock: keep one direction. */
VOKT_API int32_t Vector_AddAll(Vector *target, Vector *source);
/** Removes one slot, moving the later ones down.
 * @param v The vector.
 * @param index From 0; outside the elements it is reported and nothing is removed.
 * @return The removed element, now the caller's (removal never destroys); null when nothing
 *         was removed. */
VOKT_API void *Vector_RemoveAt(Vector *v, int64_t index);
/** Removes the first element that is probe, or that probe's class Equals says is equal (a
 *  class without Equals matches only itself).
 * @param v The vector.
 * @param probe What to look for.
 * @return The stored element that was removed (which may be another object than probe), now
 *         the caller's; null when none matched. */
VOKT_API void *Vector_Remove(Vector *v, void *probe);
/** Removes the slots that hold obj itself. Each slot refilled from above is not looked at
 *  again, so of two adjacent copies the second survives one call.
 * @param v The vector.
 * @param obj The pointer to remove.
 * @return obj when at least one slot was removed, else null. */
VOKT_API void *Vector_RemoveIdentical(Vector *v, void *obj);
/** Looks for an element equal to probe: through probe's class Equals, or, for a class without
 *  one, byte for byte over the class's size (so objects of another class never match).
 * @param v The vector.
 * @param probe What to look for; null gives 0.
 * @return 1 when an element matches, else 0. */
VOKT_API int32_t Vector_Contains(Vector *v, void *probe);
/** Sorts the elements with qsort (not stable) and the Compare slot of the element at index 0,
 *  which decides for all.
 * @param v The vector; a first element whose class has no Compare (or a null one) is reported
 *        and nothing is sorted. */
VOKT_API void Vector_Sort(Vector *v);
/** Empties the vector (its capacity stays), destroying each non-null element first when it
 *  owns them.
 * @param v The vector. */
VOKT_API void Vector_Clear(Vector *v);
/** Makes the vector own its elements, or not.
 * @param v The vector.
 * @param flag Nonzero: Vector_Clear() and Vector_Free() will destroy the elements.
 * @note On a synchronised vector this leaves the caller holding its lock twice: release it
 *       with two Vector_Unlock() calls. */
VOKT_API void Vector_SetOwnsElements(Vector *v, int32_t flag);
/** Clears the vector (destroying owned elements) and frees it, with its lock (the class's
 *  Destroy slot).
 * @param v The vector, dead afterwards; null is reported and ignored. */
VOKT_API void Vector_Free(Vector *v);

#ifndef VOKT_BUILDING
/** (extension) Vector_GetAt() for programs: the common case (an unsynchronised vector and an
 *  index inside it) is read in place, like GLib's g_ptr_array_index; anything else calls the
 *  exported Vector_GetAt(), with its reports and its lock. Each argument is evaluated once.
 * @param v The vector.
 * @param index From 0.
 * @return As Vector_GetAt(). */
static inline void *Vector_GetAtInline(Vector *v, int64_t index) {
    if (v && !v->bSynchronized && v->data && (uint64_t)index < (uint64_t)v->size) return v->data[index];
    return (Vector_GetAt)(v, index);
}
/** (extension) Vector_Add() for programs: while an unsynchronised vector has a free slot (below
 *  both capacity and the slots really allocated, which the hidden word before data[0] holds),
 *  the element is stored in place; growth, the lock and every report are the exported
 *  Vector_Add()'s. Each argument is evaluated once.
 * @param v The vector.
 * @param obj The element.
 * @return As Vector_Add(). */
static inline void *Vector_AddInline(Vector *v, void *obj) {
    if (v && !v->bSynchronized && v->data && v->size < v->capacity && v->size < ((const intptr_t *)v->data)[-1]) {
        v->data[v->size++] = (Object *)obj;
        return obj;
    }
    return (Vector_Add)(v, obj);
}
/** Calls of Vector_GetAt(v, index) and Vector_Add(v, obj) take the inline paths; their addresses
 *  stay the exported functions'. Define VOKT_NO_INLINE_PATHS to call the exported functions
 *  every time. */
#ifndef VOKT_NO_INLINE_PATHS
#define Vector_GetAt(v, index) Vector_GetAtInline((v), (index))
/** Calls of Vector_Add(v, obj) take Vector_AddInline. */
#define Vector_Add(v, obj) Vector_AddInline((v), (obj))
#endif
#endif

#ifdef __cplusplus
}
#endif
#endif
