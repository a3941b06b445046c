// SPDX-License-Identifier: MIT
// Private: the allocation layer as the runtime's modules use it.
#ifndef VOKT_INTERNAL_ALLOC_H
#define VOKT_INTERNAL_ALLOC_H

#include <stddef.h>

#include "vokt/core/object.h"

#include "vokt/core/memory.h"
#include "vokt/internal/checks.h"

namespace vokt {

// The functions every allocation goes through (the C library's unless a program set its
// own). Read inline, so that an allocation costs one indirect call and no more, plus one
// branch for the checks that keep records of blocks.
extern MemoryFunctions g_memory;

inline void *Alloc(size_t size) {
    if (Checking(kCheckLeaks | kCheckObjects)) return RecordedAlloc(size, nullptr);
    return g_memory.Malloc(size);
}
inline void *Realloc(void *block, size_t size) {
    if (Checking(kCheckLeaks | kCheckObjects | kRecorded)) return RecordedRealloc(block, size);
    return g_memory.Realloc(block, size);
}
inline void Free(void *block) {
    if (!block) return;
    if (Checking(kRecorded)) return RecordedFree(block);
    g_memory.Free(block);
}

// One zero-filled object of the class with ftbl set. On failure logs
// "Unable to allocate <what>" at level 0 (what is "<Class> <variable>") and returns null.
void *NewObject(const ClassDescriptor *cls, const char *what);

template <typename T>
T *New(const ClassDescriptor *cls, const char *what) {
    return static_cast<T *>(NewObject(cls, what));
}

}  // namespace vokt

#endif
