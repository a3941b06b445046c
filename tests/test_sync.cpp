// SPDX-License-Identifier: MIT
#include <dlfcn.h>
#include <errno.h>
#include <gnu/libc-version.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __GLIBC__
#include <sys/single_threaded.h>
#endif

#include <atomic>
#include <chrono>
#include <vector>

#include "support.h"
#include "vokt/sync/vokt_sync.h"

// The C library's pthread_create and pthread_mutex_trylock as the library reaches them,
// through this program's own: a test can make a creation fail, or return only once the new
// thread has wholly ended, and can count the trylocks made on its own thread.
namespace {
enum class Creation { kPlain, kFail, kAfterTheEnd };
std::atomic<Creation> g_creation{Creation::kPlain};
std::atomic<bool> g_threadGone{false};
thread_local long t_trylocks = 0;

template <typename F>
F *Next(const char *name) {
    return reinterpret_cast<F *>(dlsym(RTLD_NEXT, name));
}
}  // namespace

extern "C" int pthread_create(pthread_t *id, const pthread_attr_t *attributes, void *(*routine)(void *), void *arg) {
    static auto *const real = Next<int(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *)>("pthread_create");
    if (g_creation == Creation::kFail) return EAGAIN;
    g_threadGone = false;
    const int rc = real(id, attributes, routine, arg);
    if (rc == 0 && g_creation == Creation::kAfterTheEnd) test::WaitFor("the new thread to end", [] { return g_threadGone.load(); });
    return rc;
}

extern "C" int pthread_mutex_trylock(pthread_mutex_t *mutex) {
    static auto *const real = Next<int(pthread_mutex_t *)>("pthread_mutex_trylock");
    t_trylocks++;
    return real(mutex);
}

namespace {

std::string Report(const char *expression, int line) {
    return std::string("Assertion failed: ") + expression + " in file vokt_sync on line " + std::to_string(line) + "\n";
}

struct Shared {
    Mutex mutex;
    Event event;
    std::atomic<int> stage{0};
};

void *LockAndMark(void *arg) {
    auto *s = static_cast<Shared *>(arg);
    Mutex_Lock(&s->mutex);
    s->stage++;
    Mutex_Unlock(&s->mutex);
    return nullptr;
}

void *WaitForEvent(void *arg) {
    auto *s = static_cast<Shared *>(arg);
    if (Event_Wait(&s->event) == 1) s->stage++;
    return nullptr;
}

// Locks s's mutex on another thread; with glibc, returns once that thread sleeps on it.
void StartLocker(Shared *s, Thread *t) {
    Thread_CreateJoinable(t, LockAndMark, s);
#ifdef __GLIBC__
    test::WaitFor("the other thread to sleep on the lock", [s] { return s->mutex.mutex.__data.__lock > 1; });
#endif
}

TEST(Sync, MutexIsRecursiveAndHandedOverOnlyAfterTheLastUnlock) {
    static Shared s;  // static: a thread that never gets the lock is left behind
    Mutex_Init(&s.mutex);
    for (int i = 0; i < 3; i++) Mutex_Lock(&s.mutex);
    EXPECT_EQ(s.mutex.spinCount, 3);
    EXPECT_TRUE(pthread_equal(s.mutex.owner, Thread_GetCurrentThreadID()));
    Thread t;
    StartLocker(&s, &t);
    for (int i = 2; i >= 1; i--) {
        Mutex_Unlock(&s.mutex);
        EXPECT_EQ(s.mutex.spinCount, i);
        EXPECT_EQ(pthread_mutex_trylock(&s.mutex.mutex), EBUSY) << "released with " << i << " levels held";
    }
    Mutex_Unlock(&s.mutex);
    ASSERT_TRUE(test::WaitFor("the other thread to get the lock after the last unlock", [] { return s.stage == 1; }));
    Thread_Join(t);
    // Unlocking a free mutex is reported, leaves -1 and does not touch the POSIX mutex.
    test::ChecksOff mistake;
    EXPECT_EQ(test::Stderr([&] { Mutex_Unlock(&s.mutex); }), Report("m->spinCount>0", 103));
    EXPECT_EQ(s.mutex.spinCount, -1);
    EXPECT_EQ(pthread_mutex_trylock(&s.mutex.mutex), 0);
}

// The C library must find a Mutex's POSIX mutex as if it had locked it itself: busy for
// other threads while held, owned by the holding thread, and every byte as before once
// released, whatever kind the caller made it.
void ExpectPosixViewOfTheLock(int kind = PTHREAD_MUTEX_DEFAULT) {
    static Mutex m;
    Mutex_Init(&m);
    if (kind != PTHREAD_MUTEX_DEFAULT) {  // a caller may remake the POSIX mutex of another kind
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, kind);
        pthread_mutex_init(&m.mutex, &attributes);
    }
    const pthread_mutex_t fresh = m.mutex;
    Mutex_Lock(&m);
    Mutex_Lock(&m);
    test::Finishes("another thread's trylock", [] { EXPECT_EQ(pthread_mutex_trylock(&m.mutex), EBUSY); });
#ifdef __GLIBC__
    EXPECT_EQ(m.mutex.__data.__owner, gettid());
#endif
    Mutex_Unlock(&m);
    Mutex_Unlock(&m);
    EXPECT_EQ(memcmp(&fresh, &m.mutex, sizeof fresh), 0) << "kind " << kind;
    test::Finishes("another thread's lock", [] { Mutex_Lock(&m), Mutex_Unlock(&m); });
    EXPECT_EQ(pthread_mutex_destroy(&m.mutex), 0);
}

