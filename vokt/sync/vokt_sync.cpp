// Synchronisation records over POSIX threads. This module sits below the log, so it
// reports its own failures on standard error. The records are the caller's; the only
// memory it takes is one small registry entry per thread it starts.
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
// Race checkers see lock operations only through the pthread calls they intercept: the
// thread sanitizer's runtime is in the program, valgrind's tools are preloaded.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the sanitizer runtime's own name
extern "C" void __tsan_init() __attribute__((weak));
bool Watched() {
    if (__tsan_init != nullptr) return true;
    const char *preload = getenv("LD_PRELOAD");  // NOLINT(concurrency-mt-unsafe): read once at load
    return preload && (strstr(preload, "helgrind") || strstr(preload, "drd"));
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
// thread has ended (the C library keeps answering for an ended thread until it is
// joined), so each thread runs through a trampoline that records its end here. Joined
// and ended detached threads leave their identifier in a ring of the most recent ones.
struct ThreadEntry {
    ThreadEntry *next;
    pthread_t id;
    bool ended;
    int32_t joinable;
    ThreadRoutine routine;
    void *argument;
};

constexpr int kGoneThreads = 256;
pthread_mutex_t g_threadsLock = PTHREAD_MUTEX_INITIALIZER;
ThreadEntry *g_threads = nullptr;
pthread_t g_gone[kGoneThreads];
int g_goneNext = 0;
pthread_once_t g_endKeyOnce = PTHREAD_ONCE_INIT;
pthread_key_t g_endKey;
bool g_endKeyMade = false;

void Unlink(ThreadEntry *entry) {
    for (ThreadEntry **link = &g_threads; *link; link = &(*link)->next) {
        if (*link == entry) {
            *link = entry->next;
            return;
        }
    }
}

ThreadEntry *Find(pthread_t id) {
    for (ThreadEntry *e = g_threads; e; e = e->next)
        if (pthread_equal(e->id, id)) return e;
    return nullptr;
}

int GoneSlot(pthread_t id) {
    for (int i = 0; i < kGoneThreads; i++)
        if (g_gone[i] && pthread_equal(g_gone[i], id)) return i;
    return -1;
}

void RememberGone(pthread_t id) {
    g_gone[g_goneNext] = id;
    g_goneNext = (g_goneNext + 1) % kGoneThreads;
}

// Runs at the end of every thread started here, after a return and after pthread_exit
// alike. An ended detached thread is nobody's to join, so its entry goes at once.
void ThreadEnded(void *value) {
    auto *entry = static_cast<ThreadEntry *>(value);
    pthread_mutex_lock(&g_threadsLock);
    entry->ended = true;
    const bool detached = !entry->joinable;
    if (detached) {
        Unlink(entry);
        RememberGone(entry->id);
    }
    pthread_mutex_unlock(&g_threadsLock);
    if (detached) vokt::Free(entry);
}

void MakeEndKey() { g_endKeyMade = pthread_key_create(&g_endKey, ThreadEnded) == 0; }

void *Trampoline(void *value) {
    auto *entry = static_cast<ThreadEntry *>(value);
    pthread_setspecific(g_endKey, entry);
    return entry->routine(entry->argument);
}

// Starts the thread through the trampoline, with a registry entry; without one (no key,
// no memory) it starts plainly and is answered for as a thread started elsewhere. The
// registry stays locked until the entry is complete, so the new thread cannot end (and
// release a detached entry) before that.
int StartThread(pthread_t *id, const pthread_attr_t *attributes, ThreadRoutine routine, void *argument,
                int32_t joinable) {
    pthread_once(&g_endKeyOnce, MakeEndKey);
    auto *entry = g_endKeyMade ? static_cast<ThreadEntry *>(vokt::Alloc(sizeof(ThreadEntry))) : nullptr;
    if (!entry) return pthread_create(id, attributes, routine, argument);
    *entry = ThreadEntry{nullptr, pthread_t{}, false, joinable, routine, argument};
    pthread_mutex_lock(&g_threadsLock);
    const int rc = pthread_create(id, attributes, Trampoline, entry);
    if (rc == 0) {
        entry->id = *id;
        entry->next = g_threads;
        g_threads = entry;
        const int slot = GoneSlot(*id);  // the identifier is in use again
        if (slot >= 0) g_gone[slot] = 0;
    }
    pthread_mutex_unlock(&g_threadsLock);
    if (rc != 0) vokt::Free(entry);
    return rc;
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

// After a successful join the thread is gone: its entry goes and its identifier is
// remembered as ended.
void Joined(pthread_t id) {
    pthread_mutex_lock(&g_threadsLock);
    ThreadEntry *entry = Find(id);
    if (entry) Unlink(entry);
    RememberGone(id);
    pthread_mutex_unlock(&g_threadsLock);
    vokt::Free(entry);
}

// 1 or 0 from the registry, -1 for a thread this module did not start.
int32_t RegistryAnswer(pthread_t id) {
    pthread_mutex_lock(&g_threadsLock);
    const ThreadEntry *entry = Find(id);
    const int32_t answer = entry ? (entry->ended ? 1 : 0) : (GoneSlot(id) >= 0 ? 1 : -1);
    pthread_mutex_unlock(&g_threadsLock);
    return answer;
}

}  // namespace

namespace vokt {

__thread Identity t_identity __attribute__((tls_model("initial-exec"))) = {};
#ifdef VOKT_DIRECT_LOCK
const bool g_directLock = !Watched();
#else
const bool g_directLock = false;
#endif

// Mutex_Lock whole: try; when that fails, compare the owner with the caller (only the
// holder can see its own identifier there, so an unlocked read is enough); block unless
// the caller holds it already; then hold.
[[gnu::noinline]] void LockGeneral(Mutex *m) {
    if (!TryLock(&m->mutex) && LoadOwner(m) != Known().self) pthread_mutex_lock(&m->mutex);
    Hold(m, Known().self);
}

[[gnu::noinline]] void Block(Mutex *m, pthread_t self) {
    pthread_mutex_lock(&m->mutex);
    Hold(m, self);
}

[[gnu::cold, gnu::noinline]] void ReleaseReported(Mutex *m) {
    ReportAssertion("m->spinCount>0", 103);
    Release(m);
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
    if (pthread_join(thread.id, nullptr) != 0)
        fputs("Could not join thread", stderr);
    else
        Joined(thread.id);
}

int32_t Thread_HasExited(Thread thread) {
    SYNC_ASSERT(thread.bIsJoinable, 480);
    const int32_t known = RegistryAnswer(thread.id);
    if (known >= 0) return known;
    // A thread started elsewhere: the system's own answer is all there is.
    return pthread_kill(thread.id, 0) == ESRCH ? 1 : 0;
}

int32_t Thread_IsSuspended(Thread thread) {
    SYNC_ASSERT(thread.bIsJoinable, 493);
    return 0;
}

pthread_t Thread_GetCurrentThreadID(void) { return pthread_self(); }

}  // extern "C"

namespace vokt {

void ThreadRegistryForkPrepare() { pthread_mutex_lock(&g_threadsLock); }

void ThreadRegistryForkRelease(bool child) {
    if (child) {
        t_identity.tid = 0;
        const pthread_t self = pthread_self();
        for (ThreadEntry *e = g_threads; e; e = e->next)
            if (!pthread_equal(e->id, self)) e->ended = true;
    }
    pthread_mutex_unlock(&g_threadsLock);
}

}  // namespace vokt
