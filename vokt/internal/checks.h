// SPDX-License-Identifier: MIT
// Private: the hooks of the diagnostics (leaks, lock order, destroyed objects) that the
// allocation layer, the sync module and the containers call. Switched off, each hook is one
// load and one well-predicted branch on the hot path.
#ifndef VOKT_INTERNAL_CHECKS_H
#define VOKT_INTERNAL_CHECKS_H

#include <stddef.h>
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

// The class of an object just allocated, for its record (leaks, objects).
void NoteClass(void *object, const ClassDescriptor *cls);

// Gives every destroyed object held back to the allocator (before the allocator changes).
void ReleaseQuarantined();

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
// then leave it alone.
bool Destroyed(const void *object);
inline bool IsDestroyed(const void *object) { return Checking(kCheckObjects) && object && Destroyed(object); }

// Lock order and holds (the sync module calls these with `locks` on).
void LockTaken(Mutex *m);           // after the lock is held
void UnlockSeen(Mutex *m);          // before the unlock (reported when the caller does not hold m)
void MutexMade(Mutex *m);           // Mutex_Init: a new node
void WaitEntered(const char *what);  // before a wait on a Condition or an Event

// What the checks share among themselves.
// Each thread's part, reached through one initial-exec pointer (a variable of its own per
// field would cost a call into the dynamic loader each, in a library that may be loaded
// late). Made on the thread's first need, released when it ends.
struct Taken {  // a Mutex the thread holds
    Mutex *mutex;
    uint32_t node;
    uint32_t site;
    uint32_t depth;
};
constexpr int kHeldKept = 32;  // Mutexes a thread holds that it keeps, in the order taken
struct CheckThread {
    int reporting;      // inside a report: the hooks stand aside
    int kept;           // depth of KeptForProcess scopes
    uint32_t number;    // the thread's number in reports
    uintptr_t stackEnd;  // 0 until asked
    uint32_t lockEpoch;  // the switching-on of `locks` that heldCount belongs to
    int heldCount;       // kept in held
    int unkept;          // held beyond those: only counted
    Taken held[kHeldKept];
};
extern __thread CheckThread *t_checkThread __attribute__((tls_model("initial-exec")));
CheckThread *MakeCheckThread();
// The calling thread's part.
inline CheckThread *Me() { return t_checkThread ? t_checkThread : MakeCheckThread(); }
// A thread that ends with Mutexes held is reported (called as its part is released).
void LocksAtThreadEnd(CheckThread *me);
// Holds recorded before `locks` was last switched on are forgotten: the unlocks made while it
// was off were never seen.
void LocksSwitchedOn();
// The lock checks' tables, made once; false when no memory could be mapped for them.
bool PrepareLockOrder();

// The one mixing function of the checks' hash tables (a 64-bit finaliser: every output bit
// depends on every input bit, so that any slice of it serves as an index).
inline uint64_t Mix64(uint64_t h) {
    h ^= h >> 33;
    h *= 0xFF51AFD7ED558CCDull;
    h ^= h >> 33;
    h *= 0xC4CEB9FE1A85EC53ull;
    h ^= h >> 33;
    return h;
}

// A short lock for the checks' own tables: they must never go through the hooks they serve.
class SpinLock {
public:
    void lock();
    void unlock() { __atomic_store_n(&word_, 0, __ATOMIC_RELEASE); }

private:
    int word_ = 0;
};
class SpinGuard {
public:
    explicit SpinGuard(SpinLock &lock) : lock_(lock) { lock_.lock(); }
    ~SpinGuard() { lock_.unlock(); }
    SpinGuard(const SpinGuard &) = delete;
    SpinGuard &operator=(const SpinGuard &) = delete;

private:
    SpinLock &lock_;
};
// Zeroed memory for the checks' tables, straight from the system: the checks change nothing
// that the program's allocator sees.
void *MapZeroed(size_t bytes);
void Unmap(void *block, size_t bytes);
// The program's call site of the calling library function, as an index into the table of
// sites (0: none known).
uint32_t CaptureSite();
// A site as text: "f+0x2f (app) <- main+0x11 (app)".
void FormatSite(uint32_t site, char *out, size_t room);
// True the first time a report of this kind is asked for this pair of values.
bool FirstTime(uint32_t kind, uint64_t a, uint64_t b);
// Small numbers for threads, in the order the checks first meet them.
uint32_t ThreadNumber();
// One report line, on standard error and in the log at level 0. While it is written, the
// hooks of the calling thread stand aside (the log locks and allocates).
void Report(const char *line);
inline bool Reporting() { return Me()->reporting != 0; }
void LockOrderForkPrepare();
void LockOrderForkRelease();

}  // namespace vokt

#endif
