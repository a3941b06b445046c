// SPDX-License-Identifier: MIT
/* A background worker: it wakes every 40 ms (or when told to stop), hands a few jobs to
 * detached threads, counts them in flight with a Counter, and is stopped with an Event
 * and Thread_Join. Built with the library; run build/examples/worker. */
#include <stdio.h>

#include "vokt/vokt.h"

enum { JOBS_PER_CYCLE = 3 };

typedef struct Worker {
    Event stop;       /* set once, to end the worker */
    Counter inFlight; /* jobs started but not finished; its zeroEvent is set when idle */
    Mutex lock;       /* guards the totals below */
    int cycles;
    int jobsDone;
    long sum;
} Worker;

typedef struct Job {
    Worker *worker;
    int number;
} Job;

static Job jobs[64 * JOBS_PER_CYCLE];

static void *RunJob(void *argument) {
    Job *job = argument;
    long square = (long)job->number * job->number;
    Mutex_Lock(&job->worker->lock);
    job->worker->jobsDone++;
    job->worker->sum += square;
    Mutex_Unlock(&job->worker->lock);
    Counter_Decrement(&job->worker->inFlight);
    return NULL;
}

static void *RunWorker(void *argument) {
    Worker *w = argument;
    int next = 0;
    /* Event_TimedWait returns 1 as soon as the stop event is set, 0 after each pause. */
    while (!Event_TimedWait(&w->stop, 40)) {
        for (int i = 0; i < JOBS_PER_CYCLE && next < (int)(sizeof jobs / sizeof jobs[0]); i++) {
            Thread thread;
            jobs[next].worker = w;
            jobs[next].number = next + 1;
            Counter_Increment(&w->inFlight);
            Thread_Create(&thread, RunJob, &jobs[next]);
            next++;
        }
        Mutex_Lock(&w->lock);
        w->cycles++;
        Mutex_Unlock(&w->lock);
    }
    /* Do not leave while jobs are still running. */
    Event_Wait(&w->inFlight.zeroEvent);
    return NULL;
}

int main(void) {
    Worker w = {0};
    Thread thread;
    Event pause;

    Runtime_Init();
    Event_Init(&w.stop);
    Counter_Init(&w.inFlight);
    Mutex_Init(&w.lock);
    Event_Init(&pause);

    Thread_CreateJoinable(&thread, RunWorker, &w);
    printf("worker started\n");

    /* Let it work for about 300 ms: a wait on an event nobody sets is a plain sleep. */
    Event_TimedWait(&pause, 300);
    Event_SetState(&w.stop, 1);
    Thread_Join(thread);

    printf("worker stopped after %d cycles\n", w.cycles);
    printf("jobs done: %d, in flight now: %d, sum of squares: %ld\n", w.jobsDone, Counter_GetValue(&w.inFlight),
           w.sum);

    Event_Destroy(&pause);
    Mutex_Destroy(&w.lock);
    Counter_Destroy(&w.inFlight);
    Event_Destroy(&w.stop);
    return w.jobsDone == w.cycles * JOBS_PER_CYCLE ? 0 : 1;
}
