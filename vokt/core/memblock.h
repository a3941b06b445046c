// SPDX-License-Identifier: MIT
/** @file
 * MemBlock, one raw resizable byte buffer with the object shape.
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

/** New block of size bytes. Null when the record cannot be allocated; a record with a
 * null data (and a log line) when only the buffer failed, so callers test data. */
VOKT_API MemBlock *MemBlock_New(size_t size);
/** Resizes to exactly size bytes: 0, or an error reference (code 999) with the old
 * buffer kept. */
VOKT_API int32_t MemBlock_Resize(MemBlock *mem, size_t size);
/** Frees the buffer and the block; a null mem is reported and ignored. */
VOKT_API void MemBlock_Free(MemBlock *mem);

#ifdef __cplusplus
}
#endif
#endif
