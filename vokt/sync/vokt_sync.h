// SPDX-License-Identifier: MIT
/** @file
 * Recursive mutexes, conditions, events, counters and threads over POSIX threads.
 *
 * The records are the caller's, embedded by value in its structures or static storage, and
 * any thread may call any operation. Nothing here logs (failures and reports go to standard
 * error), and nothing allocates, except more room to record the threads started here when
 * more of them run at once than its static room (64) holds.
 *
 * @par Example
 * @include reference/vokt_sync.c
 */
#ifndef VOKT_SYNC_VOKT_SYNC_H
#define VOKT_SYNC_VOKT_SYNC_H

#include <pthread.h>
#include <stdint.h>

#include "vokt/core/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A recursive mutex: a plain POSIX mutex with the owner and depth kept beside it. Any thread
 *  may lock it; the owner may lock it again and must unlock it as often. */
typedef struct Mutex {
    pthread_mutex_t mutex; /**< The plain (non-recursive) POSIX mutex. */
    pthread_t owner; /**< The holding thread; 0 when free. */
    int32_t spinCount; /**< Depth of the owner's hold; 0 when free (-1 after an unlock too many). */
} Mutex;
/** An auto-reset signal: a signal is kept until one wait consumes it. Any thread. */
typedef struct Condition {
    Mutex mutex; /**< Guards bSignalled; only its POSIX mutex is used. */
    pthread_cond_t condition; /**< The POSIX condition variable (deadlines on the wall clock). */
    int32_t bSignalled; /**< 1 while signalled (set), else 0. */
} Condition;
/** A manual-reset signal: it stays set until Event_SetState(e, 0). Any thread. */
typedef struct Event {
    Mutex mutex; /**< Guards bSignalled; only its POSIX mutex is used. */
    pthread_cond_t condition; /**< The POSIX condition variable (deadlines on the wall clock). */
    int32_t bSignalled; /**< 1 while signalled (set), else 0. */
} Event;
/** A use count whose zeroEvent is set exactly while the count is 0. Any thread. */
typedef struct Counter {
    int32_t value; /**< The count; negative only after a decrement too many. */
    Event zeroEvent; /**< Set while value is 0: wait on it for the Counter to become idle. */
    Mutex lock; /**< Guards value and the transitions of zeroEvent. */
} Counter;
/** A thread started by Thread_Create or Thread_CreateJoinable; passed by value afterwards. */
typedef struct Thread {
    pthread_t id; /**< The POSIX thread identifier. */
    int32_t bIsJoinable; /**< 1 for a joinable thread, 0 for a detached one. */
} Thread;
/** A thread's start routine: it gets the argument given at creation; its result is not read. */
typedef void *(*ThreadRoutine)(void *argument);

/** Makes a free Mutex (a default POSIX mutex, owner 0, depth 0). A failure is printed on
 *  standard error ("Could not create mutex").
 * @param m The record, the caller's (static storage, a struct field, ...); null is ignored.
 * @note A Mutex may be initialised again once it is free; never while a thread holds it. */
VOKT_API void Mutex_Init(Mutex *m);
/** Takes the lock, waiting for it when another thread holds it; the owner deepens its hold by
 *  one level instead.
 * @param m The Mutex; null is ignored. */
VOKT_API void Mutex_Lock(Mutex *m);
/** Releases one level of the caller's hold; the lock goes at the last one. The caller is not
 *  checked: only the owner may call it.
 * @param m The Mutex; null is ignored. An unlock of a free Mutex is reported on standard
 *        error ("m->spinCount>0"), releases nothing and leaves the depth at -1, after which
 *        the next lock and unlock leave the Mutex held. */
VOKT_API void Mutex_Unlock(Mutex *m);
/** Does nothing: the POSIX mutex is never destroyed, and the Mutex may be initialised again.
 * @param m The Mutex. */
VOKT_API void Mutex_Destroy(Mutex *m);

/** Makes a Condition, not signalled. Failures are printed on standard error.
 * @param c The record, the caller's; null is ignored. */
VOKT_API void Condition_Init(Condition *c);
/** Destroys the condition variable.
 * @param c The Condition; no thread may still wait on it. */
VOKT_API void Condition_Destroy(Condition *c);
/** Sets the signal and wakes at most one waiter; when none waits, the signal is kept for the
 *  next wait.
 * @param c The Condition; null is ignored. */
VOKT_API void Condition_Signal(Condition *c);
/** Waits once for the signal and consumes it. There is no loop: a wake-up without a signal
 *  also ends the wait.
 * @param c The Condition.
 * @return 1 when signalled (or woken); 0 when the wait failed or c is null. */
VOKT_API int32_t Condition_Wait(Condition *c);
/** Waits once for the signal, at most ms milliseconds, and consumes it; a signal that comes
 *  after the deadline has passed is cleared as well.
 * @param c The Condition.
 * @param ms The timeout; the deadline is on the wall clock (moving the clock moves it), and its
 *        whole seconds pass through a signed 32-bit number, so 2^31 seconds or more wrap.
 * @return 1 when signalled; 0 when the time ran out (or c is null). */
