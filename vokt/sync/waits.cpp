// SPDX-License-Identifier: MIT
// Conditions, events and counters: waits over a POSIX condition variable, with wall-clock
// deadlines.
#include <stdio.h>
#include <sys/time.h>

#include "vokt/internal/assert.h"
#include "vokt/internal/hooks.h"
#include "vokt/sync/vokt_sync.h"

namespace {

constexpr char kModule[] = "vokt_sync";

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

}  // namespace

extern "C" {

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
    VOKT_ASSERT_ON_STDERR(cnt->value>=0, 377);
    if (cnt->value == 0) Event_SetState(&cnt->zeroEvent, 0);
    cnt->value++;
    Mutex_Unlock(&cnt->lock);
}

void Counter_Decrement(Counter *cnt) {
    if (!cnt) return;
    Mutex_Lock(&cnt->lock);
    VOKT_ASSERT_ON_STDERR(cnt->value>0, 388);
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
    VOKT_ASSERT_ON_STDERR(cnt->value>=0, 400);
    Mutex_Unlock(&cnt->lock);
    if (value == 0) {
        // The decrement that brought it to zero may still be releasing the event; wait for
        // it, so that a caller who frees an idle Counter frees it after that thread.
        pthread_mutex_lock(&cnt->zeroEvent.mutex.mutex);
        pthread_mutex_unlock(&cnt->zeroEvent.mutex.mutex);
    }
    return value;
}

}  // extern "C"
