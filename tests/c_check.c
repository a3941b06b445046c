/* Strict C11 use of the public headers, also built against an installed vokt. */
#include <stdio.h>

#include "vokt/vokt.h"

static int failures = 0;
/* Counts and names each fact that does not hold. */
#define CHECK(fact)                                        \
    do {                                                   \
        if (!(fact)) {                                     \
            printf("c_check: not so: %s\n", #fact);        \
            failures++;                                    \
        }                                                  \
    } while (0)

int main(void) {
    Counter c;
    Vector *v;
    String *s;
    const VectorDescriptor *slots;
    int32_t ref;
    Runtime_Init();
    Counter_Init(&c);
    Counter_Increment(&c);
    CHECK(Event_TimedWait(&c.zeroEvent, 0) == 0);
    v = Vector_NewOwning();
    s = String_NewFormatted("%s-%d", "c", 11);
    CHECK(Vector_Add(v, s) == s);
    CHECK(String_Length(Vector_GetAt(v, 0)) == 4);
    /* The descriptor holds the exported functions at the addresses this program sees. */
    slots = (const VectorDescriptor *)v->ftbl;
    CHECK(slots->GetAt == Vector_GetAt);
    CHECK(slots->Add == Vector_Add);
    Vector_Free(v);
    ref = ErrorStore_Register(Error_NewInternal("from %s", "C"));
    CHECK(ErrorStore_IsError(ref));
    Error_Free(ErrorStore_Take(ref));
#if VOKT_VERSION_NUMBER < 10000
#error "the version macros are missing"
#endif
    CHECK(Runtime_VersionNumber() == VOKT_VERSION_NUMBER);
    printf("c_check: %s\n", failures ? "FAILED" : "ok");
    return failures != 0;
}
