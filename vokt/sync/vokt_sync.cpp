// SPDX-License-Identifier: MIT
// Synchronisation records over POSIX threads. This module sits below the log, so it
// reports its own failures on standard error. The records are the caller's; the only
// memory it may take is more room for the slots of the threads it has started, when more
// run at once than its static slots hold.
#include "vokt/sync/vokt_sync.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include "vokt/internal/alloc.h"
#include "vokt/internal/fork.h"
#include "vokt/internal/lock.h"

#ifdef VOKT_DIRECT_LOCK
#include <gnu/libc-version.h>
#include <valgrind/valgrind.h>
#endif

namespace {

constexpr char kModule[] = "vokt_sync";

// Inline assertions carry the line numbers their texts have always had, so tools that
// match these reports keep working whatever happens to this file.
[[gnu::cold, gnu::noinline]] void ReportAssertion(const char *expression, int line) {
    fprintf(stderr, "Assertion failed: %s in file %s on line %d\n", expression, kModule, line);
}
#define SYNC_ASSERT(cond, line)                  \
    do {                                         \
        if (!(cond)) ReportAssertion(#cond, line); \
    } while (0)

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
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the sanitizer runtime's own name
extern "C" void __tsan_init() __attribute__((weak));

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

bool DirectLockUsable() {
    const bool watched = __tsan_init != nullptr || RUNNING_ON_VALGRIND;
    return !watched && CheckedGlibc() && ProtocolHolds();
}
#endif

using vokt::LoadOwner;
using vokt::StoreOwner;
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

// Absolute wall-clock deadline. The whole seconds pass through a signed 32-bit number,
// so timeouts of 2^31 seconds or more wrap; callers have always relied on this.
timespec Deadline(uint64_t ms) {
    timeval now{};
    gettimeofday(&now, nullptr);
    const int64_t ns = static_cast<int64_t>(((ms % 1000) * 1000 + static_cast<uint64_t>(now.tv_usec)) * 1000);
    const int64_t whole = static_cast<int32_t>(ms / 1000);
    timespec deadline{};
    if (ns < 1000000000) {
        deadline.tv_sec = now.tv_sec + whole;
        deadline.tv_nsec = ns;
    } else {
        deadline.tv_sec = now.tv_sec + whole + 1;
        deadline.tv_nsec = ns - 1000000000;
    }
    return deadline;
}

// Conditions and events share their layout; both are set up the same way.
template <typename Signal>
void InitSignal(Signal *s) {
    pthread_condattr_t attributes;
    if (pthread_condattr_init(&attributes) != 0) fputs("Could not create condition attributes\n", stderr);
    if (pthread_cond_init(&s->condition, &attributes) != 0) fputs("Could not create condition\n", stderr);
    Mutex_Init(&s->mutex);
    s->bSignalled = 0;
}

template <typename Signal>
void DestroySignal(Signal *s) {
    pthread_cond_destroy(&s->condition);
    Mutex_Destroy(&s->mutex);
}

// One wait on an auto-reset condition; with a deadline when one is given.
int32_t WaitCondition(Condition *c, const timespec *deadline) {
    if (vokt::Checking(vokt::kCheckLocks)) vokt::WaitEntered("Condition");
    pthread_mutex_lock(&c->mutex.mutex);
    int32_t result = 1;
    if (c->bSignalled != 1) {
        const int rc = deadline ? pthread_cond_timedwait(&c->condition, &c->mutex.mutex, deadline)
                                : pthread_cond_wait(&c->condition, &c->mutex.mutex);
        result = rc == 0 ? 1 : 0;
    }
    c->bSignalled = 0;
    pthread_mutex_unlock(&c->mutex.mutex);
    return result;
}

// Waits until a manual-reset event is set; the flag is left for every other waiter.
int32_t WaitEvent(Event *e, const timespec *deadline) {
    if (vokt::Checking(vokt::kCheckLocks)) vokt::WaitEntered("Event");
    pthread_mutex_lock(&e->mutex.mutex);
    while (e->bSignalled == 0) {
        const int rc = deadline ? pthread_cond_timedwait(&e->condition, &e->mutex.mutex, deadline)
                                : pthread_cond_wait(&e->condition, &e->mutex.mutex);
        if (rc != 0) {
            pthread_mutex_unlock(&e->mutex.mutex);
            return 0;
        }
    }
    pthread_mutex_unlock(&e->mutex.mutex);
    return 1;
}

// Event_SetState's work, for a caller that already holds the event's inner mutex.
void SetStateLocked(Event *e, int32_t state) {
    if (state != 0) {
        e->bSignalled = 1;
        // The text names the signal call and has no line end; tools match it as it is.
        const int rc = pthread_cond_broadcast(&e->condition);
        if (rc != 0) fprintf(stderr, "Error returned by pthread_cond_signal: %d", rc);
    } else {
        e->bSignalled = 0;
    }
}

// The threads this module started. A thread identifier alone cannot say whether its
// thread has ended (the C library keeps answering for an ended thread until it is joined,
// and reuses identifiers afterwards), and handing the identifier of a joined or ended
// detached thread to any pthread call reads memory that is no longer that thread's. So
// each thread runs through a trampoline that records its end in a slot of its own, and
// the module asks only its slots.
//
// A slot's state word carries the whole life of one thread; a slot is taken with one
// compare-and-swap and given back with plain stores once nobody can look at it any more:
// by the creator or the thread, whichever comes second, for a detached thread, and by the
// join for a joinable one. No lock is held across thread creation or taken at its end.
constexpr uint32_t kTaken = 1;     // claimed by a creator
constexpr uint32_t kStarted = 2;   // the thread exists and id holds its identifier
constexpr uint32_t kEnded = 4;     // its routine has returned (or it called pthread_exit, or was cancelled)
constexpr uint32_t kJoinable = 8;  // it waits for Thread_Join once it has ended
constexpr uint32_t kJoining = 16;  // a Thread_Join has claimed it

struct Slot {
    uint32_t state;
    pthread_t id;
    ThreadRoutine routine;
    void *argument;
};

// The slots live in chunks that double in size; the first is static, so a program with
// fewer than a few dozen threads at a time never allocates here. Chunks are kept for the
// life of the process (their slots are reused).
constexpr uint32_t kFirstChunk = 64;
constexpr int kMaxChunks = 20;
constexpr uint32_t kProbes = 16;  // tries before the table is deemed crowded and grows
Slot g_firstSlots[kFirstChunk];
Slot *g_chunks[kMaxChunks] = {g_firstSlots};
int g_chunkCount = 1;
uint32_t g_nextProbe = 0;
__thread Slot *t_ownSlot = nullptr;  // the slot of the calling thread, if the module started it

uint32_t Load(const uint32_t *word) { return __atomic_load_n(word, __ATOMIC_ACQUIRE); }
uint32_t Capacity(int chunks) { return kFirstChunk * ((1u << chunks) - 1); }

Slot *At(uint32_t index) {
    const uint32_t chunk = 31 - static_cast<uint32_t>(__builtin_clz(index / kFirstChunk + 1));
    return __atomic_load_n(&g_chunks[chunk], __ATOMIC_ACQUIRE) + (index - Capacity(static_cast<int>(chunk)));
}

// Calls visit on every slot until it returns true; that slot, or null.
template <typename Visit>
Slot *FindSlot(Visit visit) {
    const uint32_t capacity = Capacity(__atomic_load_n(&g_chunkCount, __ATOMIC_ACQUIRE));
    for (uint32_t i = 0; i < capacity; i++)
        if (Slot *slot = At(i); visit(slot)) return slot;
    return nullptr;
}

void GiveBack(Slot *slot) {
    __atomic_store_n(&slot->id, pthread_t{}, __ATOMIC_RELAXED);
    __atomic_store_n(&slot->state, 0u, __ATOMIC_RELEASE);
}

bool Claim(Slot *slot, uint32_t taken) {
    uint32_t expected = 0;
    return Load(&slot->state) == 0 &&
           __atomic_compare_exchange_n(&slot->state, &expected, taken, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED);
}

// Adds the next chunk (another thread may be adding it too); false when none can be had.
bool Grow(int chunks) {
    if (chunks == kMaxChunks) return false;
    const size_t bytes = (sizeof(Slot) * kFirstChunk) << chunks;
    vokt::KeptForProcess kept;  // the slots are kept for the life of the process
    auto *chunk = static_cast<Slot *>(vokt::Alloc(bytes));
    if (!chunk) return false;
    memset(chunk, 0, bytes);
    Slot *none = nullptr;
    // Losing the race acquires the winner's chunk, so that the count published below
    // publishes that chunk too.
    if (!__atomic_compare_exchange_n(&g_chunks[chunks], &none, chunk, false, __ATOMIC_RELEASE, __ATOMIC_ACQUIRE))
        vokt::Free(chunk);
    int count = chunks;
    __atomic_compare_exchange_n(&g_chunkCount, &count, chunks + 1, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED);
    return true;
}

// A free slot, taken; null when every slot is in use and no more can be had.
Slot *TakeSlot(uint32_t joinable) {
    const uint32_t taken = kTaken | (joinable ? kJoinable : 0);
    for (;;) {
        const int chunks = __atomic_load_n(&g_chunkCount, __ATOMIC_ACQUIRE);
        const uint32_t capacity = Capacity(chunks);
        const uint32_t first = __atomic_fetch_add(&g_nextProbe, 1, __ATOMIC_RELAXED);
        for (uint32_t k = 0; k < kProbes; k++)
            if (Slot *slot = At((first + k) % capacity); Claim(slot, taken)) return slot;
        if (!Grow(chunks)) return FindSlot([&](Slot *slot) { return Claim(slot, taken); });
    }
}

// Runs when a thread started here ends: after its routine returns, and when it calls
// pthread_exit or is cancelled.
void ThreadEnded(void *value) {
    auto *slot = static_cast<Slot *>(value);
    t_ownSlot = nullptr;
    const uint32_t before = __atomic_fetch_or(&slot->state, kEnded, __ATOMIC_ACQ_REL);
    if (!(before & kJoinable) && (before & kStarted)) GiveBack(slot);
}

void *Trampoline(void *value) {
    auto *slot = static_cast<Slot *>(value);
    t_ownSlot = slot;
    void *result = nullptr;
    pthread_cleanup_push(ThreadEnded, slot);
    result = slot->routine(slot->argument);
    pthread_cleanup_pop(1);
    return result;
}

// Starts the thread through the trampoline. Without a slot to record it in, no thread is
// started: one the module could not answer for, or join, would be worse than none.
int StartThread(pthread_t *id, const pthread_attr_t *attributes, ThreadRoutine routine, void *argument,
                int32_t joinable) {
    Slot *slot = TakeSlot(static_cast<uint32_t>(joinable));
    if (!slot) return errno = EAGAIN;
    slot->routine = routine;
    slot->argument = argument;
    pthread_t started;
    const int rc = pthread_create(&started, attributes, Trampoline, slot);
    if (rc != 0) {
        GiveBack(slot);
        return rc;
    }
    *id = started;
    __atomic_store_n(&slot->id, started, __ATOMIC_RELAXED);
    const uint32_t before = __atomic_fetch_or(&slot->state, kStarted, __ATOMIC_ACQ_REL);
    if (!(before & kJoinable) && (before & kEnded)) GiveBack(slot);  // it has come and gone
    return 0;
}

// Every creation step runs whatever the earlier ones did; the numbers printed are errno
// at that moment, as the texts have always shown them.
void CreateThread(Thread *t, ThreadRoutine routine, void *argument, int32_t joinable) {
    t->bIsJoinable = joinable;
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0)
        fprintf(stderr, "Could not create new thread: pthread_attr_init failed with errno=%d", errno);
    if (pthread_attr_setdetachstate(&attributes, joinable ? PTHREAD_CREATE_JOINABLE : PTHREAD_CREATE_DETACHED) != 0)
        fprintf(stderr, "Could not create new thread: pthread_attr_setdetachstate failed with errno=%d", errno);
    if (StartThread(&t->id, &attributes, routine, argument, joinable) != 0)
        fprintf(stderr, "Could not create new thread, errno=%d", errno);
    if (pthread_attr_destroy(&attributes) != 0)
        fprintf(stderr, "Could not create new thread: pthread_attr_destroy failed with errno=%d", errno);
}

bool Names(const Slot *slot, uint32_t state, pthread_t id) {
    return (state & kStarted) && pthread_equal(__atomic_load_n(&slot->id, __ATOMIC_RELAXED), id);
}

// The slot of a joinable thread with this identifier that nobody has joined, now claimed
// for a join; null when there is none.
Slot *ClaimJoin(pthread_t id) {
    return FindSlot([id](Slot *slot) {
        for (uint32_t state = Load(&slot->state); Names(slot, state, id) && (state & kJoinable) && !(state & kJoining);)
            if (__atomic_compare_exchange_n(&slot->state, &state, state | kJoining, false, __ATOMIC_ACQ_REL,
                                            __ATOMIC_ACQUIRE))
                return true;
        return false;
    });
}

// True while a thread started here under this identifier has not ended.
bool Running(pthread_t id) {
    return FindSlot([id](Slot *slot) {
               const uint32_t state = Load(&slot->state);
               return Names(slot, state, id) && !(state & kEnded);
           }) != nullptr;
}

}  // namespace

