/* Strict C11 use of the public headers: every type and a few calls per module. */
#include <stdio.h>
#include <string.h>

#include "vokt/vokt.h"

int main(void) {
    Vector *v;
    String *s;
    Mutex m;
    Counter c;
    MemoryFunctions functions;
    int32_t ref;
    int failures = 0;

    Runtime_Init();
    Memory_GetFunctions(&functions);
    failures += functions.Malloc == NULL;

    Mutex_Init(&m);
    Mutex_Lock(&m);
    Mutex_Unlock(&m);
    Counter_Init(&c);
    Counter_Increment(&c);
    failures += Counter_GetValue(&c) != 1;
    Counter_Decrement(&c);
    failures += Event_TimedWait(&c.zeroEvent, 0) != 1;

    v = Vector_NewOwning();
    s = String_NewFormatted("%s-%d", "c", 11);
    failures += Vector_Add(v, s) != s;
    failures += strcmp(((String *)Vector_GetAt(v, 0))->string, "c-11") != 0;
    Vector_Free(v);

    ref = ErrorStore_Register(Error_NewInternal("from %s", "C"));
    failures += !ErrorStore_IsError(ref);
    Error_Free(ErrorStore_Take(ref));

    printf("c_check: %s\n", failures ? "FAILED" : "ok");
    return failures != 0;
}
