// SPDX-License-Identifier: MIT
/** @file
 * C++ helpers over the C API (header-only). They own, lock and check; they never hide a
 * vokt object or change what the C functions do.
 */
#ifndef VOKT_VOKT_HPP
#define VOKT_VOKT_HPP

#ifndef __cplusplus
#error "vokt/vokt.hpp is for C++; C programs include vokt/vokt.h"
#endif

#include "vokt/vokt.h"

/** The C++ helpers. */
namespace vokt {

/// Owning pointer for any vokt object, destroyed through its class descriptor:
/// vokt::Ptr<String> s(String_NewFromChars("x")). Move-only, like std::unique_ptr.
template <typename T>
class Ptr {
public:
    Ptr() noexcept = default;
    /// Takes ownership of object (which may be null).
    explicit Ptr(T *object) noexcept : p_(object) {}
    /// Takes the object of other, which is left empty.
    Ptr(Ptr &&other) noexcept : p_(other.release()) {}
    /// Destroys the object held and takes the one of other.
    Ptr &operator=(Ptr &&other) noexcept {
        reset(other.release());
        return *this;
    }
    ~Ptr() { Object_Destroy(p_); }
    Ptr(const Ptr &) = delete;
    Ptr &operator=(const Ptr &) = delete;

    /// The object (still owned), or null.
    T *get() const noexcept { return p_; }
    /// The object's members.
    T *operator->() const noexcept { return p_; }
    /// The object itself.
    T &operator*() const noexcept { return *p_; }
    /// True when an object is held.
    explicit operator bool() const noexcept { return p_ != nullptr; }
    /// Gives the object up without destroying it.
    T *release() noexcept {
        T *p = p_;
        p_ = nullptr;
        return p;
    }
    /// Destroys the object held (unless it is object) and holds object instead.
    void reset(T *object = nullptr) noexcept {
        if (object != p_) Object_Destroy(p_);
        p_ = object;
    }
    /// True when nothing is held.
    friend bool operator==(const Ptr &a, decltype(nullptr)) noexcept { return a.p_ == nullptr; }

private:
    T *p_ = nullptr;
};

/// A Ptr owning object, with the type deduced.
template <typename T>
Ptr<T> Own(T *object) noexcept {
    return Ptr<T>(object);
}

/// Holds a Mutex for the scope.
class MutexLock {
public:
    /// Locks m until the end of the scope.
    explicit MutexLock(Mutex &m) noexcept : m_(m) { Mutex_Lock(&m_); }
    ~MutexLock() { Mutex_Unlock(&m_); }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

private:
    Mutex &m_;
};

/// Holds a synchronised Vector's lock for the scope, so that several operations act as
/// one. The Vector must be synchronised (Vector_SetSynchronized).
class VectorLock {
public:
    /// Locks v until the end of the scope.
    explicit VectorLock(Vector *v) noexcept : v_(v) { Vector_Lock(v_); }
    ~VectorLock() { Vector_Unlock(v_); }
    VectorLock(const VectorLock &) = delete;
    VectorLock &operator=(const VectorLock &) = delete;

private:
    Vector *v_;
};

/// True when result is 0; any other result (-1, -2, an error reference) is a failure.
inline bool Ok(int32_t result) noexcept { return result == VOKT_OK; }
/// True when result names an Error (-2 included).
inline bool IsStoredError(int32_t result) noexcept { return result != 0 && ErrorStore_IsError(result) != 0; }

/// Takes the Error of a reference out of the store; the pointer frees it. Null for codes
/// that carry no Error (0, -1, other plain codes).
inline Ptr<Error> TakeError(int32_t result) noexcept {
    return Ptr<Error>(IsStoredError(result) ? ErrorStore_Take(result) : nullptr);
}

/// The text of a String, "" when it is unset.
inline const char *Text(const String *s) noexcept { return s && s->bIsSet && s->string ? s->string : ""; }

}  // namespace vokt

#endif
