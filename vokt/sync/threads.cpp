// SPDX-License-Identifier: MIT
// Threads started through a trampoline that records each one's end in a slot of its own, so
// that a record answers for its thread until it is joined. The thread layer's records are
// the caller's; the only memory it takes is room for more slots, when more threads run at
// once than its static slots hold.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "vokt/internal/alloc.h"
#include "vokt/internal/assert.h"
#include "vokt/internal/fork.h"
#include "vokt/sync/vokt_sync.h"

namespace {

constexpr char kModule[] = "vokt_sync";

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

extern "C" {

void Thread_Create(Thread *t, ThreadRoutine routine, void *argument) {
    if (t) CreateThread(t, routine, argument, 0);
}

void Thread_CreateJoinable(Thread *t, ThreadRoutine routine, void *argument) {
    if (t) CreateThread(t, routine, argument, 1);
}

void Thread_Join(Thread thread) {
    VOKT_ASSERT_ON_STDERR(thread.bIsJoinable, 462);
    // Only a thread this module started, joinable and not yet joined, is handed to the C
    // library: joining anything else (a detached thread, a record joined already) would
    // read memory that may by now belong to another thread.
    Slot *slot = ClaimJoin(thread.id);
    if (slot && pthread_join(thread.id, nullptr) == 0) return GiveBack(slot);
    if (slot) __atomic_fetch_and(&slot->state, ~kJoining, __ATOMIC_ACQ_REL);
    fputs("Could not join thread", stderr);
}

int32_t Thread_HasExited(Thread thread) {
    VOKT_ASSERT_ON_STDERR(thread.bIsJoinable, 480);
    return Running(thread.id) ? 0 : 1;
}

int32_t Thread_IsSuspended(Thread thread) {
    VOKT_ASSERT_ON_STDERR(thread.bIsJoinable, 493);
    return 0;
}

pthread_t Thread_GetCurrentThreadID(void) { return pthread_self(); }

}  // extern "C"

namespace vokt {

// In a child of fork() only the forking thread exists: every other slot is given back, so
// the child neither waits for nor joins a thread it does not have.
void ThreadRegistryForkChild() {
    FindSlot([](Slot *slot) {
        if (slot != t_ownSlot && Load(&slot->state) != 0) GiveBack(slot);
        return false;
    });
}

}  // namespace vokt
