// SPDX-License-Identifier: MIT
// The recursive Mutex over a POSIX mutex: the C library's calls, or where they were read and
// are seen to hold, the direct steps of its own lock (vokt/internal/lock.h), and the paths
// kept out of line.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <link.h>
#include <unistd.h>

#include "vokt/internal/assert.h"
#include "vokt/internal/fork.h"
#include "vokt/internal/lock.h"
#include "vokt/sync/vokt_sync.h"

#ifdef VOKT_DIRECT_LOCK
#include <dirent.h>
#include <dlfcn.h>
#include <gnu/libc-version.h>
#include <sys/single_threaded.h>
#endif
#if __has_include(<valgrind/valgrind.h>) && __has_include(<valgrind/helgrind.h>) && __has_include(<valgrind/drd.h>)
#define VOKT_VALGRIND_REQUESTS 1
#include <valgrind/drd.h>
#include <valgrind/helgrind.h>
#include <valgrind/valgrind.h>
#endif

namespace {

constexpr char kModule[] = "vokt_sync";

#ifdef VOKT_DIRECT_LOCK
// The direct steps rely on the C library's private mutex layout and protocol, so they are
// taken only where that was read and is seen to hold:
// - no race checker watches the process: checkers see lock operations only through the
//   pthread calls they intercept, and each is asked itself (the thread sanitizer's runtime
//   is linked in; valgrind's tools answer their client request);
// - the running glibc is one whose mutex code was read against these steps;
// - the steps, tried on a fresh mutex, look to the C library's own calls exactly like its
//   own lock and unlock.
// Anything else means the C library's calls for every lock of the process.

constexpr long kFirstCheckedGlibc = 232, kLastCheckedGlibc = 242;  // 2.32 to 2.42

bool CheckedGlibc() {
    const char *version = gnu_get_libc_version();
    char *end = nullptr;
    const long major = strtol(version, &end, 10);
    if (*end != '.') return false;
    const long number = major * 100 + strtol(end + 1, nullptr, 10);
    return number >= kFirstCheckedGlibc && number <= kLastCheckedGlibc;
}

bool ProtocolHolds() {
    pthread_mutex_t probe;
    if (pthread_mutex_init(&probe, nullptr) != 0) return false;
    pthread_mutex_t fresh;
    memcpy(&fresh, &probe, sizeof probe);
    const pid_t tid = gettid();
    if (!vokt::DefaultKind(&probe) || !vokt::DirectTry(&probe, tid)) return false;
    const bool held = pthread_mutex_trylock(&probe) == EBUSY && probe.__data.__owner == tid;
    vokt::DirectUnlock(&probe);
    if (pthread_mutex_trylock(&probe) != 0) return false;
    pthread_mutex_unlock(&probe);
    return held && memcmp(fresh.__size, probe.__size, sizeof probe.__size) == 0;  // every byte as before
}

#endif

// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the sanitizer runtime's own name
extern "C" void __tsan_init() __attribute__((weak));

// A race checker watches the process when the thread sanitizer's runtime is linked in, or
// under valgrind when the part of Helgrind or DRD that it puts in every process is loaded
// (still there when the program has emptied LD_PRELOAD). Checkers see lock operations only
// through the pthread calls they intercept. Valgrind's other tools (memcheck, callgrind)
// watch no locks.
bool RaceChecked() {
#ifdef VOKT_VALGRIND_REQUESTS
    if (RUNNING_ON_VALGRIND) {
        const int found = dl_iterate_phdr(+[](dl_phdr_info *info, size_t, void *) -> int {
            const char *name = info->dlpi_name ? info->dlpi_name : "";
            return strstr(name, "vgpreload_helgrind") || strstr(name, "vgpreload_drd") ? 1 : 0;
        }, nullptr);
        if (found) return true;
    }
#endif
    return __tsan_init != nullptr;
}

#ifdef VOKT_DIRECT_LOCK
bool DirectLockUsable() { return !RaceChecked() && CheckedGlibc() && ProtocolHolds(); }

// The threads of the process, counted in /proc; 0 when that cannot be read.
int CountThreads() {
    DIR *tasks = opendir("/proc/self/task");
    if (!tasks) return 0;
    int n = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): a directory stream of its own, read at load
    while (const dirent *entry = readdir(tasks)) n += entry->d_name[0] != '.';
    closedir(tasks);
    return n;
}

