/* Strict C11 use of the public headers, also built against an installed vokt. */
#include <stdio.h>

#include "vokt/vokt.h"

int main(void) {
    Counter c;
    Vector *v;
    String *s;
    int32_t ref;
    int failures = 0;
    Runtime_Init();
    Counter_Init(&c);
    Counter_Increment(&c);
    failures += Event_TimedWait(&c.zeroEvent, 0) != 0;
    v = Vector_NewOwning();
    s = String_NewFormatted("%s-%d", "c", 11);
    failures += Vector_Add(v, s) != s || String_Length(Vector_GetAt(v, 0)) != 4;
    Vector_Free(v);
    ref = ErrorStore_Register(Error_NewInternal("from %s", "C"));
    failures += !ErrorStore_IsError(ref);
    Error_Free(ErrorStore_Take(ref));
#if VOKT_VERSION_NUMBER < 10000
#error "the version macros are missing"
#endif
    failures += Runtime_VersionNumber() != VOKT_VERSION_NUMBER;
    printf("c_check: %s\n", failures ? "FAILED" : "ok");
    return failures != 0;
}