TEST(Sync, PosixMutexSeesTheLockAsItsOwn) {
    ExpectPosixViewOfTheLock();
    EXPECT_EQ(test::InChild([] { ExpectPosixViewOfTheLock(); }), 0);  // a new kernel identifier
    for (int kind : {PTHREAD_MUTEX_ERRORCHECK, PTHREAD_MUTEX_RECURSIVE}) ExpectPosixViewOfTheLock(kind);
}

// An uncontended lock makes no call into the C library where the direct steps are built and
// the running glibc is one they were read against (2.32 to 2.42); any other kind of mutex
// always goes through its calls.
TEST(Sync, UncontendedLocksSkipTheCLibraryWhereTheyCan) {
#if defined(VOKT_TEST_DIRECT_LOCK) && defined(__GLIBC__)
    int major = 0, minor = 0;
    sscanf(gnu_get_libc_version(), "%d.%d", &major, &minor);
    const bool direct = major == 2 && minor >= 32 && minor <= 42;
#else
    const bool direct = false;
#endif
    Mutex plain, checked;
    Mutex_Init(&plain);
    Mutex_Init(&checked);
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&checked.mutex, &attributes);
    for (Mutex *m : {&plain, &checked}) {
        const long before = t_trylocks;
        for (int i = 0; i < 100; i++) Mutex_Lock(m), Mutex_Unlock(m);
        // Under a race checker every lock is taken blocking, never tried.
        const long tried = test::kThreadSanitizer || (m == &plain && direct) ? 0 : 100;
        EXPECT_EQ(t_trylocks - before, tried) << (m == &plain ? "default" : "error-checking");
    }
}

#ifdef __GLIBC__
// One POSIX mutex used three ways at once: this thread takes it as a vokt Mutex, another
// waits on a condition with it (glibc's pthread_cond_wait), a third locks it plainly.
struct SharedMutex {
    Mutex m;
    pthread_cond_t turned = PTHREAD_COND_INITIALIZER;
    int turn = 0;
    std::atomic<int> finished{0};
};
constexpr int kTurns = 2000;

void *WaitForEveryTurn(void *arg) {
    auto *x = static_cast<SharedMutex *>(arg);
    pthread_mutex_lock(&x->m.mutex);
    while (x->turn < kTurns) pthread_cond_wait(&x->turned, &x->m.mutex);
    pthread_mutex_unlock(&x->m.mutex);
    x->finished++;
    return nullptr;
}

