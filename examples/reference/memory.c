// SPDX-License-Identifier: MIT
/* The allocation layer: every byte the runtime holds passes through three functions. */
#include <stdio.h>
#include <stdlib.h>

#include "vokt/vokt.h"

static long blocks;

static void *CountingMalloc(size_t size) {
    void *p = malloc(size);
    if (p) blocks++;
    return p;
}
static void *CountingRealloc(void *block, size_t size) {
    void *p = realloc(block, size);
    if (p && !block) blocks++;
    return p;
}
static void CountingFree(void *block) {
    blocks--;
    free(block);
}

int main(void) {
    /* Before start-up, while no runtime object is alive. */
    const MemoryFunctions counting = {CountingMalloc, CountingRealloc, CountingFree};
    Memory_SetFunctions(&counting);
    Runtime_Init();

    String *s = String_NewFromChars("hello");
    String_AppendChars(s, ", world");
    printf("%s: %ld blocks held\n", s->string, blocks); /* the record and its text */
    String_Destroy(s);
    printf("after String_Destroy: %ld blocks held\n", blocks);

    Memory_SetFunctions(NULL); /* the C library's again */
    return blocks == 0 ? 0 : 1;
}
