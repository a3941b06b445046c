// SPDX-License-Identifier: MIT
/** @file
 * The one allocation layer through which the whole runtime allocates.
 *
 * @par Example
 * @include reference/memory.c
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

/** Replaces the allocator used by every allocation of the runtime.
 * @param functions The three functions, copied; null, or a record with any member null,
 *        restores the C library's malloc, realloc and free.
 * @note Call it before Runtime_Init() and while no runtime object is alive: a block must be
 *       released by the allocator that made it. Not thread-safe. */
VOKT_API void Memory_SetFunctions(const MemoryFunctions *functions);
/** Tells which allocator is in force.
 * @param out Receives the three functions; a null out is ignored. */
VOKT_API void Memory_GetFunctions(MemoryFunctions *out);

#ifdef __cplusplus
}
#endif
#endif
