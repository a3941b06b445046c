// SPDX-License-Identifier: MIT
// Private: Mutex_Lock and Mutex_Unlock as inline paths, so that the library's own locks
// (synchronised vectors, the log, the error store) cost no call in the common case. The
// general and blocking paths stay in the sync module.
#ifndef VOKT_INTERNAL_LOCK_H
#define VOKT_INTERNAL_LOCK_H

#include <pthread.h>
#include <sys/types.h>

#include "vokt/internal/hooks.h"
#include "vokt/sync/vokt_sync.h"

// The try step on a default POSIX mutex is done here instead of through the C library's
// general trylock, which saves five registers and dispatches on the mutex kind through a
// jump table before its one compare-and-swap. This is that compare-and-swap of the lock
// word from free (0) to held (1), plus the two bookkeeping fields the C library writes: its
// unlock, lock and condition waits then find the mutex exactly as if it had taken it, and
// the release below is its unlock. While the process has one thread they take plain loads
// and stores, as the C library's own lock does, deciding from the same flag it decides from:
// its own storage of __libc_single_threaded, found at load. Never from the program's copy of
// that flag, which can stay set after threads have started (it is not updated once a thread
// has cancelled itself), where a plain store would lose a sleeper's wake-up. Any other kind
// of mutex, and any process where something watches the pthread calls (a race checker),
// goes through the C library.
//
// The build leaves these steps out when asked to (VOKT_DIRECT_LOCK=OFF), when the thread
// sanitizer instruments the library, on machines whose glibc mutex layout was not read (only
// x86-64 and ARM64 were), and without valgrind's header (a process under valgrind could not
// be recognised); the sync module also turns them off at load unless the running glibc
// passes its checks.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VOKT_THREAD_SANITIZER 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define VOKT_THREAD_SANITIZER 1
#endif
#if defined(VOKT_WANT_DIRECT_LOCK) && defined(__GLIBC__) && !defined(VOKT_THREAD_SANITIZER) && \
    (defined(__x86_64__) || defined(__aarch64__)) && __has_include(<valgrind/valgrind.h>)
#define VOKT_DIRECT_LOCK 1
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

