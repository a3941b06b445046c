// SPDX-License-Identifier: MIT
/** @file
 * The one allocation layer through which the whole runtime allocates.
 */
#ifndef VOKT_CORE_MEMORY_H
#define VOKT_CORE_MEMORY_H

#include <stddef.h>

#include "vokt/core/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The allocator every runtime allocation goes through; the C library's by default. */
typedef struct MemoryFunctions {
    void *(*Malloc)(size_t size); /**< As malloc: a block, or null. */
    void *(*Realloc)(void *block, size_t size); /**< As realloc: the block keeps its contents. */
    void (*Free)(void *block); /**< As free; never called with null. */
} MemoryFunctions;

/** Replaces the allocator used by every runtime allocation; NULL (or a record with a
 * null member) restores the C library's. Call it while no runtime object is alive. */
VOKT_API void Memory_SetFunctions(const MemoryFunctions *functions);
/** Copies the allocator in force into *out; a null out is ignored. */
VOKT_API void Memory_GetFunctions(MemoryFunctions *out);

#ifdef __cplusplus
}
#endif
#endif
