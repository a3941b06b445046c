// SPDX-License-Identifier: MIT
// Private: the allocation layer as the runtime's modules use it.
#ifndef VOKT_INTERNAL_ALLOC_H
#define VOKT_INTERNAL_ALLOC_H

#include <stddef.h>
#include <string.h>

#include "vokt/core/object.h"

#include "vokt/core/memory.h"
#include "vokt/internal/hooks.h"

namespace vokt {

// The functions every allocation goes through: the program's (the C library's unless it set
// its own), or, once a check that records blocks has been on, the checks' recorders in
// front of them. Read inline, so that an allocation costs one indirect call and no more;
// each member changes at most once while threads run, hence the relaxed loads.
extern MemoryFunctions g_memory;
// The program's own functions, which the recorders call.
extern MemoryFunctions g_program;

inline void *Alloc(size_t size) { return __atomic_load_n(&g_memory.Malloc, __ATOMIC_RELAXED)(size); }
inline void *Realloc(void *block, size_t size) {
    return __atomic_load_n(&g_memory.Realloc, __ATOMIC_RELAXED)(block, size);
}
inline void Free(void *block) {
    if (block) __atomic_load_n(&g_memory.Free, __ATOMIC_RELAXED)(block);
}

// Memory that owner keeps for itself (see OwnedBy): one test more than Alloc and Realloc
// while no check records blocks.
inline void *AllocFor(const void *owner, size_t size) {
    if (Checking(kCheckLeaks | kCheckObjects)) return ReallocOwned(owner, nullptr, size);
    return Alloc(size);
}


// What NewObject does when the allocation failed: logs "Unable to allocate <what>".
[[gnu::cold]] void *NoObject(const char *what);

// One zero-filled object of the class with ftbl set. On failure logs
// "Unable to allocate <what>" at level 0 (what is "<Class> <variable>") and returns null.
[[gnu::always_inline]] inline void *NewObject(const ClassDescriptor *cls, const char *what) {
    if (Checking(kCheckLeaks | kCheckObjects)) return NewObjectRecorded(cls, what);
    void *object = Alloc(cls->size);
    if (!object) return NoObject(what);
    memset(object, 0, cls->size);
    static_cast<Object *>(object)->ftbl = cls;
    return object;
}

template <typename T>
[[gnu::always_inline]] inline T *New(const ClassDescriptor *cls, const char *what) {
    return static_cast<T *>(NewObject(cls, what));
}

}  // namespace vokt

#endif