namespace vokt {

// The calling thread's identifiers, asked of the C library once per thread. A forked child
// keeps its thread's pthread identifier but not its kernel one (the fork handler clears
// that), so a known kernel identifier means both are known. The kernel one is kept only
// where locks are taken directly (g_directLock).
struct Identity {
    pthread_t self;
    pid_t tid;
};
// (__thread rather than thread_local: nothing to construct, so no initialisation check on reads.)
extern __thread Identity t_identity __attribute__((tls_model("initial-exec")));
// False until the library has loaded, and whenever the direct steps are not to be taken.
extern const bool g_directLock;
// The C library's own single-thread flag, nonzero while the process has one thread; a flag
// that stays 0 where it was not found or did not pass its checks at load.
extern const char *g_alone;
inline bool Alone() { return __atomic_load_n(g_alone, __ATOMIC_RELAXED) != 0; }

// The paths kept out of line: Mutex_Lock whole, blocking for a caller that does not hold
// the lock, and the unlock of a free mutex (reported, then released as any other).
void LockGeneral(Mutex *m);
void Block(Mutex *m, pthread_t self);
void ReleaseReported(Mutex *m);  // the report for a free mutex, then Release
// Mutex_Lock and Mutex_Unlock with the `locks` check on.
void LockWatched(Mutex *m);
void UnlockWatched(Mutex *m);

// The owner is read without the lock by other threads; relaxed atomics keep the race
// checker informed without changing the generated moves.
inline pthread_t LoadOwner(const Mutex *m) { return __atomic_load_n(&m->owner, __ATOMIC_RELAXED); }
inline void StoreOwner(Mutex *m, pthread_t id) { __atomic_store_n(&m->owner, id, __ATOMIC_RELAXED); }

// The last two steps of Mutex_Lock, for a caller that now holds the lock.
inline void Hold(Mutex *m, pthread_t self) {
    if (m->spinCount == 0) StoreOwner(m, self);
    m->spinCount++;
}

#ifdef VOKT_DIRECT_LOCK
inline bool DefaultKind(const pthread_mutex_t *mutex) {
    return __atomic_load_n(&mutex->__data.__kind, __ATOMIC_RELAXED) == PTHREAD_MUTEX_TIMED_NP;
}
inline bool Direct(const pthread_mutex_t *mutex) { return g_directLock && DefaultKind(mutex); }

inline bool DirectTry(pthread_mutex_t *mutex, pid_t tid) {
    int *word = &mutex->__data.__lock;
    if (__atomic_load_n(word, __ATOMIC_RELAXED) != 0) return false;
    if (Alone()) {  // no other thread to race with: the free word is simply taken
        __atomic_store_n(word, 1, __ATOMIC_RELAXED);
        mutex->__data.__owner = tid;
        ++mutex->__data.__nusers;
        return true;
    }
    int expected = 0;
    // Acquire: the holder's reads and writes under the lock must not move before the lock is
    // taken, nor see less than the last holder wrote before its release. x86-64 keeps that
    // order for any locked instruction, so a relaxed exchange would pass every test there;
    // ARM64 reorders freely without it.
    if (!__atomic_compare_exchange_n(word, &expected, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) return false;
    mutex->__data.__owner = tid;
    ++mutex->__data.__nusers;
    return true;
}

// Wakes one thread sleeping on a lock word (the C library's own wake for a private mutex).
[[gnu::cold, gnu::noinline]] inline void Wake(int *word) {
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

// The C library's unlock of a default mutex: clear the bookkeeping, free the word, and wake
// one sleeper if the word said there were any (2).
// Alone, nobody can sleep on the word: it is simply freed.
inline void DirectUnlock(pthread_mutex_t *mutex) {
    mutex->__data.__owner = 0;
    --mutex->__data.__nusers;
    int *word = &mutex->__data.__lock;
    if (Alone()) return __atomic_store_n(word, 0, __ATOMIC_RELAXED);
    if (__atomic_exchange_n(word, 0, __ATOMIC_RELEASE) > 1) Wake(word);
}
#endif

// Mutex_Lock: try, compare the owner, block; then hold. Without a call on the way once this
// thread's identifiers are known.
[[gnu::always_inline]] inline void LockUnwatched(Mutex *m) {
#ifdef VOKT_DIRECT_LOCK
    const Identity id = t_identity;
    if (id.tid != 0 && DefaultKind(&m->mutex)) {  // a known kernel identifier: g_directLock holds
        if (!DirectTry(&m->mutex, id.tid) && LoadOwner(m) != id.self) return Block(m, id.self);
        return Hold(m, id.self);
    }
#endif
    LockGeneral(m);
}
[[gnu::always_inline]] inline void Lock(Mutex *m) {
    if (!m) return;
    if (Checking(kCheckLocks)) return LockWatched(m);
    LockUnwatched(m);
}

// Releases one level; the POSIX mutex goes at the last.
[[gnu::always_inline]] inline void Release(Mutex *m) {
    m->spinCount--;
    if (m->spinCount != 0) return;
    StoreOwner(m, 0);
#ifdef VOKT_DIRECT_LOCK
    if (Direct(&m->mutex)) return DirectUnlock(&m->mutex);
#endif
    pthread_mutex_unlock(&m->mutex);
}

// Mutex_Unlock. An unlock of a free mutex is reported, leaves the depth at -1 and releases
// nothing; clamping it would hide the caller's mistake.
[[gnu::always_inline]] inline void UnlockUnwatched(Mutex *m) {
    if (m->spinCount <= 0) return ReleaseReported(m);
    Release(m);
}
[[gnu::always_inline]] inline void Unlock(Mutex *m) {
    if (!m) return;
    if (Checking(kCheckLocks)) return UnlockWatched(m);
    UnlockUnwatched(m);
}

}  // namespace vokt

#endif
