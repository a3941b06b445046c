/* vokt: ObjectSet, a hashed set of object pointers (separate chaining, never owning). */
#ifndef VOKT_CONTAINERS_OBJECTSET_H
#define VOKT_CONTAINERS_OBJECTSET_H

#include <stdint.h>

#include "vokt/containers/vector.h"
#include "vokt/core/object.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ObjectSetEntry {
    void *object;
    struct ObjectSetEntry *next;
} ObjectSetEntry;

typedef struct ObjectSet {
    const ClassDescriptor *ftbl;
    int32_t bucketCount;
    int32_t usedBuckets;
    ObjectSetEntry **buckets;
    int32_t rehashThreshold;
    double loadFactor;
} ObjectSet;

typedef struct ObjectSetDescriptor {
    ClassDescriptor base;
    int32_t (*Add)(ObjectSet *set, void *obj, int32_t *added); /* slot 6  */
    void *(*Remove)(ObjectSet *set, void *probe);              /* slot 7  */
    void *(*Find)(ObjectSet *set, void *probe);                /* slot 8  */
    int32_t (*AddVector)(ObjectSet *set, Vector *vector);      /* slot 9  */
    int32_t (*ToVector)(ObjectSet *set, Vector *vector);       /* slot 10 */
    void (*Clear)(ObjectSet *set);                             /* slot 11 */
    void *(*RemoveAny)(ObjectSet *set);                        /* slot 12 */
} ObjectSetDescriptor;

/* New empty set of 8 buckets, or null. Stored classes must fill the Hash slot. */
VOKT_API ObjectSet *ObjectSet_New(void);
/* Stores obj unless an equal object is there (*added, when given, says which):
 * 0, or -2 when the entry could not be allocated. */
VOKT_API int32_t ObjectSet_Add(ObjectSet *set, void *obj, int32_t *added);
/* The stored object equal to probe (borrowed), or null. */
VOKT_API void *ObjectSet_Find(ObjectSet *set, void *probe);
/* Removes and returns the stored object equal to probe, or null. */
VOKT_API void *ObjectSet_Remove(ObjectSet *set, void *probe);
/* Removes and returns an object of the lowest non-empty bucket; null when empty. */
VOKT_API void *ObjectSet_RemoveAny(ObjectSet *set);
/* Adds every element of vector (stopping at a failure); always 0. */
VOKT_API int32_t ObjectSet_AddVector(ObjectSet *set, Vector *vector);
/* Appends every stored object to vector in bucket order: 0, or -2. */
VOKT_API int32_t ObjectSet_ToVector(ObjectSet *set, Vector *vector);
/* Forgets every object (the objects themselves are untouched). */
VOKT_API void ObjectSet_Clear(ObjectSet *set);
/* Frees the set; stored objects are not destroyed. */
VOKT_API void ObjectSet_Free(ObjectSet *set);

#ifdef __cplusplus
}
#endif
#endif
