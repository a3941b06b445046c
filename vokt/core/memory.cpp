// SPDX-License-Identifier: MIT
// The allocation layer: every byte the runtime holds passes through these three calls,
// so that a program (or a test) can watch or fail any single allocation.
#include "vokt/core/memory.h"

#include <stdlib.h>

#include "vokt/internal/alloc.h"

namespace vokt {
MemoryFunctions g_memory = {malloc, realloc, free};
}
using vokt::g_memory;

extern "C" {

void Memory_SetFunctions(const MemoryFunctions *functions) {
    // Objects held back after their destruction go to the allocator that made them.
    if (vokt::Checking(vokt::kRecorded)) vokt::ReleaseQuarantined();
    if (functions && functions->Malloc && functions->Realloc && functions->Free)
        g_memory = *functions;
    else
        g_memory = MemoryFunctions{malloc, realloc, free};
}

void Memory_GetFunctions(MemoryFunctions *out) {
    if (out) *out = g_memory;
}

}  // extern "C"
