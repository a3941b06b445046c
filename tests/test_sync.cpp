#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>

#include "vokt/sync/vokt_sync.h"

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string Stderr(const std::function<void()> &body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

struct Shared {
    Mutex mutex;
    Event event;
    std::atomic<int> stage{0};
};

void *LockAndMark(void *arg) {
    auto *s = static_cast<Shared *>(arg);
    Mutex_Lock(&s->mutex);
    s->stage = 1;
    Mutex_Unlock(&s->mutex);
    return nullptr;
}

void *WaitForEvent(void *arg) {
    auto *s = static_cast<Shared *>(arg);
    if (Event_Wait(&s->event) == 1) s->stage++;
    return nullptr;
}

TEST(Sync, MutexIsRecursiveAndHandedOverOnlyAfterTheLastUnlock) {
    Shared s;
    Mutex_Init(&s.mutex);
    for (int i = 0; i < 3; i++) Mutex_Lock(&s.mutex);
    EXPECT_EQ(s.mutex.spinCount, 3);
    EXPECT_TRUE(pthread_equal(s.mutex.owner, pthread_self()));
    Thread t;
    Thread_CreateJoinable(&t, LockAndMark, &s);
    for (int i = 0; i < 2; i++) {
        Mutex_Unlock(&s.mutex);
        usleep(30000);
        EXPECT_EQ(s.stage.load(), 0) << "the other thread got in after unlock " << i + 1;
    }
    Mutex_Unlock(&s.mutex);
    Thread_Join(t);
    EXPECT_EQ(s.stage.load(), 1);
    EXPECT_EQ(s.mutex.spinCount, 0);
    EXPECT_EQ(s.mutex.owner, pthread_t{});
}

TEST(Sync, UnlockOfAFreeMutexIsReportedAndLeavesMinusOne) {
    Mutex m;
    Mutex_Init(&m);
    EXPECT_EQ(Stderr([&] { Mutex_Unlock(&m); }), "Assertion failed: m->spinCount>0 in file vokt_sync on line 103\n");
    EXPECT_EQ(m.spinCount, -1);
    // The POSIX mutex was never touched: it is still free.
    EXPECT_EQ(pthread_mutex_trylock(&m.mutex), 0);
    pthread_mutex_unlock(&m.mutex);
}

TEST(Sync, ConditionKeepsOneSignalForTheNextWait) {
    Condition c;
    Condition_Init(&c);
    Condition_Signal(&c);
    EXPECT_EQ(Condition_Wait(&c), 1);
    EXPECT_EQ(c.bSignalled, 0);
    auto start = Clock::now();
    EXPECT_EQ(Condition_TimedWait(&c, 0), 0);
    EXPECT_LT(SecondsSince(start), 0.5);
    start = Clock::now();
    EXPECT_EQ(Condition_TimedWait(&c, 1200), 0);  // exercises the nanosecond carry too
    const double waited = SecondsSince(start);
    EXPECT_GE(waited, 1.15);
    EXPECT_LT(waited, 3.0);
    Condition_Destroy(&c);
}

TEST(Sync, EventReleasesEveryWaiterAndStaysSet) {
    Shared s;
    Event_Init(&s.event);
    Thread a, b;
    Thread_CreateJoinable(&a, WaitForEvent, &s);
    Thread_CreateJoinable(&b, WaitForEvent, &s);
    usleep(20000);
    Event_SetState(&s.event, 1);
    Thread_Join(a);
    Thread_Join(b);
    EXPECT_EQ(s.stage.load(), 2);
    const auto start = Clock::now();
    EXPECT_EQ(Event_TimedWait(&s.event, 5000), 1);
    EXPECT_LT(SecondsSince(start), 0.5);
    EXPECT_EQ(s.event.bSignalled, 1);
    Event_SetState(&s.event, 0);
    EXPECT_EQ(Event_TimedWait(&s.event, 50), 0);
    // Whole seconds pass through 32 signed bits: 2^31 seconds wraps into the past.
    EXPECT_EQ(Event_TimedWait(&s.event, 2147483648ULL * 1000), 0);
    Event_Destroy(&s.event);
}

void *Churn(void *arg) {
    auto *c = static_cast<Counter *>(arg);
    for (int i = 0; i < 2000; i++) {
        Counter_Increment(c);
        Counter_Decrement(c);
    }
    return nullptr;
}

TEST(Sync, CounterZeroEventFollowsTheCount) {
    Counter c;
    Counter_Init(&c);
    EXPECT_EQ(Counter_GetValue(&c), 0);
    EXPECT_EQ(Event_TimedWait(&c.zeroEvent, 0), 1);
    Counter_Increment(&c);
    Counter_Increment(&c);
    EXPECT_EQ(Event_TimedWait(&c.zeroEvent, 0), 0);
    Counter_Decrement(&c);
    EXPECT_EQ(Event_TimedWait(&c.zeroEvent, 0), 0);
    Counter_Decrement(&c);
    EXPECT_EQ(Event_TimedWait(&c.zeroEvent, 0), 1);

    Thread threads[4];
    for (auto &t : threads) Thread_CreateJoinable(&t, Churn, &c);
    for (auto &t : threads) Thread_Join(t);
    EXPECT_EQ(Counter_GetValue(&c), 0);
    EXPECT_EQ(Event_TimedWait(&c.zeroEvent, 0), 1);
    Counter_Destroy(&c);
}

TEST(Sync, CounterBelowZeroIsReported) {
    Counter c;
    Counter_Init(&c);
    EXPECT_EQ(Stderr([&] { Counter_Decrement(&c); }), "Assertion failed: cnt->value>0 in file vokt_sync on line 388\n");
    int32_t value = 0;
    EXPECT_EQ(Stderr([&] { value = Counter_GetValue(&c); }),
              "Assertion failed: cnt->value>=0 in file vokt_sync on line 400\n");
    EXPECT_EQ(value, -1);
    // The decrement from 0 did not touch the event, which is still set.
    EXPECT_EQ(Event_TimedWait(&c.zeroEvent, 0), 1);
    EXPECT_EQ(Stderr([&] { Counter_Increment(&c); }),
              "Assertion failed: cnt->value>=0 in file vokt_sync on line 377\n");
    EXPECT_EQ(c.value, 0);
}

void *WaitThenFinish(void *arg) {
    auto *s = static_cast<Shared *>(arg);
    Event_Wait(&s->event);
    s->stage = 5;
    return nullptr;
}

TEST(Sync, JoinableAndDetachedThreads) {
    Shared s;
    Event_Init(&s.event);
    Thread joinable;
    Thread_CreateJoinable(&joinable, WaitThenFinish, &s);
    EXPECT_EQ(joinable.bIsJoinable, 1);
    EXPECT_EQ(Thread_HasExited(joinable), 0);
    EXPECT_EQ(Thread_IsSuspended(joinable), 0);
    Event_SetState(&s.event, 1);
    Thread_Join(joinable);
    EXPECT_EQ(s.stage.load(), 5);

    Shared d;
    Event_Init(&d.event);
    Thread detached;
    Thread_Create(&detached, WaitThenFinish, &d);
    EXPECT_EQ(detached.bIsJoinable, 0);
    const std::string line = "Assertion failed: thread.bIsJoinable in file vokt_sync on line ";
    EXPECT_EQ(Stderr([&] { EXPECT_EQ(Thread_IsSuspended(detached), 0); }), line + "493\n");
    EXPECT_EQ(Stderr([&] { EXPECT_EQ(Thread_HasExited(detached), 0); }), line + "480\n");
    // Joining a detached thread is reported and still attempted, which the system refuses.
    EXPECT_EQ(Stderr([&] { Thread_Join(detached); }), line + "462\nCould not join thread");
    Event_SetState(&d.event, 1);
    while (d.stage.load() != 5) usleep(1000);
    usleep(10000);
    EXPECT_TRUE(pthread_equal(Thread_GetCurrentThreadID(), pthread_self()));
}

}  // namespace
