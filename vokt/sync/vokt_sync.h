/* vokt: recursive mutexes, conditions, events, counters and threads over POSIX threads.
 * The records are embedded by value and nothing here logs; the only allocation is one
 * small registry entry for each thread started here. */
#ifndef VOKT_SYNC_VOKT_SYNC_H
#define VOKT_SYNC_VOKT_SYNC_H

#include <pthread.h>
#include <stdint.h>

#include "vokt/core/api.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct Mutex {
    pthread_mutex_t mutex;
    pthread_t owner;
    int32_t spinCount;
} Mutex;
typedef struct Condition {
    Mutex mutex;
    pthread_cond_t condition;
    int32_t bSignalled;
} Condition;
typedef struct Event {
    Mutex mutex;
    pthread_cond_t condition;
    int32_t bSignalled;
} Event;
typedef struct Counter {
    int32_t value;
    Event zeroEvent;
    Mutex lock;
} Counter;
typedef struct Thread {
    pthread_t id;
    int32_t bIsJoinable;
} Thread;
typedef void *(*ThreadRoutine)(void *argument);

/* Creates the plain POSIX mutex; owner 0, depth 0. */
VOKT_API void Mutex_Init(Mutex *m);
/* Takes the lock, or deepens the caller's hold by one level. */
VOKT_API void Mutex_Lock(Mutex *m);
/* Releases one level; the POSIX mutex is released at the last one. */
VOKT_API void Mutex_Unlock(Mutex *m);
/* Does nothing: a Mutex may be initialised again after it. */
VOKT_API void Mutex_Destroy(Mutex *m);

/* Auto-reset signal: a signal is kept until one wait consumes it. */
VOKT_API void Condition_Init(Condition *c);
VOKT_API void Condition_Destroy(Condition *c);
VOKT_API void Condition_Signal(Condition *c);
/* 1 when signalled (or woken), 0 when the wait failed. */
VOKT_API int32_t Condition_Wait(Condition *c);
/* 1 when signalled, 0 when ms milliseconds passed first. */
VOKT_API int32_t Condition_TimedWait(Condition *c, uint64_t ms);

/* Manual-reset signal: stays set until Event_SetState(e, 0). */
VOKT_API void Event_Init(Event *e);
VOKT_API void Event_Destroy(Event *e);
/* Nonzero sets the event and wakes every waiter; 0 resets it. */
VOKT_API void Event_SetState(Event *e, int32_t state);
/* 1 once the event is set, 0 when the wait failed. */
VOKT_API int32_t Event_Wait(Event *e);
/* 1 once the event is set, 0 when ms milliseconds passed first. */
VOKT_API int32_t Event_TimedWait(Event *e, uint64_t ms);

/* Use counter whose zeroEvent is set exactly while the value is 0. Once Event_Wait or
 * Event_TimedWait on zeroEvent has returned 1, or Counter_GetValue has returned 0, the
 * thread whose Counter_Decrement brought the count to zero is done with the Counter: it
 * may then be destroyed and its memory freed, provided no other thread still uses it. */
VOKT_API void Counter_Init(Counter *c);
VOKT_API void Counter_Destroy(Counter *c);
VOKT_API void Counter_Increment(Counter *c);
VOKT_API void Counter_Decrement(Counter *c);
VOKT_API int32_t Counter_GetValue(Counter *c);

/* Starts a detached thread; failures are printed on standard error only. */
VOKT_API void Thread_Create(Thread *t, ThreadRoutine routine, void *argument);
/* Starts a thread that must be joined once with Thread_Join. */
VOKT_API void Thread_CreateJoinable(Thread *t, ThreadRoutine routine, void *argument);
VOKT_API void Thread_Join(Thread t);
/* For a thread started by Thread_Create or Thread_CreateJoinable: 1 once its routine
 * has returned (or it called pthread_exit), and after it was joined; 0 while it runs.
 * The last 256 of those threads that were joined or ended detached are remembered. For
 * any other thread: 1 when pthread_kill(id, 0) says ESRCH, else 0. */
VOKT_API int32_t Thread_HasExited(Thread t);
/* Always 0: threads cannot be suspended on this platform. */
VOKT_API int32_t Thread_IsSuspended(Thread t);
VOKT_API pthread_t Thread_GetCurrentThreadID(void);

#ifdef __cplusplus
}
#endif
#endif
