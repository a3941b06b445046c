// SPDX-License-Identifier: MIT
// The allocation layer: every byte the runtime holds passes through these three calls,
// so that a program (or a test) can watch or fail any single allocation.
#include "vokt/core/memory.h"

#include <stdlib.h>

#include "vokt/internal/alloc.h"

namespace vokt {
MemoryFunctions g_memory = {malloc, realloc, free};
MemoryFunctions g_program = {malloc, realloc, free};
}  // namespace vokt
using vokt::g_memory;
using vokt::g_program;

extern "C" {

void Memory_SetFunctions(const MemoryFunctions *functions) {
    // Objects held back after their destruction go to the allocator that made them.
    vokt::ReleaseQuarantined();
    const bool recorded = g_memory.Malloc != g_program.Malloc;  // the checks' recorders stay in front
    if (functions && functions->Malloc && functions->Realloc && functions->Free)
        g_program = *functions;
    else
        g_program = MemoryFunctions{malloc, realloc, free};
    if (!recorded) g_memory = g_program;
}

void Memory_GetFunctions(MemoryFunctions *out) {
    if (out) *out = g_program;
}

}  // extern "C"
