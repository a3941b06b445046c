// SPDX-License-Identifier: MIT
// Vector: a linearly growing array of object pointers, optionally owning its elements
// and optionally guarded by its own recursive mutex.
#include "vokt/containers/vector.h"

#include <stdlib.h>
#include <string.h>

#include "vokt/internal/alloc.h"
#include "vokt/internal/assert.h"
#include "vokt/internal/classes.h"
#include "vokt/internal/equality.h"
#include "vokt/internal/scope.h"

namespace {

constexpr char kModule[] = "vector";
constexpr int64_t kInitialCapacity = 10;

using vokt::VectorGuard;

// Takes slot index out and closes the gap; the caller has checked the index.
void *TakeSlot(Vector *v, int64_t index) {
    Object *taken = v->data[index];
    memmove(v->data + index, v->data + index + 1, static_cast<size_t>(v->size - index - 1) * sizeof(Object *));
    v->size--;
    return taken;
}

// The element array carries one hidden word in front of data[0]: the number of slots
// really allocated. A failed growth leaves capacity raised above that number (a contract
// callers see), and the next Add must not write past the real end.
using Slots = intptr_t;

Slots AllocatedSlots(const Vector *v) { return reinterpret_cast<const Slots *>(v->data)[-1]; }

Object **AllocateSlots(void *old, int64_t count) {
    void *base = old ? static_cast<void *>(static_cast<Slots *>(old) - 1) : nullptr;
    const size_t bytes = static_cast<size_t>(count + 1) * sizeof(Slots);
    auto *block = static_cast<Slots *>(base ? vokt::Realloc(base, bytes) : vokt::Alloc(bytes));
    if (!block) return nullptr;
    block[0] = static_cast<Slots>(count);
    return reinterpret_cast<Object **>(block + 1);
}

void FreeSlots(Object **data) {
    if (data) vokt::Free(reinterpret_cast<Slots *>(data) - 1);
}

[[gnu::noinline]] void *AddChecked(Vector *v, void *obj) {
    VOKT_ASSERT_OR_RETURN(v != NULL, nullptr);
    if (vokt::UsedAfterDestroy(v, &vokt::kVectorClass.base)) return nullptr;
    VectorGuard lock(v);
    VOKT_ASSERT(v->size==0 || v->data != NULL);
    if (v->size == v->capacity) v->capacity += v->growBy;
    if (v->size >= AllocatedSlots(v)) {
        Object **grown = AllocateSlots(v->data, v->capacity);
        if (!grown) {
            // Long-standing failure contract: capacity stays raised, the old array stays,
            // and a synchronised vector's lock stays held by the caller.
            lock.Keep();
            return nullptr;
        }
        v->data = grown;
    }
    v->data[v->size++] = static_cast<Object *>(obj);
    return obj;
}

[[gnu::noinline]] void *GetAtChecked(Vector *v, int64_t index) {
    VOKT_ASSERT_OR_RETURN(v != NULL, nullptr);
    if (vokt::UsedAfterDestroy(v, &vokt::kVectorClass.base)) return nullptr;
    VectorGuard lock(v);
    VOKT_ASSERT(v->size==0 || v->data != NULL);
    VOKT_ASSERT_OR_RETURN(index < v->size, nullptr);
    if (index < 0) return nullptr;
    return v->data[index];
}

Vector *NewVector(int32_t owning) {
    auto *vec = vokt::New<Vector>(&vokt::kVectorClass.base, "ObjectVector vec");
    if (!vec) return nullptr;
    vec->capacity = kInitialCapacity;
    vec->growBy = kInitialCapacity;
    vec->bOwnsElements = owning;
    vokt::OwnedBy mine(vec);
    vec->data = AllocateSlots(nullptr, kInitialCapacity);
    if (!vec->data) {
        // No message for the array: only the record's failure is reported.
        vokt::Free(vec);
        return nullptr;
    }
    return vec;
}

}  // namespace

namespace vokt {
const VectorDescriptor kVectorClass = {
    {sizeof(Vector), "Vector", +[](void *o) { Vector_Free(static_cast<Vector *>(o)); }, nullptr, nullptr, nullptr},
    Vector_GetAt,
    Vector_SetAt,
    Vector_Add,
    Vector_AddAll,
    Vector_Remove,
    Vector_RemoveAt,
    Vector_RemoveIdentical,
    Vector_Contains,
};
}  // namespace vokt

