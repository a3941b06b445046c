/* vokt: the one allocation layer through which the whole runtime allocates. */
#ifndef VOKT_CORE_MEMORY_H
#define VOKT_CORE_MEMORY_H

#include <stddef.h>

#include "vokt/core/api.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct MemoryFunctions {
    void *(*Malloc)(size_t size);
    void *(*Realloc)(void *block, size_t size);
    void (*Free)(void *block);
} MemoryFunctions;

/* Replaces the allocator used by every runtime allocation; NULL (or a record with a
 * null member) restores the C library's. Call it while no runtime object is alive. */
VOKT_API void Memory_SetFunctions(const MemoryFunctions *functions);
/* Copies the allocator in force into *out. */
VOKT_API void Memory_GetFunctions(MemoryFunctions *out);

#ifdef __cplusplus
}
#endif
#endif
