// SPDX-License-Identifier: MIT
/** @file
 * ObjectSet, a hashed set of object pointers (separate chaining, never owning).
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

/** New empty set of 8 buckets, or null. Stored classes must fill the Hash slot. */
VOKT_API ObjectSet *ObjectSet_New(void);
/** Stores obj unless an equal object is there (*added, when given, says which):
 * 0, or -2 when the entry could not be allocated. An object whose class has no Hash cannot
 * be placed: it is reported and refused with -1 (Find and Remove give null for it). */
VOKT_API int32_t ObjectSet_Add(ObjectSet *set, void *obj, int32_t *added);
/** The stored object equal to probe (borrowed), or null. */
VOKT_API void *ObjectSet_Find(ObjectSet *set, void *probe);
/** Removes and returns the stored object equal to probe, or null. */
VOKT_API void *ObjectSet_Remove(ObjectSet *set, void *probe);
/** Removes and returns an object of the lowest non-empty bucket; null when empty. */
VOKT_API void *ObjectSet_RemoveAny(ObjectSet *set);
/** Adds every element of vector (stopping at a failure); always 0. */
VOKT_API int32_t ObjectSet_AddVector(ObjectSet *set, Vector *vector);
/** Appends every stored object to vector in bucket order: 0, or -2. */
VOKT_API int32_t ObjectSet_ToVector(ObjectSet *set, Vector *vector);
/** Forgets every object (the objects themselves are untouched). */
VOKT_API void ObjectSet_Clear(ObjectSet *set);
/** Frees the set; stored objects are not destroyed. */
VOKT_API void ObjectSet_Free(ObjectSet *set);

#ifdef __cplusplus
}
#endif
#endif
