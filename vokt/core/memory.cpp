// The allocation layer: every byte the runtime holds passes through these three calls,
// so that a program (or a test) can watch or fail any single allocation.
#include "vokt/core/memory.h"

#include <stdlib.h>

#include "vokt/internal/alloc.h"

namespace {
MemoryFunctions g_functions = {malloc, realloc, free};
}

extern "C" {

void Memory_SetFunctions(const MemoryFunctions *functions) {
    if (functions && functions->Malloc && functions->Realloc && functions->Free)
        g_functions = *functions;
    else
        g_functions = MemoryFunctions{malloc, realloc, free};
}

void Memory_GetFunctions(MemoryFunctions *out) {
    if (out) *out = g_functions;
}

}  // extern "C"

namespace vokt {

void *Alloc(size_t size) { return g_functions.Malloc(size); }
void *Realloc(void *block, size_t size) { return g_functions.Realloc(block, size); }
void Free(void *block) {
    if (block) g_functions.Free(block);
}

}  // namespace vokt
