// SPDX-License-Identifier: MIT
/** @file
 * Class descriptors, the object header, EventObject and the start-up routine.
 *
 * Every runtime object is a plain record whose first field, `ftbl`, points at its class's
 * ClassDescriptor; containers destroy, compare, sort and hash objects only through it.
 * Call Runtime_Init() once before anything else (calling it again is harmless).
 *
 * @par Example
 * @include reference/object.c
 */
#ifndef VOKT_CORE_OBJECT_H
#define VOKT_CORE_OBJECT_H

#include <stdint.h>

#include "vokt/core/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/** One static, read-only record per class, shared by every object of the class: containers
 *  destroy, compare, order and hash objects only through it. Never allocated or freed. */
typedef struct ClassDescriptor {
    uint64_t size;    /**< Size in bytes of one object, ftbl included. */
    const char *name; /**< The class name ("Vector", "String", "Set", ...). */
    /** Releases what the object owns and then the object; null for none. */
    void (*Destroy)(void *object);
    /** Nonzero when probe equals stored; searches call the probe's slot. Null: byte or
     *  identity comparison, as each container says. */
    int32_t (*Equals)(const void *probe, const void *stored);
    /** qsort comparator over two element slots (pointers to object pointers); null: the
     *  class cannot be sorted. */
    int (*Compare)(const void *pa, const void *pb);
    /** Signed 32-bit hash; a class stored in an ObjectSet must fill it. */
    int32_t (*Hash)(const void *object);
} ClassDescriptor;

/** The header every object starts with. */
typedef struct Object {
    const ClassDescriptor *ftbl; /**< The object's class descriptor. */
} Object;

/** An opaque 64-bit value wrapped as an object, so that it can be kept in a Vector. Two are
 *  equal when their values are; it has no Hash and no Compare. */
typedef struct EventObject {
    const ClassDescriptor *ftbl; /**< The EventObject descriptor. */
    uint64_t value; /**< The value, chosen by the creator, never interpreted. */
} EventObject;

/** Makes an EventObject wrapping value.
 * @param value Any 64-bit value; it is kept and never interpreted.
 * @return The new object, owned by the caller (destroy it with Object_Destroy()); null when
 *         memory ran out, after the log line "Unable to allocate EventObject rval". */
VOKT_API EventObject *EventObject_New(uint64_t value);
/** Compares two EventObjects by value (the class's Equals slot).
 * @param a The probe.
 * @param b The stored object.
 * @return 1 when both are EventObjects wrapping the same value; 0 otherwise, also when
 *         either is null or of another class. */
VOKT_API int32_t EventObject_Equals(const EventObject *a, const EventObject *b);
/** (extension) Destroys any runtime object through its descriptor's Destroy slot.
 * @param object The object, which is dead afterwards; null, or an object whose class has no
 *        Destroy, is left alone.
 * @note The object belongs to the caller: never destroy one a container still owns. */
VOKT_API void Object_Destroy(void *object);
/** (extension) Makes an object of a program's own class: a zeroed record of cls->size bytes,
 * taken through the allocation layer, with ftbl set to cls. Such objects take part in the
 * checks (vokt/checks/checks.h) as the library's own do: counted under the class's name,
 * held back when destroyed, and a second destruction reported.
 * @param cls The class; its size is at least that of Object, and it outlives its objects.
 * @return The object, owned by the caller; the class's Destroy releases it with Object_Free().
 *         Null when cls is null or too small (an assertion report), or when memory ran out
 *         (after the log line "Unable to allocate <name> object"). */
VOKT_API void *Object_New(const ClassDescriptor *cls);
/** (extension) Releases an object made by Object_New(): for the class's own Destroy, once it
 * has released what the object owns.
 * @param object The object, dead afterwards; null is left alone. */
VOKT_API void Object_Free(void *object);
/** (extension) The version of the library actually loaded.
 * @return major * 10000 + minor * 100 + patch, as VOKT_VERSION_NUMBER gives it for the headers
 *         a program was built with. Any thread. */
VOKT_API int32_t Runtime_VersionNumber(void);
/** (extension) The loaded library's version as text.
 * @return For example "1.2.1": static text, never freed. Any thread. */
VOKT_API const char *Runtime_VersionString(void);
/** The runtime's start-up routine: the error store's and the log's start-up steps, then
 * seeds rand() from the clock.
 * @note It runs once per process: later calls, from any thread, wait for the first to finish
 *       and then do nothing. The log's and the store's mutexes are ready from load and never
 *       initialised again, so logging before start-up is safe. */
VOKT_API void Runtime_Init(void);

#ifdef __cplusplus
}
#endif
#endif
