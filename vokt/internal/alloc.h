// SPDX-License-Identifier: MIT
// Private: the allocation layer as the runtime's modules use it.
#ifndef VOKT_INTERNAL_ALLOC_H
#define VOKT_INTERNAL_ALLOC_H

#include <stddef.h>

#include "vokt/core/object.h"

#include "vokt/core/memory.h"

namespace vokt {

// The functions every allocation goes through (the C library's unless a program set its
// own). Read inline, so that an allocation costs one indirect call and no more.
extern MemoryFunctions g_memory;

inline void *Alloc(size_t size) { return g_memory.Malloc(size); }
inline void *Realloc(void *block, size_t size) { return g_memory.Realloc(block, size); }
inline void Free(void *block) {
    if (block) g_memory.Free(block);
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
