// SPDX-License-Identifier: MIT
/* Two threads count under one vokt Mutex while valgrind's race checkers (Helgrind, DRD)
 * watch. The library is loaded with dlopen after the program has, when asked ("clear"),
 * emptied its LD_PRELOAD: the library must recognise the checker without the environment.
 * Exits 0 when the count is exact. */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vokt/sync/vokt_sync.h"

static void (*lock)(Mutex *);
static void (*unlock)(Mutex *);
static Mutex mutex;
static long counter;

static void *Count(void *argument) {
    (void)argument;
    for (int i = 0; i < 2000; i++) {
        lock(&mutex);
        counter++;
        unlock(&mutex);
    }
    return NULL;
}

int main(int argc, char **argv) {
    if (argc < 2) return 2;
    if (argc > 2 && strcmp(argv[2], "clear") == 0) unsetenv("LD_PRELOAD");
    void *library = dlopen(argv[1], RTLD_NOW);
    if (!library) {
        fprintf(stderr, "%s\n", dlerror());
        return 2;
    }
    /* POSIX guarantees that a function pointer survives the trip through void *. */
    void (*init)(Mutex *);
    void (*create)(Thread *, ThreadRoutine, void *);
    void (*join)(Thread);
    *(void **)&init = dlsym(library, "Mutex_Init");
    *(void **)&lock = dlsym(library, "Mutex_Lock");
    *(void **)&unlock = dlsym(library, "Mutex_Unlock");
    *(void **)&create = dlsym(library, "Thread_CreateJoinable");
    *(void **)&join = dlsym(library, "Thread_Join");
    init(&mutex);
    Thread a, b;
    create(&a, Count, NULL);
    create(&b, Count, NULL);
    join(a);
    join(b);
    printf("%ld\n", counter);
    return counter == 4000 ? 0 : 1;
}