void *LockPlainly(void *arg) {
    auto *x = static_cast<SharedMutex *>(arg);
    for (int i = 0; i < kTurns; i++) pthread_mutex_lock(&x->m.mutex), pthread_mutex_unlock(&x->m.mutex);
    x->finished++;
    return nullptr;
}

TEST(Sync, MutexSharesItsPosixMutexWithTheCLibrary) {
    static SharedMutex x;  // static: a failed wait leaves the other two threads behind
    Mutex_Init(&x.m);
    Thread waiter, locker;
    Thread_CreateJoinable(&waiter, WaitForEveryTurn, &x);
    Thread_CreateJoinable(&locker, LockPlainly, &x);
    for (int i = 1; i <= kTurns; i++) {
        Mutex_Lock(&x.m);
        if (x.m.mutex.__data.__owner != gettid()) ADD_FAILURE() << "not the owner in turn " << i;
        if (x.m.spinCount != 1) ADD_FAILURE() << "depth " << x.m.spinCount << " in turn " << i;
        x.turn = i;
        pthread_cond_signal(&x.turned);
        Mutex_Unlock(&x.m);
        if (x.m.mutex.__data.__owner == gettid()) ADD_FAILURE() << "still the owner after turn " << i;
    }
    ASSERT_TRUE(test::WaitFor("the condition waiter and the plain locker to finish", [] { return x.finished.load() == 2; }));
    Thread_Join(waiter);
    Thread_Join(locker);
    EXPECT_EQ(x.m.mutex.__data.__lock, 0);
    EXPECT_EQ(x.m.mutex.__data.__owner, 0);
    EXPECT_EQ(x.m.mutex.__data.__nusers, 0u);
    EXPECT_EQ(pthread_mutex_destroy(&x.m.mutex), 0);
}
#endif

// A Mutex held while another thread comes to sleep on it wakes that thread at its release,
// however the holder took it.
void HandOver(Shared &s, int rounds) {
    Mutex_Init(&s.mutex);
    s.stage = 0;
    for (int round = 1; round <= rounds; round++) {
        Mutex_Lock(&s.mutex);
        Thread t;
        StartLocker(&s, &t);
        Mutex_Unlock(&s.mutex);
        ASSERT_TRUE(test::WaitFor("the sleeper to be woken and take the lock", [&] { return s.stage.load() == round; }));
        Thread_Join(t);
    }
}

// Taken while the process had one thread (the plain steps), a Mutex is still released with a
// wake once a thread started meanwhile sleeps on it; and in a child forked after a thread
// ended, which the C library counts as having several.
TEST(Sync, AMutexTakenAloneWakesAThreadStartedMeanwhile) {
    if (!test::InFreshProcess()) return;
    static Shared s;
    HandOver(s, 2);
    EXPECT_EQ(0, test::InChild([] { HandOver(s, 2); }));
}

// After the only thread cancelled itself, the C library's exported single-thread flag (in
// this program's copy) stays set while other threads run; the lock must not rely on it.
TEST(Sync, ReleaseWakesASleeperAfterASelfCancel) {
    if (!test::InFreshProcess()) return;
#ifdef __GLIBC__
    // Read here, the flag is copied into this program, as into any program that reads it.
    [[maybe_unused]] const volatile char copy = __libc_single_threaded;
#endif
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_cancel(pthread_self());
    static Shared s;
    HandOver(s, 3);
}

// A signal given while nobody waits is kept for one wait; deadlines are absolute, their
// nanoseconds carried into the seconds.
TEST(Sync, ConditionKeepsOneSignalAndTimesOut) {
    static Condition c;
    Condition_Init(&c);
    Condition_Signal(&c);
    ASSERT_TRUE(test::Finishes("a wait on a kept signal", [] { EXPECT_EQ(Condition_Wait(&c), 1); }));
    EXPECT_EQ(Condition_TimedWait(&c, 0), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Condition_TimedWait(&c, 999), 0);  // 999 ms carries unless the clock is within 1 ms of a second
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(990));
    Condition_Destroy(&c);
}

