// SPDX-License-Identifier: MIT
/** @file
 * ObjectSet, a hashed set of object pointers (separate chaining, never owning).
 *
 * @par Example
 * @include reference/objectset.c
 */
#ifndef VOKT_CONTAINERS_OBJECTSET_H
#define VOKT_CONTAINERS_OBJECTSET_H

#include <stdint.h>

#include "vokt/containers/vector.h"
#include "vokt/core/object.h"

#ifdef __cplusplus
extern "C" {
#endif

/** One stored object in a bucket's chain; made and freed by the set. */
typedef struct ObjectSetEntry {
    void *object; /**< The stored object (not owned). */
    struct ObjectSetEntry *next; /**< The next entry of the bucket, or null. */
} ObjectSetEntry;

/** A hashed set of object pointers with separate chaining, keyed by the objects' Hash and
 *  Equals slots (byte comparison for a class without Equals). It never owns its objects, grows
 *  when the number of occupied buckets reaches rehashThreshold, and never shrinks. No lock: one
 *  thread at a time. */
typedef struct ObjectSet {
    const ClassDescriptor *ftbl; /**< The set's descriptor (an ObjectSetDescriptor, name "Set"). */
    int32_t bucketCount; /**< Number of buckets: 8, doubled by each rehash, at most 2^30. */
    int32_t usedBuckets; /**< Number of non-empty buckets (not of objects). */
    ObjectSetEntry **buckets; /**< The chain heads. */
    int32_t rehashThreshold; /**< usedBuckets at which the set grows: bucketCount * loadFactor. */
    double loadFactor; /**< 0.75. */
} ObjectSet;

/** The ObjectSet class descriptor: the generic slots, then the set's operations. */
typedef struct ObjectSetDescriptor {
    ClassDescriptor base; /**< The generic slots (Destroy is ObjectSet_Free). */
    int32_t (*Add)(ObjectSet *set, void *obj, int32_t *added); /**< Slot 6: ObjectSet_Add. */
    void *(*Remove)(ObjectSet *set, void *probe); /**< Slot 7: ObjectSet_Remove. */
    void *(*Find)(ObjectSet *set, void *probe); /**< Slot 8: ObjectSet_Find. */
    int32_t (*AddVector)(ObjectSet *set, Vector *vector); /**< Slot 9: ObjectSet_AddVector. */
    int32_t (*ToVector)(ObjectSet *set, Vector *vector); /**< Slot 10: ObjectSet_ToVector. */
    void (*Clear)(ObjectSet *set); /**< Slot 11: ObjectSet_Clear. */
    void *(*RemoveAny)(ObjectSet *set); /**< Slot 12: ObjectSet_RemoveAny. */
} ObjectSetDescriptor;

/** Makes an empty set of 8 buckets.
 * @return The set, owned by the caller (ObjectSet_Free()); null when memory ran out ("Unable
 *         to allocate ObjectSet oset" when the record failed; no message for its buckets).
 * @note Every class stored must fill its descriptor's Hash slot. */
VOKT_API ObjectSet *ObjectSet_New(void);
/** Stores obj unless an equal object is stored already (by obj's class Equals, or byte for
 *  byte over its size for a class without one). Grows (doubling the buckets) once the number of
 *  occupied buckets reaches rehashThreshold; a growth that fails is reported in the log and
 *  tried again at the next call.
 * @param set The set.
 * @param obj The object (not owned by the set).
 * @param added Null, or receives 1 when obj was stored and 0 when an equal one was there.
 * @return 0 (stored, or already there); -2 when the entry could not be allocated; -1 for a
 *         null set or obj, or an object whose class has no Hash (reported, nothing stored). */
VOKT_API int32_t ObjectSet_Add(ObjectSet *set, void *obj, int32_t *added);
/** Looks up an object equal to probe.
 * @param set The set.
 * @param probe What to look for (hashed and compared as ObjectSet_Add() does).
 * @return The stored object (borrowed), or null: none equal, a null probe, or a probe whose
 *         class has no Hash (reported). */
VOKT_API void *ObjectSet_Find(ObjectSet *set, void *probe);
/** Removes the stored object equal to probe.
 * @param set The set.
 * @param probe What to look for.
 * @return The removed object (never destroyed), or null as for ObjectSet_Find(). */
VOKT_API void *ObjectSet_Remove(ObjectSet *set, void *probe);
/** Removes some object: the first of the lowest non-empty bucket.
 * @param set The set.
 * @return The removed object, or null when the set is empty. Calling it until null drains the
 *         set. */
VOKT_API void *ObjectSet_RemoveAny(ObjectSet *set);
/** Adds every element of vector, as ObjectSet_Add() does, stopping at the first that fails.
 * @param set The set.
 * @param vector The elements; a synchronised vector is read under its lock.
 * @return 0, even when an element failed (the copy then stops there); -1 for a null argument. */
VOKT_API int32_t ObjectSet_AddVector(ObjectSet *set, Vector *vector);
/** Appends every stored object to vector, bucket by bucket.
 * @param set The set.
 * @param vector The vector that grows (appended through its descriptor's Add slot).
 * @return 0; -2 when an append failed (the objects appended before it stay); -1 for a null
 *         argument. */
VOKT_API int32_t ObjectSet_ToVector(ObjectSet *set, Vector *vector);
/** Forgets every object; the objects themselves are untouched, the buckets stay.
 * @param set The set. */
VOKT_API void ObjectSet_Clear(ObjectSet *set);
/** Frees the set (the class's Destroy slot); the stored objects are not destroyed.
 * @param set The set, dead afterwards. */
VOKT_API void ObjectSet_Free(ObjectSet *set);

#ifdef __cplusplus
}
#endif
#endif
