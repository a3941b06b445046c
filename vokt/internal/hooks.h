// SPDX-License-Identifier: MIT
// Private: where the checks (vokt/checks/) hook into the allocation layer, the objects and
// the sync module. Switched off, each hook is one load and one well-predicted branch on the
// hot path.
#ifndef VOKT_INTERNAL_HOOKS_H
#define VOKT_INTERNAL_HOOKS_H

#include <stdint.h>

#include "vokt/core/object.h"
#include "vokt/sync/vokt_sync.h"

namespace vokt {

enum : uint32_t {
    kCheckLeaks = 1,
    kCheckLocks = 2,
    kCheckObjects = 4,
    kCheckAll = 7,
};

// The checks in force. Written rarely (start-up, Runtime_SetChecks), read on
// every hook; relaxed atomics compile to plain moves.
extern uint32_t g_checks;

[[gnu::always_inline]] inline bool Checking(uint32_t which) {
    return __builtin_expect((__atomic_load_n(&g_checks, __ATOMIC_RELAXED) & which) != 0, 0);
}

// NewObject while a check that records blocks is on: the object is recorded with its class.
void *NewObjectRecorded(const ClassDescriptor *cls, const char *what);

// Gives every destroyed object held back to the allocator (before the allocator changes).
void ReleaseQuarantined();

// Memory an object allocates for its own use (its text, its slots, the members it makes),
// while one of these lives on the thread: the checks count it with its owner, and take no
// call site of its own for it.
const void *EnterOwner(const void *owner);  // the owner before
void LeaveOwner(const void *before);
class OwnedBy {
public:
    explicit OwnedBy(const void *owner) {
        if (Checking(kCheckLeaks | kCheckObjects)) entered_ = true, before_ = EnterOwner(owner);
    }
    ~OwnedBy() {
        if (entered_) LeaveOwner(before_);
    }
    OwnedBy(const OwnedBy &) = delete;
    OwnedBy &operator=(const OwnedBy &) = delete;

private:
    bool entered_ = false;
    const void *before_ = nullptr;
};
// Alloc (block null) or Realloc for owner, while a check records blocks.
void *ReallocOwned(const void *owner, void *block, size_t size);
// A block made for one object and taken over by another (a String adopting a text built aside).
void Reown(const void *block, const void *owner);

// Blocks allocated while one of these lives on a thread belong to the runtime for the whole
// process (the log's and the error store's state) and are never reported as leaks.
struct CheckThread;
class KeptForProcess {
public:
    KeptForProcess();
    ~KeptForProcess();
    KeptForProcess(const KeptForProcess &) = delete;
    KeptForProcess &operator=(const KeptForProcess &) = delete;

private:
    CheckThread *me_ = nullptr;
};

// True (after a report) when object was destroyed while `objects` was on: the caller must
// then leave it alone, and return as it would for a null object. Decided from the checks'
// own records; the object's memory is not read. destroying: the caller is destroying it.
bool Destroyed(const void *object, bool destroying);
inline bool IsDestroyed(const void *object) { return Checking(kCheckObjects) && object && Destroyed(object, false); }

// The check at the top of every public operation on an object of class cls. A live object
// costs one compare: a destroyed one held back carries another descriptor, and one given
// back to the allocator has lost its own.
inline bool UsedAfterDestroy(const void *object, const ClassDescriptor *cls) {
    return object && static_cast<const Object *>(object)->ftbl != cls && Checking(kCheckObjects) &&
           Destroyed(object, false);
}
// The same at the top of a destroy function: a second destruction is reported as such.
inline bool DestroyedAgain(const void *object, const ClassDescriptor *cls) {
    return object && static_cast<const Object *>(object)->ftbl != cls && Checking(kCheckObjects) &&
           Destroyed(object, true);
}

// Lock order and holds (the sync module calls these with `locks` on).
void LockTaken(Mutex *m);            // after the lock is held
void UnlockSeen(Mutex *m);           // before the unlock (reported when the caller does not hold m)
void MutexMade(Mutex *m);            // Mutex_Init: a new node
void WaitEntered(const char *what);  // before a wait on a Condition or an Event

}  // namespace vokt

#endif