Condition g_ping, g_pong;

void *Answer(void *) {
    for (int i = 0; i < 300; i++) {
        if (Condition_Wait(&g_ping) != 1) return nullptr;
        Condition_Signal(&g_pong);
    }
    return nullptr;
}

// Each signal wakes the waiting thread once, and is kept when nobody waits yet.
TEST(Sync, ConditionsHandTurnsBetweenThreads) {
    Condition_Init(&g_ping);
    Condition_Init(&g_pong);
    Thread t;
    Thread_CreateJoinable(&t, Answer, nullptr);
    for (int i = 1; i <= 300; i++) {
        Condition_Signal(&g_ping);
        ASSERT_EQ(Condition_TimedWait(&g_pong, 5000), 1) << "no answer to turn " << i;
    }
    Thread_Join(t);
}

TEST(Sync, EventReleasesEveryWaiterAndStaysSet) {
    static Shared s;
    Event_Init(&s.event);
    Thread a, b;
    Thread_CreateJoinable(&a, WaitForEvent, &s);
    Thread_CreateJoinable(&b, WaitForEvent, &s);
#ifdef __GLIBC__
    test::WaitFor("two waiters on the event", [] { return s.event.condition.__data.__wrefs >> 3 == 2; });
#endif
    Event_SetState(&s.event, 1);
    ASSERT_TRUE(test::WaitFor("both waiters to be released", [] { return s.stage == 2; }));
    Thread_Join(a);
    Thread_Join(b);
    EXPECT_EQ(Event_TimedWait(&s.event, 0), 1) << "a set event stays set";
    Event_SetState(&s.event, 0);
    EXPECT_EQ(Event_TimedWait(&s.event, 50), 0);
    // Whole seconds pass through 32 signed bits: 2^31 seconds wraps into the past.
    EXPECT_TRUE(test::Finishes("a wait of 2^31 seconds", [] { EXPECT_EQ(Event_TimedWait(&s.event, 2147483648ULL * 1000), 0); }));
}

void *Churn(void *arg) {
    for (int i = 0; i < 2000; i++) Counter_Increment(static_cast<Counter *>(arg)), Counter_Decrement(static_cast<Counter *>(arg));
    return nullptr;
}

TEST(Sync, CounterZeroEventFollowsTheCount) {
    static Counter c;
    Counter_Init(&c);
    EXPECT_EQ(Event_TimedWait(&c.zeroEvent, 0), 1);
    Counter_Increment(&c);
    Counter_Increment(&c);
    Counter_Decrement(&c);
    EXPECT_EQ(Event_TimedWait(&c.zeroEvent, 0), 0);
    ASSERT_TRUE(test::Finishes("another thread's increment after a decrement to 1", [] { Counter_Increment(&c); }));
    Counter_Decrement(&c);
    Counter_Decrement(&c);
    EXPECT_EQ(Event_TimedWait(&c.zeroEvent, 0), 1);
    Thread threads[4];
    for (auto &t : threads) Thread_CreateJoinable(&t, Churn, &c);
    for (auto &t : threads) Thread_Join(t);
    EXPECT_EQ(Counter_GetValue(&c), 0);
    EXPECT_EQ(Event_TimedWait(&c.zeroEvent, 0), 1);
    // Below zero: reported, kept, and the event is not touched.
    EXPECT_EQ(test::Stderr([&] { Counter_Decrement(&c); }), Report("cnt->value>0", 388));
    int32_t value = 0;
    EXPECT_EQ(test::Stderr([&] { value = Counter_GetValue(&c); }), Report("cnt->value>=0", 400));
    EXPECT_EQ(value, -1);
    EXPECT_EQ(Event_TimedWait(&c.zeroEvent, 0), 1) << "a decrement below zero leaves the event as it was";
    EXPECT_EQ(test::Stderr([&] { Counter_Increment(&c); }), Report("cnt->value>=0", 377));
    Counter_Destroy(&c);
}

