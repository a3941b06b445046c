// SPDX-License-Identifier: MIT
/* The checks switched on from code: a leak counted and reported on demand. Run a program
 * with VOKT_CHECK=all instead to have every check from the start, and the report at exit. */
#include <stdio.h>

#include "vokt/vokt.h"

int main(void) {
    Runtime_SetChecks(VOKT_CHECK_LEAKS | VOKT_CHECK_OBJECTS);
    Runtime_Init();

    String *kept = String_NewFromChars("still here");
    String *gone = String_NewFromChars("destroyed");
    String_Destroy(gone);
    printf("Strings alive: %lld\n", (long long)Runtime_CountLive("String"));

    /* One line on standard output: "vokt: 1 object alive now: 1 String (43 bytes) from main ..."
     * (the String with its text). */
    const int64_t reported = Runtime_ReportLeaks(stdout);
    String_Destroy(kept);
    Runtime_SetChecks(0); /* the destroyed String held back goes to the allocator */
    return reported == 1 ? 0 : 1;
}
