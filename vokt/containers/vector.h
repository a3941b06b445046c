// SPDX-License-Identifier: MIT
/** @file
 * Vector, the growable (optionally owning, optionally synchronised) object array.
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

/** New empty, non-owning, unsynchronised vector (capacity 10, growth 10), or null. */
VOKT_API Vector *Vector_New(void);
/** As Vector_New, but Vector_Clear and Vector_Free destroy the elements. */
VOKT_API Vector *Vector_NewOwning(void);
/** Switches the per-vector recursive lock on or off: 0, or -2 when it cannot be made. */
VOKT_API int32_t Vector_SetSynchronized(Vector *v, int32_t flag);
/** Holds a synchronised vector's lock across several operations; on an unsynchronised one it
 *  reports "v->bSynchronized" and locks nothing. */
VOKT_API void Vector_Lock(Vector *v);
/** Releases one level of Vector_Lock (the same report on an unsynchronised vector). */
VOKT_API void Vector_Unlock(Vector *v);
/** Number of elements; 0 (reported) for a null vector. */
VOKT_API int64_t Vector_Length(Vector *v);
/** Element at index (borrowed), or null for an index outside the vector. */
VOKT_API void *Vector_GetAt(Vector *v, int64_t index);
/** Overwrites a slot; the old element is never destroyed. */
VOKT_API void Vector_SetAt(Vector *v, int64_t index, void *obj);
/** Appends obj and returns it; null when growth failed, which leaves capacity raised and, on
 *  a synchronised vector, the lock held once more (release it with Vector_Unlock). */
VOKT_API void *Vector_Add(Vector *v, void *obj);
/** Appends every element of source (locked first) to target: 0, or -2. */
VOKT_API int32_t Vector_AddAll(Vector *target, Vector *source);
/** Removes and returns the element at index; removal never destroys. */
VOKT_API void *Vector_RemoveAt(Vector *v, int64_t index);
/** Removes the first element equal to probe and returns the stored one, or null. */
VOKT_API void *Vector_Remove(Vector *v, void *probe);
/** Removes the slots holding obj itself; obj when any was removed, else null. */
VOKT_API void *Vector_RemoveIdentical(Vector *v, void *obj);
/** 1 when an element equals probe (Equals, or byte comparison), else 0. */
VOKT_API int32_t Vector_Contains(Vector *v, void *probe);
/** Sorts (qsort, not stable) with the Compare slot of the element at index 0; reports an
 *  element without one. */
VOKT_API void Vector_Sort(Vector *v);
/** Empties the vector, destroying the elements when it owns them. */
VOKT_API void Vector_Clear(Vector *v);
/** Sets ownership. On a synchronised vector the caller keeps its lock held twice. */
VOKT_API void Vector_SetOwnsElements(Vector *v, int32_t flag);
/** Clears (destroying owned elements) and frees the vector. */
VOKT_API void Vector_Free(Vector *v);

#ifndef VOKT_BUILDING
/** (extension) Vector_GetAt for programs: the common case (an unsynchronised vector and an index inside
 *  it) is read in place, like GLib's g_ptr_array_index; anything else calls the exported
 *  Vector_GetAt, with its reports and its lock. Each argument is evaluated once. */
static inline void *Vector_GetAtInline(Vector *v, int64_t index) {
    if (v && !v->bSynchronized && v->data && (uint64_t)index < (uint64_t)v->size) return v->data[index];
    return (Vector_GetAt)(v, index);
}
/** (extension) Vector_Add for programs: while an unsynchronised vector has a free slot (below
 *  both capacity and the slots really allocated, which the hidden word before data[0] holds), the
 *  element is stored in place; growth, the lock and every report are the exported Vector_Add's.
 *  Each argument is evaluated once. */
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