extern "C" {

Vector *Vector_New(void) { return NewVector(0); }

Vector *Vector_NewOwning(void) { return NewVector(1); }

int32_t Vector_SetSynchronized(Vector *v, int32_t flag) {
    VOKT_ASSERT_OR_RETURN(v != NULL, -1);
    if (vokt::UsedAfterDestroy(v, &vokt::kVectorClass.base)) return -1;
    v->bSynchronized = flag;
    vokt::OwnedBy mine(v);
    if (flag && !v->mutex) {
        v->mutex = static_cast<Mutex *>(vokt::Alloc(sizeof(Mutex)));
        if (!v->mutex) {
            v->bSynchronized = 0;
            return -2;
        }
        Mutex_Init(v->mutex);
    }
    return 0;
}

void Vector_Lock(Vector *v) {
    VOKT_ASSERT_OR_RETURN(v != NULL);
    if (vokt::UsedAfterDestroy(v, &vokt::kVectorClass.base)) return;
    VOKT_ASSERT(v->bSynchronized);
    if (v->bSynchronized) Mutex_Lock(v->mutex);
}

void Vector_Unlock(Vector *v) {
    VOKT_ASSERT_OR_RETURN(v != NULL);
    if (vokt::UsedAfterDestroy(v, &vokt::kVectorClass.base)) return;
    VOKT_ASSERT(v->bSynchronized);
    if (v->bSynchronized) Mutex_Unlock(v->mutex);
}

int64_t Vector_Length(Vector *v) {
    VOKT_ASSERT_OR_RETURN(v != NULL, 0);
    if (vokt::UsedAfterDestroy(v, &vokt::kVectorClass.base)) return 0;
    VectorGuard lock(v);
    return v->size;
}

void *Vector_GetAt(Vector *v, int64_t index) {
    // The common case in a few instructions; everything else (null, out of range, locked)
    // takes the checking path with its reports.
    if (v && !v->bSynchronized && v->data && static_cast<uint64_t>(index) < static_cast<uint64_t>(v->size))
        return v->data[index];
    if (v && v->bSynchronized && v->mutex) {
        // The same under the vector's lock; an index it does not prove inside goes to the
        // checking path, which takes the lock again and reports.
        Mutex *lock = v->mutex;
        vokt::Lock(lock);
        const bool inside = v->data && static_cast<uint64_t>(index) < static_cast<uint64_t>(v->size);
        void *found = inside ? v->data[index] : nullptr;
        vokt::Unlock(lock);
        if (inside) return found;
    }
    return GetAtChecked(v, index);
}

void Vector_SetAt(Vector *v, int64_t index, void *obj) {
    VOKT_ASSERT_OR_RETURN(v != NULL);
    if (vokt::UsedAfterDestroy(v, &vokt::kVectorClass.base)) return;
    VectorGuard lock(v);
    VOKT_ASSERT(v->size==0 || v->data != NULL);
    VOKT_ASSERT_OR_RETURN(index < v->size);
    if (index < 0) return;
    v->data[index] = static_cast<Object *>(obj);
}

void *Vector_Add(Vector *v, void *obj) {
    // Room in an unsynchronised vector: store at once. Growth, locks and reports take the
    // checking path.
    if (v && !v->bSynchronized && v->data && v->size < v->capacity && v->size < AllocatedSlots(v)) {
        v->data[v->size++] = static_cast<Object *>(obj);
        return obj;
    }
    return AddChecked(v, obj);
}


int32_t Vector_AddAll(Vector *target, Vector *source) {
    VOKT_ASSERT_OR_RETURN(target != NULL && source != NULL, -1);
    if (vokt::UsedAfterDestroy(target, &vokt::kVectorClass.base) || vokt::UsedAfterDestroy(source, &vokt::kVectorClass.base)) return -1;
    // Source before target: the order callers have always depended on.
    VectorGuard sourceLock(source);
    VectorGuard targetLock(target);
    const auto add = vokt::VectorSlots(target)->Add;
    // Copying a vector into itself stops at its original length instead of chasing
    // its own tail.
    const int64_t count = source->size;
    for (int64_t i = 0; i < count; i++) {
        // A null element comes back as null and ends the copy, as it always has.
        if (!add(target, source->data[i])) return -2;
    }
    return 0;
}

void *Vector_RemoveAt(Vector *v, int64_t index) {
    VOKT_ASSERT_OR_RETURN(v != NULL, nullptr);
    if (vokt::UsedAfterDestroy(v, &vokt::kVectorClass.base)) return nullptr;
    VectorGuard lock(v);
    VOKT_ASSERT(v->size==0 || v->data != NULL);
    VOKT_ASSERT_OR_RETURN(0 <= index && index < v->size, nullptr);
    return TakeSlot(v, index);
}

void *Vector_Remove(Vector *v, void *probe) {
    VOKT_ASSERT_OR_RETURN(v != NULL, nullptr);
    if (vokt::UsedAfterDestroy(v, &vokt::kVectorClass.base)) return nullptr;
    VectorGuard lock(v);
    if (v->size < 1) return nullptr;
    const auto *p = static_cast<const Object *>(probe);
    const auto equals = p ? p->ftbl->Equals : nullptr;
    for (int64_t i = 0; i < v->size; i++) {
        Object *element = v->data[i];
        if (element == p || (equals && equals(p, element))) return TakeSlot(v, i);
    }
    return nullptr;
}

void *Vector_RemoveIdentical(Vector *v, void *obj) {
    VOKT_ASSERT_OR_RETURN(v != NULL, nullptr);
    if (vokt::UsedAfterDestroy(v, &vokt::kVectorClass.base)) return nullptr;
    VectorGuard lock(v);
    bool removed = false;
    // The slot refilled from above is not looked at again, so of two adjacent copies
    // the second survives one call.
    for (int64_t i = 0; i < v->size; i++) {
        if (v->data[i] == obj) {
            TakeSlot(v, i);
            removed = true;
        }
    }
    return removed ? obj : nullptr;
}

int32_t Vector_Contains(Vector *v, void *probe) {
    VOKT_ASSERT_OR_RETURN(v != NULL, 0);
    if (vokt::UsedAfterDestroy(v, &vokt::kVectorClass.base)) return 0;
    if (!probe) return 0;
    VectorGuard lock(v);
    const auto *p = static_cast<const Object *>(probe);
    for (int64_t i = 0; i < v->size; i++)
        if (vokt::Matches(p, v->data[i])) return 1;
    return 0;
}

void Vector_Sort(Vector *v) {
    VOKT_ASSERT_OR_RETURN(v != NULL);
    if (vokt::UsedAfterDestroy(v, &vokt::kVectorClass.base)) return;
    VectorGuard lock(v);
    if (v->size != 0) VOKT_ASSERT(v->size==0 || v->data != NULL);
    if (v->size > 0) {
        VOKT_ASSERT_OR_RETURN(v->data[0] != NULL);
        VOKT_ASSERT_OR_RETURN(v->data[0]->ftbl->Compare!=NULL);
        // A destroyed element is reported even where no comparison would reach it.
        if (vokt::Checking(vokt::kCheckObjects))
            for (int64_t i = 0; i < v->size; i++) vokt::IsDestroyed(v->data[i]);
        qsort(v->data, static_cast<size_t>(v->size), sizeof(Object *), v->data[0]->ftbl->Compare);
    }
}

void Vector_Clear(Vector *v) {
    VOKT_ASSERT_OR_RETURN(v != NULL);
    if (vokt::UsedAfterDestroy(v, &vokt::kVectorClass.base)) return;
    VectorGuard lock(v);
    VOKT_ASSERT(v->size==0 || v->data != NULL);
    if (v->bOwnsElements) {
        // size is read again after each call: a destructor may touch the vector.
        for (int64_t i = 0; i < v->size; i++) Object_Destroy(v->data[i]);
    }
    v->size = 0;
}

void Vector_SetOwnsElements(Vector *v, int32_t flag) {
    VOKT_ASSERT_OR_RETURN(v != NULL);
    if (vokt::UsedAfterDestroy(v, &vokt::kVectorClass.base)) return;
    // Takes the lock twice and releases nothing: callers rely on holding it afterwards.
    if (v->bSynchronized) Mutex_Lock(v->mutex);
    v->bOwnsElements = flag;
    if (v->bSynchronized) Mutex_Lock(v->mutex);
}

void Vector_Free(Vector *v) {
    VOKT_ASSERT_OR_RETURN(v != NULL);
    if (vokt::DestroyedAgain(v, &vokt::kVectorClass.base)) return;  // destroyed before: reported, nothing released
    VOKT_ASSERT(v->size==0 || v->data != NULL);
    Vector_Clear(v);
    FreeSlots(v->data);
    if (v->mutex) {
        Mutex_Destroy(v->mutex);
        vokt::Free(v->mutex);
    }
    vokt::Free(v);
}

}  // extern "C"
