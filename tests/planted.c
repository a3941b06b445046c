/* SPDX-License-Identifier: MIT */
/* Mistakes made on purpose, one kind per run, for the library's checks to find: run as
 * "planted leaks|locks|objects". Whatever should be found is printed on standard output
 * first, so that the test can match the reports against it. */
#define _GNU_SOURCE /* pthread_setname_np: the reports name threads by their names */
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include "vokt/vokt.h"

/* Exported, so that reports name them. */
extern int settings;
void load_config(String **out);
void *forwards(void *unused);
void *backwards(void *unused);
void *keeps_a(void *unused);
void plant_locks(void);
void plant_objects(void);
void discard(String *s);

static Mutex a, b;
static Condition ready;

int settings = 2; /* not a constant, so that the loop below keeps its one call site */

/* Never inlined: the reports are to name it. */
__attribute__((noinline)) void load_config(String **out) {
    for (int i = 0; i < settings; i++) out[i] = String_NewFromChars("key=value");
}

/* Always inlined: its caller's line is to be named as well as its own. */
static inline __attribute__((always_inline)) Vector *new_list(void) {
    return Vector_New();
}

void *forwards(void *unused) {
    (void)unused;
    pthread_setname_np(pthread_self(), "forwards");
    Mutex_Lock(&a);
    Mutex_Lock(&b);
    Mutex_Unlock(&b);
    Mutex_Unlock(&a);
    return NULL;
}

void *backwards(void *unused) {
    (void)unused;
    pthread_setname_np(pthread_self(), "backwards");
    Mutex_Lock(&b);
    Mutex_Lock(&a);
    Mutex_Unlock(&a);
    Mutex_Unlock(&b);
    return NULL;
}

void *keeps_a(void *unused) {
    (void)unused;
    pthread_setname_np(pthread_self(), "keeps a");
    Mutex_Lock(&a);
    return NULL;
}

void plant_locks(void) {
    Mutex_Init(&a);
    Mutex_Init(&b);
    Condition_Init(&ready);
    printf("a=%p b=%p\n", (void *)&a, (void *)&b);
    fflush(stdout);
    /* One after the other: the two orders never meet, and nothing deadlocks. */
    Thread t;
    Thread_CreateJoinable(&t, forwards, NULL);
    Thread_Join(t);
    Thread_CreateJoinable(&t, backwards, NULL);
    Thread_Join(t);
    /* A wait entered while holding a, after a signal, so that it returns at once. */
    Condition_Signal(&ready);
    Mutex_Lock(&a);
    Condition_Wait(&ready);
    Mutex_Unlock(&a);
    /* A thread that ends holding a, which this thread then unlocks. */
    Thread_CreateJoinable(&t, keeps_a, NULL);
    Thread_Join(t);
    Mutex_Unlock(&a);
}

/* Not a tail call, so that it is the site of the destruction. */
__attribute__((noinline)) void discard(String *s) {
    String_Destroy(s);
    __asm__ __volatile__("" ::: "memory");
}

void plant_objects(void) {
    Vector *v = Vector_NewOwning();
    String *s = String_NewFromChars("gone");
    Vector_Add(v, s);
    discard(s); /* the vector still holds it */
    String *probe = String_NewFromChars("gone");
    printf("found %d equal %d\n", Vector_Contains(v, probe), String_Equals(s, probe));
    Vector_Sort(v);
    String_Destroy(probe);
    String_Destroy(s); /* destroyed twice */
    Vector_Free(v); /* and the vector destroys it once more */
    puts("done");
}

int main(int argc, char **argv) {
    const char *what = argc > 1 ? argv[1] : "";
    Runtime_Init();
    if (strcmp(what, "leaks") == 0) {
        String *kept[2];
        load_config(kept);
        Vector *v = new_list();
        (void)v;
        printf("String %lld Vector %lld\n", (long long)Runtime_CountLive("String"), (long long)Runtime_CountLive("Vector"));
        printf("reported %lld\n", (long long)Runtime_ReportLeaks(stdout));
    } else if (strcmp(what, "locks") == 0) {
        plant_locks();
    } else if (strcmp(what, "objects") == 0) {
        plant_objects();
    }
    return 0;
}
