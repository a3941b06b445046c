// SPDX-License-Identifier: MIT
/* Dates: day-month-year in local time, and month names both ways. */
#include <stdio.h>

#include "vokt/vokt.h"

int main(void) {
    Runtime_Init();
    String *text = String_New();
    if (!text || Date_FormatNow(text) != 0) return 1;
    printf("today: %s (year %d)\n", text->string, (int)Date_CurrentYear());

    int32_t month = Month_FromName("mar");
    printf("mar is month %d\n", (int)month);
    month = Month_FromName("March"); /* names are exact: an Error comes back */
    if (ErrorStore_IsError(month)) {
        Error *e = ErrorStore_Take(month);
        printf("%s\n", e->message->string);
        Error_Free(e);
    }
    String_Destroy(text);
    return 0;
}
