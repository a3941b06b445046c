// SPDX-License-Identifier: MIT
/** @file
 * Recursive mutexes, conditions, events, counters and threads over POSIX threads. The
 * records are embedded by value and nothing here logs. Nothing here allocates, except more
 * room to record the threads started here when more of them run at once than its static
 * room (64) holds.
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

/** Creates the plain POSIX mutex; owner 0, depth 0. */
VOKT_API void Mutex_Init(Mutex *m);
/** Takes the lock, or deepens the caller's hold by one level. */
VOKT_API void Mutex_Lock(Mutex *m);
/** Releases one level; the POSIX mutex is released at the last one. */
VOKT_API void Mutex_Unlock(Mutex *m);
/** Does nothing: a Mutex may be initialised again after it. */
VOKT_API void Mutex_Destroy(Mutex *m);

/** Creates the condition variable and the inner mutex; not signalled. Failures are printed
 *  on standard error. */
VOKT_API void Condition_Init(Condition *c);
/** Destroys the condition variable; no thread may still wait on it. */
VOKT_API void Condition_Destroy(Condition *c);
/** Sets the signal and wakes at most one waiter; kept for the next wait when none waits. */
VOKT_API void Condition_Signal(Condition *c);
/** 1 when signalled (or woken), 0 when the wait failed. */
VOKT_API int32_t Condition_Wait(Condition *c);
/** 1 when signalled, 0 when ms milliseconds passed first. */
VOKT_API int32_t Condition_TimedWait(Condition *c, uint64_t ms);

/** Creates the condition variable and the inner mutex; reset. Failures are printed on
 *  standard error. */
VOKT_API void Event_Init(Event *e);
/** Destroys the condition variable; no thread may still wait on it. */
VOKT_API void Event_Destroy(Event *e);
/** Nonzero sets the event and wakes every waiter; 0 resets it. */
VOKT_API void Event_SetState(Event *e, int32_t state);
/** 1 once the event is set, 0 when the wait failed. */
VOKT_API int32_t Event_Wait(Event *e);
/** 1 once the event is set, 0 when ms milliseconds passed first. */
VOKT_API int32_t Event_TimedWait(Event *e, uint64_t ms);

/** Initialises the Counter at 0, with zeroEvent set.
 *
 * Once Event_Wait or Event_TimedWait on zeroEvent has returned 1, or Counter_GetValue has
 * returned 0, the thread whose Counter_Decrement brought the count to zero is done with
 * the Counter: it may then be destroyed and its memory freed, provided no other thread
 * still uses it. */
VOKT_API void Counter_Init(Counter *c);
/** Destroys the idle event's condition variable; nobody may use the Counter afterwards. */
VOKT_API void Counter_Destroy(Counter *c);
/** Adds 1, resetting zeroEvent when leaving 0; a negative count is reported. */
VOKT_API void Counter_Increment(Counter *c);
/** Subtracts 1, setting zeroEvent on reaching 0; from 0 it reports and leaves -1. */
VOKT_API void Counter_Decrement(Counter *c);
/** The count (a negative one is reported). */
VOKT_API int32_t Counter_GetValue(Counter *c);

/** Starts a detached thread. Failures are printed on standard error only, and the record's id
 *  is then left as it was. A thread the module cannot record (more run at once than it has
 *  room for, and no memory for more) is not started: "Could not create new thread, errno=11". */
VOKT_API void Thread_Create(Thread *t, ThreadRoutine routine, void *argument);
/** Starts a thread that must be joined once with Thread_Join; otherwise as Thread_Create. */
VOKT_API void Thread_CreateJoinable(Thread *t, ThreadRoutine routine, void *argument);
/** Waits for a thread started by Thread_CreateJoinable to end; its record is then spent.
 *  Only such a thread, not joined yet, is handed to the C library: any other record (a
 *  detached one, which is also reported; a spent one; one filled by hand) and a failed join
 *  print "Could not join thread" instead. */
VOKT_API void Thread_Join(Thread t);
/** For a record filled by Thread_Create or Thread_CreateJoinable and not yet joined: 1 once
 * the thread's routine has returned (or the thread called pthread_exit or was cancelled), 0
 * while it runs. A joined record is spent: the system may give its id to a new thread, and
 * the record then answers for that one. Any record answers 0 exactly while its id is that of
 * a running thread started by this module, else 1 (records filled by hand included); the id
 * is never handed to the C library, so any record is safe to ask. */
VOKT_API int32_t Thread_HasExited(Thread t);
/** Always 0: threads cannot be suspended on this platform. */
VOKT_API int32_t Thread_IsSuspended(Thread t);
/** The calling thread's POSIX identifier (pthread_self). */
VOKT_API pthread_t Thread_GetCurrentThreadID(void);

#ifdef __cplusplus
}
#endif
#endif
