// SPDX-License-Identifier: MIT
// Private: how containers decide that a probe matches a stored object.
#ifndef VOKT_INTERNAL_EQUALITY_H
#define VOKT_INTERNAL_EQUALITY_H

#include <string.h>

#include "vokt/core/object.h"
#include "vokt/internal/hooks.h"

namespace vokt {

// The probe's Equals when its class has one; otherwise the bytes of the two objects over
// the probe's size. Bytes are compared only between objects of one class: the descriptor
// is the first word, so objects of two classes never match anyway, and a smaller stored
// object is never read past its end.
inline bool Matches(const Object *probe, const Object *stored) {
    if (IsDestroyed(stored)) return false;
    const ClassDescriptor *cls = probe->ftbl;
    if (cls->Equals) return cls->Equals(probe, stored) != 0;
    return stored && stored->ftbl == cls && memcmp(probe, stored, cls->size) == 0;
}

}  // namespace vokt

#endif
