/* vokt: Vector, the growable (optionally owning, optionally synchronised) object array. */
#ifndef VOKT_CONTAINERS_VECTOR_H
#define VOKT_CONTAINERS_VECTOR_H

#include <stdint.h>

#include "vokt/core/object.h"
#include "vokt/sync/vokt_sync.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct Vector {
    const ClassDescriptor *ftbl;
    int64_t size;
    int64_t capacity;
    int64_t growBy;
    int32_t bSynchronized;
    Mutex *mutex;
    int32_t bOwnsElements;
    Object **data;
} Vector;

typedef struct VectorDescriptor {
    ClassDescriptor base;
    void *(*GetAt)(Vector *v, int64_t index);            /* slot 6  */
    void (*SetAt)(Vector *v, int64_t index, void *obj); /* slot 7  */
    void *(*Add)(Vector *v, void *obj);                  /* slot 8  */
    int32_t (*AddAll)(Vector *target, Vector *source);   /* slot 9  */
    void *(*Remove)(Vector *v, void *probe);             /* slot 10 */
    void *(*RemoveAt)(Vector *v, int64_t index);         /* slot 11 */
    void *(*RemoveIdentical)(Vector *v, void *obj);      /* slot 12 */
    int32_t (*Contains)(Vector *v, void *probe);         /* slot 13 */
} VectorDescriptor;

/* New empty, non-owning, unsynchronised vector (capacity 10, growth 10), or null. */
VOKT_API Vector *Vector_New(void);
/* As Vector_New, but Vector_Clear and Vector_Free destroy the elements. */
VOKT_API Vector *Vector_NewOwning(void);
/* Switches the per-vector recursive lock on or off: 0, or -2 when it cannot be made. */
VOKT_API int32_t Vector_SetSynchronized(Vector *v, int32_t flag);
/* Holds a synchronised vector's lock across several operations. */
VOKT_API void Vector_Lock(Vector *v);
VOKT_API void Vector_Unlock(Vector *v);
VOKT_API int64_t Vector_Length(Vector *v);
/* Element at index (borrowed), or null for an index outside the vector. */
VOKT_API void *Vector_GetAt(Vector *v, int64_t index);
/* Overwrites a slot; the old element is never destroyed. */
VOKT_API void Vector_SetAt(Vector *v, int64_t index, void *obj);
/* Appends obj and returns it; null when growth failed. */
VOKT_API void *Vector_Add(Vector *v, void *obj);
/* Appends every element of source (locked first) to target: 0, or -2. */
VOKT_API int32_t Vector_AddAll(Vector *target, Vector *source);
/* Removes and returns the element at index; removal never destroys. */
VOKT_API void *Vector_RemoveAt(Vector *v, int64_t index);
/* Removes the first element equal to probe and returns the stored one, or null. */
VOKT_API void *Vector_Remove(Vector *v, void *probe);
/* Removes the slots holding obj itself; obj when any was removed, else null. */
VOKT_API void *Vector_RemoveIdentical(Vector *v, void *obj);
/* 1 when an element equals probe (Equals, or byte comparison), else 0. */
VOKT_API int32_t Vector_Contains(Vector *v, void *probe);
/* Sorts with the Compare slot of the element at index 0. */
VOKT_API void Vector_Sort(Vector *v);
/* Empties the vector, destroying the elements when it owns them. */
VOKT_API void Vector_Clear(Vector *v);
/* Sets ownership. On a synchronised vector the caller keeps its lock held twice. */
VOKT_API void Vector_SetOwnsElements(Vector *v, int32_t flag);
/* Clears (destroying owned elements) and frees the vector. */
VOKT_API void Vector_Free(Vector *v);

#ifdef __cplusplus
}
#endif
#endif
