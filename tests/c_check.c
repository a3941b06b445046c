// SPDX-License-Identifier: MIT
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
    Vector *v;
    const VectorDescriptor *slots;
    Runtime_Init();
    v = Vector_NewOwning();
    /* The descriptor holds the exported functions at the addresses this program sees. */
    slots = (const VectorDescriptor *)v->ftbl;
    CHECK(slots->GetAt == Vector_GetAt);
    CHECK(slots->Add == Vector_Add);
    Vector_Free(v);
#if VOKT_VERSION_NUMBER < 10000
#error "the version macros are missing"
#endif
    CHECK(Runtime_VersionNumber() == VOKT_VERSION_NUMBER);
    printf("c_check: %s\n", failures ? "FAILED" : "ok");
    return failures != 0;
}