namespace vokt {

__thread Identity t_identity __attribute__((tls_model("initial-exec"))) = {};
#ifdef VOKT_DIRECT_LOCK
const bool g_directLock = DirectLockUsable();
#else
const bool g_directLock = false;
#endif

// Mutex_Lock whole: try; when that fails, compare the owner with the caller (only the
// holder can see its own identifier there, so an unlocked read is enough); block unless
// the caller holds it already; then hold. A POSIX mutex that the caller made recursive
// lets its holder's try through and counts a level of its own, which the last unlock would
// never release: that level is given back at once (a default one refuses its holder).
[[gnu::noinline]] void LockGeneral(Mutex *m) {
    const pthread_t self = Known().self;
    if (TryLock(&m->mutex)) {
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
    ReportAssertion("m->spinCount>0", 103);
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
    StoreOwner(m, 0);
    m->spinCount = 0;
    if (vokt::Checking(vokt::kCheckLocks)) vokt::MutexMade(m);
}

void Mutex_Lock(Mutex *m) { vokt::Lock(m); }

void Mutex_Unlock(Mutex *m) { vokt::Unlock(m); }

void Mutex_Destroy(Mutex *m) {
    // Deliberately empty: the mutex may be initialised and used again.
    (void)m;
}

void Condition_Init(Condition *c) {
    if (c) InitSignal(c);
}

void Condition_Destroy(Condition *c) {
    if (c) DestroySignal(c);
}

void Condition_Signal(Condition *c) {
    if (!c) return;
    pthread_mutex_lock(&c->mutex.mutex);
    c->bSignalled = 1;
    const int rc = pthread_cond_signal(&c->condition);
    if (rc != 0) fprintf(stderr, "Error returned by pthread_cond_signal: %d\n", rc);
    pthread_mutex_unlock(&c->mutex.mutex);
}

int32_t Condition_Wait(Condition *c) { return c ? WaitCondition(c, nullptr) : 0; }

int32_t Condition_TimedWait(Condition *c, uint64_t ms) {
    if (!c) return 0;
    const timespec deadline = Deadline(ms);
    return WaitCondition(c, &deadline);
}

void Event_Init(Event *e) {
    if (e) InitSignal(e);
}

void Event_Destroy(Event *e) {
    if (e) DestroySignal(e);
}

void Event_SetState(Event *e, int32_t state) {
    if (!e) return;
    pthread_mutex_lock(&e->mutex.mutex);
    SetStateLocked(e, state);
    pthread_mutex_unlock(&e->mutex.mutex);
}

int32_t Event_Wait(Event *e) { return e ? WaitEvent(e, nullptr) : 0; }

int32_t Event_TimedWait(Event *e, uint64_t ms) {
    if (!e) return 0;
    // Computed once, so spurious wake-ups never extend the wait.
    const timespec deadline = Deadline(ms);
    return WaitEvent(e, &deadline);
}

void Counter_Init(Counter *c) {
    if (!c) return;
    Mutex_Init(&c->lock);
    Event_Init(&c->zeroEvent);
    c->value = 0;
    Event_SetState(&c->zeroEvent, 1);
}

void Counter_Destroy(Counter *c) {
    if (!c) return;
    Mutex_Destroy(&c->lock);
    Event_Destroy(&c->zeroEvent);
}

void Counter_Increment(Counter *cnt) {
    if (!cnt) return;
    Mutex_Lock(&cnt->lock);
    SYNC_ASSERT(cnt->value>=0, 377);
    if (cnt->value == 0) Event_SetState(&cnt->zeroEvent, 0);
    cnt->value++;
    Mutex_Unlock(&cnt->lock);
}

void Counter_Decrement(Counter *cnt) {
    if (!cnt) return;
    Mutex_Lock(&cnt->lock);
    SYNC_ASSERT(cnt->value>0, 388);
    cnt->value--;
    if (cnt->value != 0) {
        Mutex_Unlock(&cnt->lock);
        return;
    }
    // A waiter may free the Counter as soon as it sees it idle, so the event's own mutex
    // is released last: once a waiter holds it, this thread is done with the Counter.
    Mutex *inner = &cnt->zeroEvent.mutex;
    pthread_mutex_lock(&inner->mutex);
    SetStateLocked(&cnt->zeroEvent, 1);
    Mutex_Unlock(&cnt->lock);
    pthread_mutex_unlock(&inner->mutex);
}

int32_t Counter_GetValue(Counter *cnt) {
    if (!cnt) return 0;
    Mutex_Lock(&cnt->lock);
    const int32_t value = cnt->value;
    SYNC_ASSERT(cnt->value>=0, 400);
    Mutex_Unlock(&cnt->lock);
    if (value == 0) {
        // The decrement that brought it to zero may still be releasing the event; wait for
        // it, so that a caller who frees an idle Counter frees it after that thread.
        pthread_mutex_lock(&cnt->zeroEvent.mutex.mutex);
        pthread_mutex_unlock(&cnt->zeroEvent.mutex.mutex);
    }
    return value;
}

void Thread_Create(Thread *t, ThreadRoutine routine, void *argument) {
    if (t) CreateThread(t, routine, argument, 0);
}

void Thread_CreateJoinable(Thread *t, ThreadRoutine routine, void *argument) {
    if (t) CreateThread(t, routine, argument, 1);
}

void Thread_Join(Thread thread) {
    SYNC_ASSERT(thread.bIsJoinable, 462);
    // Only a thread this module started, joinable and not yet joined, is handed to the C
    // library: joining anything else (a detached thread, a record joined already) would
    // read memory that may by now belong to another thread.
    Slot *slot = ClaimJoin(thread.id);
    if (slot && pthread_join(thread.id, nullptr) == 0) return GiveBack(slot);
    if (slot) __atomic_fetch_and(&slot->state, ~kJoining, __ATOMIC_ACQ_REL);
    fputs("Could not join thread", stderr);
}

int32_t Thread_HasExited(Thread thread) {
    SYNC_ASSERT(thread.bIsJoinable, 480);
    return Running(thread.id) ? 0 : 1;
}

int32_t Thread_IsSuspended(Thread thread) {
    SYNC_ASSERT(thread.bIsJoinable, 493);
    return 0;
}

pthread_t Thread_GetCurrentThreadID(void) { return pthread_self(); }

}  // extern "C"

namespace vokt {

// In a child of fork() only the forking thread exists: every other slot is given back, so
// the child neither waits for nor joins a thread it does not have.
void ThreadRegistryForkChild() {
    t_identity.tid = 0;
    FindSlot([](Slot *slot) {
        if (slot != t_ownSlot && Load(&slot->state) != 0) GiveBack(slot);
        return false;
    });
}

}  // namespace vokt
