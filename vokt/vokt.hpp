// SPDX-License-Identifier: MIT
/** @file
 * C++ helpers over the C API (header-only). They own, lock and check; they never hide a
 * vokt object or change what the C functions do.
 *
 * @par Example
 * @include reference/hpp.cpp
 */
#ifndef VOKT_VOKT_HPP
#define VOKT_VOKT_HPP

#ifndef __cplusplus
#error "vokt/vokt.hpp is for C++; C programs include vokt/vokt.h"
#endif

#include "vokt/vokt.h"

/** The C++ helpers. */
namespace vokt {

/// Owning pointer for any vokt object, destroyed through its class descriptor when the
/// pointer goes; move-only, like std::unique_ptr.
/// @tparam T The object's type (String, Vector, ...).
template <typename T>
class Ptr {
public:
    Ptr() noexcept = default;
    /// Takes ownership of an object.
    /// @param object The object, or null.
    explicit Ptr(T *object) noexcept : p_(object) {}
    /// Takes the object of another pointer.
    /// @param other Left empty.
    Ptr(Ptr &&other) noexcept : p_(other.release()) {}
    /// Destroys the object held and takes the one of another pointer.
    /// @param other Left empty.
    /// @return This pointer.
    Ptr &operator=(Ptr &&other) noexcept {
        reset(other.release());
        return *this;
    }
    ~Ptr() { Object_Destroy(p_); }
    Ptr(const Ptr &) = delete;
    Ptr &operator=(const Ptr &) = delete;

    /// The object, still owned.
    /// @return It, or null.
    T *get() const noexcept { return p_; }
    /// The object's members.
    /// @return The object.
    T *operator->() const noexcept { return p_; }
    /// The object itself.
    /// @return A reference to it (there must be one).
    T &operator*() const noexcept { return *p_; }
    /// Tells whether an object is held.
    /// @return True when one is.
    explicit operator bool() const noexcept { return p_ != nullptr; }
    /// Gives the object up without destroying it.
    /// @return The object, now the caller's, or null.
    T *release() noexcept {
        T *p = p_;
        p_ = nullptr;
        return p;
    }
    /// Destroys the object held (unless it is the new one) and holds another.
    /// @param object The new object, or null.
    void reset(T *object = nullptr) noexcept {
        if (object != p_) Object_Destroy(p_);
        p_ = object;
    }
    /// Compares with null.
    /// @param a The pointer.
    /// @return True when it holds nothing.
    friend bool operator==(const Ptr &a, decltype(nullptr)) noexcept { return a.p_ == nullptr; }

private:
    T *p_ = nullptr;
};

/// Makes a Ptr owning an object, with the type deduced.
/// @tparam T The object's type.
/// @param object The object, or null.
/// @return The pointer.
template <typename T>
Ptr<T> Own(T *object) noexcept {
    return Ptr<T>(object);
}

/// Holds a Mutex for the scope.
class MutexLock {
public:
    /// Locks a Mutex until the end of the scope.
    /// @param m The Mutex (held once more by a thread that holds it already).
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
    /// Locks a Vector until the end of the scope.
    /// @param v The Vector.
    explicit VectorLock(Vector *v) noexcept : v_(v) { Vector_Lock(v_); }
    ~VectorLock() { Vector_Unlock(v_); }
    VectorLock(const VectorLock &) = delete;
    VectorLock &operator=(const VectorLock &) = delete;

private:
    Vector *v_;
};

/// Tells success from failure.
/// @param result An operation's result.
/// @return True when it is 0; any other result (-1, -2, an error reference) is a failure.
inline bool Ok(int32_t result) noexcept { return result == VOKT_OK; }
/// Tells whether a result names an Error.
/// @param result An operation's result.
/// @return True for -2 and for a reference whose Error is stored.
inline bool IsStoredError(int32_t result) noexcept { return result != 0 && ErrorStore_IsError(result) != 0; }

/// Takes the Error of a result out of the store; the pointer frees it.
/// @param result An operation's result.
/// @return The Error (the static record for -2, which is never freed); null for results that
///         carry no Error (0, -1, other plain codes).
inline Ptr<Error> TakeError(int32_t result) noexcept {
    return Ptr<Error>(IsStoredError(result) ? ErrorStore_Take(result) : nullptr);
}

/// Reads a String's text.
/// @param s The String, or null.
/// @return Its text (borrowed); "" when it is unset or null.
inline const char *Text(const String *s) noexcept { return s && s->bIsSet && s->string ? s->string : ""; }

}  // namespace vokt

#endif
