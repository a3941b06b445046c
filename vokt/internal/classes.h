// Private: descriptors that other modules reference directly.
#ifndef VOKT_INTERNAL_CLASSES_H
#define VOKT_INTERNAL_CLASSES_H

#include "vokt/containers/vector.h"
#include "vokt/core/object.h"

namespace vokt {
extern const ClassDescriptor kStringClass;
extern const VectorDescriptor kVectorClass;

inline const VectorDescriptor *VectorSlots(const Vector *v) {
    return reinterpret_cast<const VectorDescriptor *>(v->ftbl);
}
}  // namespace vokt

#endif