void *Decrement(void *arg) {
    Counter_Decrement(static_cast<Counter *>(arg));
    return nullptr;
}

// The thread that brings a Counter to zero is done with it before a waiter can see zero.
TEST(Sync, CounterCanBeFreedAsSoonAsItIsIdle) {
    for (int round = 0; round < 300; round++) {
        auto *c = static_cast<Counter *>(malloc(sizeof(Counter)));
        Counter_Init(c);
        Counter_Increment(c);
        Thread t;
        Thread_CreateJoinable(&t, Decrement, c);
        ASSERT_EQ(Event_TimedWait(&c->zeroEvent, 5000), 1);
        Counter_Destroy(c);
        memset(c, 0xff, sizeof(Counter));  // what the next owner of the memory might write
        free(c);
        Thread_Join(t);
    }
}

void *ExitEarly(void *) { pthread_exit(nullptr); }

// A record filled by the library answers for its own thread, ended or not, until it is
// joined; a spent record is never handed to the C library again, however many threads
// have come and gone since. Detached records are reported, and never joined.
TEST(Sync, HasExitedAnswersForItsOwnThread) {
    Thread t;
    Thread_CreateJoinable(&t, ExitEarly, nullptr);
    test::WaitFor("a thread that called pthread_exit to read as exited", [&] { return Thread_HasExited(t) == 1; });
    EXPECT_EQ(Thread_IsSuspended(t), 0);
    EXPECT_EQ(test::Stderr([&] { Thread_Join(t); }), "") << "the first join of an ended thread";
    EXPECT_EQ(Thread_HasExited(t), 1);
    EXPECT_EQ(test::Stderr([&] { Thread_Join(t); }), "Could not join thread") << "a spent record is not joined again";
    const Thread spent = t;
    static Shared s;
    Event_Init(&s.event);
    std::vector<Thread> many(300);  // identifiers of their own, the spent one's probably among them
    for (Thread &m : many) Thread_CreateJoinable(&m, WaitForEvent, &s);
    EXPECT_EQ(Thread_HasExited(many.back()), 0);
    Event_SetState(&s.event, 1);
    for (const Thread &m : many) Thread_Join(m);
    EXPECT_EQ(Thread_HasExited(spent), 1);
    Event_SetState(&s.event, 0);
    Thread detached;
    Thread_Create(&detached, WaitForEvent, &s);
    EXPECT_EQ(test::Stderr([&] { EXPECT_EQ(Thread_HasExited(detached), 0); }), Report("thread.bIsJoinable", 480));
    EXPECT_EQ(test::Stderr([&] { EXPECT_EQ(Thread_IsSuspended(detached), 0); }), Report("thread.bIsJoinable", 493));
    EXPECT_EQ(test::Stderr([&] { Thread_Join(detached); }), Report("thread.bIsJoinable", 462) + "Could not join thread");
    Event_SetState(&s.event, 1);
    int32_t exited = 0;
    test::WaitFor("a detached thread to read as exited", [&] {
        test::Stderr([&] { exited = Thread_HasExited(detached); });
        return exited == 1;
    });
    // In a child of fork() only the forking thread exists: the others read as exited, and
    // joining one reports instead of waiting for ever.
    Event_SetState(&s.event, 0);
    Thread_CreateJoinable(&t, WaitForEvent, &s);
    EXPECT_EQ(test::InChild([&] {
        alarm(10);
        EXPECT_EQ(Thread_HasExited(t), 1);
        EXPECT_EQ(test::Stderr([&] { Thread_Join(t); }), "Could not join thread");
    }), 0);
    Event_SetState(&s.event, 1);
    Thread_Join(t);
}

struct Own {
    Thread record;
    Event filled;
    std::atomic<bool> triedItself{false};
    int child = -1;
};

void *JoinItselfThenFork(void *arg) {
    auto *own = static_cast<Own *>(arg);
    Event_Wait(&own->filled);
    // Fails: a thread cannot join itself. (The thread sanitizer would then forget the thread.)
    if (!test::kThreadSanitizer) Thread_Join(own->record);
    own->triedItself = true;
    const pid_t pid = fork();
    if (pid == 0) _exit(Thread_HasExited(own->record) == 0 ? 0 : 1);
    waitpid(pid, &own->child, 0);
    return nullptr;
}