// The C library's own storage of its single-thread flag. The program may hold a copy of
// the exported variable (a copy relocation), which the symbol's next definition after this
// module skips; in a fully static program there is no copy, and no next definition. The
// flag is trusted only where it reads as the process is: one thread, or several.
const char kNever = 0;
const char *FindAloneFlag() {
    const auto *flag = static_cast<const char *>(dlsym(RTLD_NEXT, "__libc_single_threaded"));
    if (!flag) flag = &__libc_single_threaded;
    const int threads = CountThreads();
    const char now = __atomic_load_n(flag, __ATOMIC_RELAXED);
    const bool truthful = (now == 1 && threads == 1) || (now == 0 && threads > 1);
    return truthful ? flag : &kNever;
}
#endif

// Never taken for one thread alone until the library is loaded and its flag found.
const char kNotYet = 0;

using vokt::LoadOwner;
using vokt::t_identity;

// The kernel identifier is only needed (and only kept) where locks are taken directly, so
// a known one also says that they are.
const vokt::Identity &Known() {
    if (t_identity.self == 0) t_identity.self = pthread_self();
    if (t_identity.tid == 0 && vokt::g_directLock) t_identity.tid = gettid();
    return t_identity;
}

bool TryLock(pthread_mutex_t *mutex) {
#ifdef VOKT_DIRECT_LOCK
    if (vokt::Direct(mutex)) return vokt::DirectTry(mutex, Known().tid);
#endif
    return pthread_mutex_trylock(mutex) == 0;
}

}  // namespace

namespace vokt {

__thread Identity t_identity __attribute__((tls_model("initial-exec"))) = {};
const char *g_alone = &kNotYet;  // constant-initialised: read before the library's own initialisation ends
#ifdef VOKT_DIRECT_LOCK
const bool g_directLock = [] {
    if (!DirectLockUsable()) return false;
    g_alone = FindAloneFlag();
    return true;
}();
#else
const bool g_directLock = false;
#endif
const bool g_raceChecked = RaceChecked();

// Mutex_Lock whole: try; when that fails, compare the owner with the caller (only the
// holder can see its own identifier there, so an unlocked read is enough); block unless
// the caller holds it already; then hold. A POSIX mutex that the caller made recursive
// lets its holder's try through and counts a level of its own, which the last unlock would
// never release: that level is given back at once (a default one refuses its holder).
// Watched by a race checker, the owner is compared first and the lock taken blocking: a
// checker learns the order of locks only from those, never from a try.
[[gnu::noinline]] void LockGeneral(Mutex *m) {
    const pthread_t self = Known().self;
    if (g_raceChecked) {
        if (LoadOwner(m) != self) pthread_mutex_lock(&m->mutex);
    } else if (TryLock(&m->mutex)) {
        if (LoadOwner(m) == self) pthread_mutex_unlock(&m->mutex);
    } else if (LoadOwner(m) != self) {
        pthread_mutex_lock(&m->mutex);
    }
    Hold(m, self);
}

[[gnu::noinline]] void Block(Mutex *m, pthread_t self) {
    pthread_mutex_lock(&m->mutex);
    Hold(m, self);
}

[[gnu::cold, gnu::noinline]] void ReleaseReported(Mutex *m) {
    VOKT_ASSERT_ON_STDERR(m->spinCount>0, 103);
    Release(m);
}

[[gnu::noinline]] void LockWatched(Mutex *m) {
    LockUnwatched(m);
    LockTaken(m);
}

[[gnu::noinline]] void UnlockWatched(Mutex *m) {
    UnlockSeen(m);
    UnlockUnwatched(m);
}

}  // namespace vokt

extern "C" {

void Mutex_Init(Mutex *m) {
    if (!m) return;
    // The attribute object is never destroyed: the mutex keeps the defaults it gives.
    pthread_mutexattr_t attributes;
    if (pthread_mutexattr_init(&attributes) != 0) fputs("Could not create mutex attributes\n", stderr);
    if (pthread_mutex_init(&m->mutex, &attributes) != 0) fputs("Could not create mutex\n", stderr);
    vokt::StoreOwner(m, 0);
    m->spinCount = 0;
#ifdef VOKT_VALGRIND_REQUESTS
    // The owner is read without the lock on purpose (only its holder can find itself there);
    // valgrind's race checkers, which do not follow atomics, are told to leave it be.
    VALGRIND_HG_DISABLE_CHECKING(&m->owner, sizeof m->owner);
    DRD_IGNORE_VAR(m->owner);
#endif
    if (vokt::Checking(vokt::kCheckLocks)) vokt::MutexMade(m);
}

void Mutex_Lock(Mutex *m) { vokt::Lock(m); }

void Mutex_Unlock(Mutex *m) { vokt::Unlock(m); }

void Mutex_Destroy(Mutex *m) {
    // Deliberately empty: the mutex may be initialised and used again.
    (void)m;
}

}  // extern "C"

namespace vokt {
// The forking thread goes on in the child under a kernel identifier of its own.
void MutexForkChild() { t_identity.tid = 0; }
}  // namespace vokt
