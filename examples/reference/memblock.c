// SPDX-License-Identifier: MIT
/* MemBlock: a raw buffer with the object shape, resized to exactly the size asked for. */
#include <stdio.h>
#include <string.h>

#include "vokt/vokt.h"

int main(void) {
    Runtime_Init();
    MemBlock *block = MemBlock_New(6);
    if (!block || !block->data) return 1; /* the record may come without its buffer */
    memcpy(block->data, "bytes", 6);

    int32_t result = MemBlock_Resize(block, 4096);
    if (ErrorStore_IsError(result)) { /* the old buffer is kept */
        Error *e = ErrorStore_Take(result);
        fprintf(stderr, "%s\n", e->message->string);
        Error_Free(e);
    }
    printf("%s, in a block resized to 4096 bytes\n", (char *)block->data);
    MemBlock_Free(block);
    return result == 0 ? 0 : 1;
}