VOKT_API int32_t Condition_TimedWait(Condition *c, uint64_t ms);

/** Makes an Event, reset. Failures are printed on standard error.
 * @param e The record, the caller's; null is ignored. */
VOKT_API void Event_Init(Event *e);
/** Destroys the condition variable.
 * @param e The Event; no thread may still wait on it. */
VOKT_API void Event_Destroy(Event *e);
/** Sets or resets the Event.
 * @param e The Event; null is ignored.
 * @param state Nonzero: set it and wake every waiter; 0: reset it, waking nobody. */
VOKT_API void Event_SetState(Event *e, int32_t state);
/** Waits until the Event is set; waiting never resets it.
 * @param e The Event.
 * @return 1 once it is set; 0 when the wait failed or e is null. */
VOKT_API int32_t Event_Wait(Event *e);
/** Waits until the Event is set, at most ms milliseconds (a set Event returns at once).
 * @param e The Event.
 * @param ms The timeout, as for Condition_TimedWait(); spurious wake-ups never extend it.
 * @return 1 once it is set; 0 when the time ran out (or e is null). */
VOKT_API int32_t Event_TimedWait(Event *e, uint64_t ms);

/** Makes a Counter at 0, its zeroEvent set.
 * @param c The record, the caller's; null is ignored.
 * @note Once Event_Wait() or Event_TimedWait() on zeroEvent has returned 1, or
 *       Counter_GetValue() has returned 0, the thread whose Counter_Decrement() brought the
 *       count to zero is done with the Counter: it may then be destroyed and its memory freed,
 *       provided no other thread still uses it. */
VOKT_API void Counter_Init(Counter *c);
/** Destroys the zeroEvent's condition variable.
 * @param c The Counter; nobody may use it afterwards. */
VOKT_API void Counter_Destroy(Counter *c);
/** Adds 1, resetting zeroEvent when the count leaves 0.
 * @param c The Counter; null is ignored. A negative count is reported on standard error
 *        ("cnt->value>=0") and counted on. */
VOKT_API void Counter_Increment(Counter *c);
/** Subtracts 1, setting zeroEvent when the count reaches 0.
 * @param c The Counter; null is ignored. From 0 it is reported ("cnt->value>0") and leaves -1,
 *        the zeroEvent untouched. */
VOKT_API void Counter_Decrement(Counter *c);
/** Reads the count.
 * @param c The Counter.
 * @return The count (a negative one is reported on standard error); 0 for a null c. */
VOKT_API int32_t Counter_GetValue(Counter *c);

/** Starts a detached thread: routine(argument) on a thread of its own, which ends when the
 *  routine returns (its result is not read). Failures are printed on standard error only,
 *  and the record's id is then left as it was.
 * @param t Receives the thread's id (bIsJoinable 0); null is ignored.
 * @param routine The start routine.
 * @param argument Passed to routine.
 * @note A thread the module cannot record (more run at once than its room holds, and no
 *       memory for more) is not started: "Could not create new thread, errno=11". */
VOKT_API void Thread_Create(Thread *t, ThreadRoutine routine, void *argument);
/** Starts a thread that must be joined once with Thread_Join(); otherwise as Thread_Create().
 * @param t Receives the thread's id (bIsJoinable 1); null is ignored.
 * @param routine The start routine.
 * @param argument Passed to routine. */
VOKT_API void Thread_CreateJoinable(Thread *t, ThreadRoutine routine, void *argument);
/** Waits for a thread started by Thread_CreateJoinable() to end; its record is then spent.
 *  Only such a thread, not joined yet, is handed to the C library: any other record (a
 *  detached one, which is also reported; a spent one; one filled by hand) and a failed join
 *  print "Could not join thread" instead.
 * @param t The record, by value. */
VOKT_API void Thread_Join(Thread t);
/** Tells whether a thread has ended.
 * @param t A record filled by Thread_Create() or Thread_CreateJoinable(), by value; a
 *        detached one is reported ("thread.bIsJoinable") and answered all the same.
 * @return For a record not yet joined: 1 once the thread's routine has returned (or the
 *         thread called pthread_exit or was cancelled), 0 while it runs. A joined record is
 *         spent: the system may give its id to a new thread, and the record then answers for
 *         that one. Any record answers 0 exactly while its id is that of a running thread
 *         started by this module, else 1 (records filled by hand included); the id is never
 *         handed to the C library, so any record is safe to ask. */
VOKT_API int32_t Thread_HasExited(Thread t);
/** Threads cannot be suspended on this platform.
 * @param t The record (a detached one is reported).
 * @return 0, always. */
VOKT_API int32_t Thread_IsSuspended(Thread t);
/** The calling thread's POSIX identifier.
 * @return pthread_self(). */
VOKT_API pthread_t Thread_GetCurrentThreadID(void);

#ifdef __cplusplus
}
#endif
#endif