// A join that fails leaves the record for another; in a child of fork(), the thread that
// forked is still running.
TEST(Sync, AThreadMeetsItsOwnRecord) {
    static Own own;
    Event_Init(&own.filled);
    EXPECT_EQ(test::Stderr([] {
        Thread_CreateJoinable(&own.record, JoinItselfThenFork, &own);
        Event_SetState(&own.filled, 1);
        test::WaitFor("the thread's join of itself", [] { return own.triedItself.load(); });
        Thread_Join(own.record);
    }), test::kThreadSanitizer ? "" : "Could not join thread");
    EXPECT_TRUE(WIFEXITED(own.child) && WEXITSTATUS(own.child) == 0) << "status " << own.child;
}

void *WaitForItsEvent(void *event) { return reinterpret_cast<void *>(static_cast<intptr_t>(Event_Wait(static_cast<Event *>(event)))); }

// Threads are recorded without allocating while few run at once, and every way a thread
// leaves gives its record's room back. When more run than that and no memory can be had,
// a thread is refused rather than started unrecorded, until room is given back.
TEST(Sync, ThreadsAreRecordedWithoutAllocating) {
    if (!test::InFreshProcess()) return;  // with the module's room as a new process has it
    test::FailFrom(1);
    static pthread_key_t atTheEnd;  // its destructor runs once the thread is wholly done
    pthread_key_create(&atTheEnd, [](void *) { g_threadGone = true; });
    const std::string churn = test::Stderr([] {
        for (int i = 0; i < 200; i++) {  // joined
            Thread t;
            Thread_CreateJoinable(&t, [](void *) -> void * { return nullptr; }, nullptr);
            Thread_Join(t);
        }
        g_creation = Creation::kFail;  // refused by the C library
        Thread t;
        for (int i = 0; i < 100; i++) Thread_CreateJoinable(&t, WaitForEvent, nullptr);
    });
    EXPECT_EQ(test::Count(churn, "Could not"), 100) << churn;
    g_creation = Creation::kAfterTheEnd;  // detached, and gone before its creator looks again
    EXPECT_EQ(test::Stderr([] {
        for (int i = 0; i < 100; i++) {
            Thread t;
            Thread_Create(&t, [](void *) -> void * { return pthread_setspecific(atTheEnd, &atTheEnd), nullptr; }, nullptr);
        }
    }), "");
    g_creation = Creation::kPlain;
    static Event events[300];
    std::vector<Thread> threads;
    std::string refused;
    while (refused.empty() && threads.size() < 300) {
        Thread t{};
        Event_Init(&events[threads.size()]);
        refused = test::Stderr([&] { Thread_CreateJoinable(&t, WaitForItsEvent, &events[threads.size()]); });
        if (refused.empty()) threads.push_back(t);
    }
    EXPECT_GE(threads.size(), 32u);
    EXPECT_EQ(refused, "Could not create new thread, errno=11");
    Event_SetState(&events[threads.size() - 1], 1);  // the newest ends: its room is found
    Thread_Join(threads.back());
    Event_SetState(&events[threads.size() - 1], 0);
    EXPECT_EQ(test::Stderr([&] { Thread_CreateJoinable(&threads.back(), WaitForItsEvent, &events[threads.size() - 1]); }), "");
    test::FailAllocation(0);
    threads.emplace_back();
    Event_Init(&events[threads.size() - 1]);
    Thread_CreateJoinable(&threads.back(), WaitForItsEvent, &events[threads.size() - 1]);  // there is room again
    for (const Thread &t : threads) EXPECT_EQ(Thread_HasExited(t), 0);
    for (size_t i = 0; i < threads.size(); i++) Event_SetState(&events[i], 1);
    for (const Thread &t : threads) Thread_Join(t);
}

}  // namespace
