// vokt: C++ helpers over the C API (header-only). They own, lock and check; they never
// hide a vokt object or change what the C functions do.
#ifndef VOKT_VOKT_HPP
#define VOKT_VOKT_HPP

#ifndef __cplusplus
#error "vokt/vokt.hpp is for C++; C programs include vokt/vokt.h"
#endif

#include <memory>

#include "vokt/vokt.h"

namespace vokt {

// Destroys any vokt object through its class descriptor.
struct Destroyer {
    void operator()(void *object) const noexcept { Object_Destroy(object); }
};

// Owning pointer for any vokt object: vokt::Ptr<String> s(String_NewFromChars("x"));
template <typename T>
using Ptr = std::unique_ptr<T, Destroyer>;

template <typename T>
Ptr<T> Own(T *object) noexcept {
    return Ptr<T>(object);
}

// Holds a Mutex for the scope.
class MutexLock {
public:
    explicit MutexLock(Mutex &m) noexcept : m_(m) { Mutex_Lock(&m_); }
    ~MutexLock() { Mutex_Unlock(&m_); }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

private:
    Mutex &m_;
};

// Holds a synchronised Vector's lock for the scope, so that several operations act as
// one. The Vector must be synchronised (Vector_SetSynchronized).
class VectorLock {
public:
    explicit VectorLock(Vector *v) noexcept : v_(v) { Vector_Lock(v_); }
    ~VectorLock() { Vector_Unlock(v_); }
    VectorLock(const VectorLock &) = delete;
    VectorLock &operator=(const VectorLock &) = delete;

private:
    Vector *v_;
};

// Result checks. A result is an error when it is not 0: -1, -2 or an error reference.
inline bool Ok(int32_t result) noexcept { return result == VOKT_OK; }
inline bool IsStoredError(int32_t result) noexcept { return result != 0 && ErrorStore_IsError(result) != 0; }

// Takes the Error of a reference out of the store; the pointer frees it. Null for codes
// that carry no Error (0, -1, other plain codes).
inline Ptr<Error> TakeError(int32_t result) noexcept {
    return Ptr<Error>(IsStoredError(result) ? ErrorStore_Take(result) : nullptr);
}

// The text of a String, "" when it is unset.
inline const char *Text(const String *s) noexcept { return s && s->bIsSet && s->string ? s->string : ""; }

}  // namespace vokt

#endif
