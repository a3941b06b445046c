/* vokt: class descriptors, the object header, EventObject and the start-up routine. */
#ifndef VOKT_CORE_OBJECT_H
#define VOKT_CORE_OBJECT_H

#include <stdint.h>

#include "vokt/core/api.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ClassDescriptor {
    uint64_t size; /* whole record, ftbl included */
    const char *name;
    void (*Destroy)(void *object);
    int32_t (*Equals)(const void *probe, const void *stored);
    int (*Compare)(const void *pa, const void *pb); /* qsort convention */
    int32_t (*Hash)(const void *object);
} ClassDescriptor;

typedef struct Object {
    const ClassDescriptor *ftbl;
} Object;

typedef struct EventObject {
    const ClassDescriptor *ftbl;
    uint64_t value;
} EventObject;

/* New EventObject wrapping value; null (and a level-0 log line) when out of memory. */
VOKT_API EventObject *EventObject_New(uint64_t value);
/* 1 when both wrap the same value, else 0. */
VOKT_API int32_t EventObject_Equals(const EventObject *a, const EventObject *b);
/* (extension) Destroys any runtime object through its descriptor; NULL is ignored. */
VOKT_API void Object_Destroy(void *object);
/* (extension) The version of the library actually loaded, as VOKT_VERSION_NUMBER and
 * VOKT_VERSION_STRING give it for the headers a program was built with. */
VOKT_API int32_t Runtime_VersionNumber(void);
VOKT_API const char *Runtime_VersionString(void);
/* Start-up routine: initialises the error-store and log mutexes and seeds rand(). It runs
 * once per process: later calls, from any thread, wait for the first to finish and then
 * do nothing. */
VOKT_API void Runtime_Init(void);

#ifdef __cplusplus
}
#endif
#endif
