// SPDX-License-Identifier: MIT
/* A correct program over every sync type: producers and consumers share a synchronised
 * Vector, wake each other through a Condition, start on an Event, count the consumers at
 * work in a Counter and add under a Mutex taken twice. Race checkers (Helgrind, DRD,
 * ThreadSanitizer) must find nothing to report. Exits 0 when the total is exact. */
#include <stdint.h>
#include <stdio.h>

#include "vokt/vokt.h"

enum { kConsumers = 3, kItems = 300 };

static Vector *queue;
static Condition ready;
static Event start;
static Counter working;
static Mutex totals;
static long total;

static void *Consume(void *unused) {
    (void)unused;
    Event_Wait(&start);
    for (int done = 0; !done;) {
        Condition_Wait(&ready);
        /* Everything queued is taken; the end mark is left for the next consumer. */
        Vector_Lock(queue);
        while (Vector_Length(queue) > 0 && !done) {
            const intptr_t value = (intptr_t)Vector_GetAt(queue, 0);
            if (value < 0) {
                done = 1;
                break;
            }
            Vector_RemoveAt(queue, 0);
            Mutex_Lock(&totals);
            Mutex_Lock(&totals);
            total += value;
            Mutex_Unlock(&totals);
            Mutex_Unlock(&totals);
        }
        Vector_Unlock(queue);
        Condition_Signal(&ready); /* another consumer may have work, or the end mark */
    }
    Counter_Decrement(&working);
    return NULL;
}

int main(void) {
    Runtime_Init();
    queue = Vector_New();
    Vector_SetSynchronized(queue, 1);
    Condition_Init(&ready);
    Event_Init(&start);
    Counter_Init(&working);
    Mutex_Init(&totals);
    Thread threads[kConsumers];
    for (int i = 0; i < kConsumers; i++) {
        Counter_Increment(&working);
        Thread_CreateJoinable(&threads[i], Consume, NULL);
    }
    Event_SetState(&start, 1);
    for (intptr_t i = 1; i <= kItems; i++) {
        Vector_Add(queue, (void *)i);
        Condition_Signal(&ready);
    }
    Vector_Add(queue, (void *)(intptr_t)-1);
    Condition_Signal(&ready);
    Event_Wait(&working.zeroEvent);
    for (int i = 0; i < kConsumers; i++) Thread_Join(threads[i]);
    Mutex_Lock(&totals);
    const long sum = total;
    Mutex_Unlock(&totals);
    printf("total %ld\n", sum);
    Vector_Free(queue);
    Counter_Destroy(&working);
    Event_Destroy(&start);
    Condition_Destroy(&ready);
    return sum == (long)kItems * (kItems + 1) / 2 ? 0 : 1;
}
