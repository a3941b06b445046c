// Private: the allocation layer as the runtime's modules use it.
#ifndef VOKT_INTERNAL_ALLOC_H
#define VOKT_INTERNAL_ALLOC_H

#include <stddef.h>

#include "vokt/core/object.h"

namespace vokt {

void *Alloc(size_t size);
void *Realloc(void *block, size_t size);
void Free(void *block);

// One zero-filled object of the class with ftbl set. On failure logs
// "Unable to allocate <what>" at level 0 (what is "<Class> <variable>") and returns null.
void *NewObject(const ClassDescriptor *cls, const char *what);

template <typename T>
T *New(const ClassDescriptor *cls, const char *what) {
    return static_cast<T *>(NewObject(cls, what));
}

}  // namespace vokt

#endif
