/* vokt: MemBlock, one raw resizable byte buffer with the object shape. */
#ifndef VOKT_CORE_MEMBLOCK_H
#define VOKT_CORE_MEMBLOCK_H

#include <stddef.h>

#include "vokt/core/object.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct MemBlock {
    const ClassDescriptor *ftbl;
    void *data;
} MemBlock;

/* New block of size bytes. Null when the record cannot be allocated; a record with a
 * null data (and a log line) when only the buffer failed, so callers test data. */
VOKT_API MemBlock *MemBlock_New(size_t size);
/* Resizes to exactly size bytes: 0, or an error reference (code 999) with the old
 * buffer kept. */
VOKT_API int32_t MemBlock_Resize(MemBlock *mem, size_t size);
/* Frees the buffer and the block. */
VOKT_API void MemBlock_Free(MemBlock *mem);

#ifdef __cplusplus
}
#endif
#endif
