// SPDX-License-Identifier: MIT
// Private: scope guards for locks and scratch objects.
#ifndef VOKT_INTERNAL_SCOPE_H
#define VOKT_INTERNAL_SCOPE_H

#include "vokt/containers/vector.h"
#include "vokt/core/object.h"
#include "vokt/internal/lock.h"
#include "vokt/sync/vokt_sync.h"
#include "vokt/text/string.h"

namespace vokt {

class MutexGuard {
public:
    explicit MutexGuard(Mutex *m) : m_(m) { Lock(m_); }
    ~MutexGuard() { Unlock(m_); }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

private:
    Mutex *m_;
};

// Holds a vector's own lock when it is synchronised; a no-op otherwise.
class VectorGuard {
public:
    explicit VectorGuard(Vector *v) : m_(v && v->bSynchronized ? v->mutex : nullptr) {
        if (m_) Lock(m_);
    }
    ~VectorGuard() {
        if (m_) Unlock(m_);
    }
    // Leaves the lock held on purpose (a failure path that keeps it).
    void Keep() { m_ = nullptr; }
    VectorGuard(const VectorGuard &) = delete;
    VectorGuard &operator=(const VectorGuard &) = delete;

private:
    Mutex *m_;
};

// Destroys a runtime object through its descriptor when the scope ends.
template <typename T>
class Scoped {
public:
    explicit Scoped(T *object = nullptr) : p_(object) {}
    ~Scoped() { Object_Destroy(p_); }
    T *get() const { return p_; }
    T *operator->() const { return p_; }
    explicit operator bool() const { return p_ != nullptr; }
    void reset(T *object) {
        Object_Destroy(p_);
        p_ = object;
    }
    T *release() {
        T *p = p_;
        p_ = nullptr;
        return p;
    }
    Scoped(const Scoped &) = delete;
    Scoped &operator=(const Scoped &) = delete;

private:
    T *p_;
};

// A cleanup list that is destroyed, with every object still registered, when the scope
// ends.
class CleanupList {
public:
    CleanupList() = default;
    ~CleanupList() { Object_Destroy(list_); }
    // CleanupList_Add: the object, or null (after destroying it) when it cannot be kept.
    template <typename T>
    T *Add(T *object) {
        return static_cast<T *>(CleanupList_Add(&list_, object));
    }
    // Takes an object back out: it is no longer destroyed with the list.
    void Keep(void *object) {
        if (list_) Vector_RemoveIdentical(list_, object);
    }
    CleanupList(const CleanupList &) = delete;
    CleanupList &operator=(const CleanupList &) = delete;

private:
    Vector *list_ = nullptr;
};

}  // namespace vokt

#endif
