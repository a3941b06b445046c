// SPDX-License-Identifier: MIT
/* Threads: workers add to a total under a Mutex; a Counter tells when all are done. */
#include <stdio.h>

#include "vokt/vokt.h"

typedef struct Totals {
    Mutex lock;
    Counter running;
    long sum;
} Totals;

static void *Work(void *argument) {
    Totals *totals = argument;
    for (int i = 1; i <= 1000; i++) {
        Mutex_Lock(&totals->lock);
        totals->sum += i;
        Mutex_Unlock(&totals->lock);
    }
    Counter_Decrement(&totals->running);
    return NULL;
}

int main(void) {
    Runtime_Init();
    static Totals totals; /* the records are the caller's, here in static storage */
    Mutex_Init(&totals.lock);
    Counter_Init(&totals.running);
    for (int i = 0; i < 4; i++) {
        Thread t;
        Counter_Increment(&totals.running);
        Thread_Create(&t, Work, &totals); /* detached */
    }
    if (Event_TimedWait(&totals.running.zeroEvent, 10000) != 1) return 1; /* all four done */
    printf("sum %ld\n", totals.sum);

    Thread joinable;
    Counter_Increment(&totals.running);
    Thread_CreateJoinable(&joinable, Work, &totals);
    Thread_Join(joinable);
    printf("sum %ld, the last thread exited: %d\n", totals.sum, (int)Thread_HasExited(joinable));
    Counter_Destroy(&totals.running);
    return 0;
}
