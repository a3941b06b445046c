// SPDX-License-Identifier: MIT
/** @file
 * MemBlock, one raw resizable byte buffer with the object shape.
 *
 * @par Example
 * @include reference/memblock.c
 */
#ifndef VOKT_CORE_MEMBLOCK_H
#define VOKT_CORE_MEMBLOCK_H

#include <stddef.h>

#include "vokt/core/object.h"

#ifdef __cplusplus
extern "C" {
#endif

/** One raw buffer, resized to exactly the size asked for. The block keeps no length: the
 *  holder knows what it asked for. One thread at a time. */
typedef struct MemBlock {
    const ClassDescriptor *ftbl; /**< The MemBlock descriptor. */
    void *data; /**< The buffer, owned by the block; may be null. */
} MemBlock;

/** Makes a block with a buffer of size bytes (uninitialised).
 * @param size The buffer's size; 0 gives whatever malloc(0) gives, without a message.
 * @return The new block, owned by the caller (MemBlock_Free()); null when the record cannot
 *         be allocated ("Unable to allocate MemBlock mem" in the log). When only the buffer
 *         failed, the block comes back with a null data (and "Failed to allocate block of %d
 *         bytes" in the log): test data before use. */
VOKT_API MemBlock *MemBlock_New(size_t size);
/** Resizes the buffer to exactly size bytes, keeping its contents up to the smaller size.
 * @param mem The block.
 * @param size The new size.
 * @return 0; -1 for a null mem (reported: "mem!=NULL"); or, when memory ran out, an error reference to an internal Error (code 999,
 *         "Memory re-allocation of size %d failed"; -2 when even that cannot be made), with
 *         the old buffer kept. The caller takes and frees that Error (ErrorStore_Take()). */
VOKT_API int32_t MemBlock_Resize(MemBlock *mem, size_t size);
/** Frees the buffer and the block (the class's Destroy slot).
 * @param mem The block, dead afterwards; null is reported ("mem!=NULL") and ignored. */
VOKT_API void MemBlock_Free(MemBlock *mem);

#ifdef __cplusplus
}
#endif
#endif
