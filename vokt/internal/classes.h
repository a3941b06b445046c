// SPDX-License-Identifier: MIT
// Private: descriptors that other modules reference directly.
#ifndef VOKT_INTERNAL_CLASSES_H
#define VOKT_INTERNAL_CLASSES_H

#include "vokt/containers/objectset.h"
#include "vokt/containers/vector.h"
#include "vokt/core/object.h"

namespace vokt {
extern const ClassDescriptor kStringClass;
extern const VectorDescriptor kVectorClass;
extern const ObjectSetDescriptor kObjectSetClass;

inline const VectorDescriptor *VectorSlots(const Vector *v) {
    return reinterpret_cast<const VectorDescriptor *>(v->ftbl);
}

// How other modules read a Vector they walk: a synchronised one through Vector_Length and
// its GetAt slot (each read under its lock), an unsynchronised one directly. Whether it is
// synchronised is read once, when the walk starts.
class VectorReader {
public:
    explicit VectorReader(Vector *v) : v_(v), locked_(v->bSynchronized != 0) {}
    int64_t Length() const { return locked_ ? Vector_Length(v_) : v_->size; }
    void *At(int64_t index) const { return locked_ ? VectorSlots(v_)->GetAt(v_, index) : v_->data[index]; }

private:
    Vector *v_;
    bool locked_;
};
}  // namespace vokt

#endif
