// SPDX-License-Identifier: MIT
/* Objects: any object is destroyed, compared and found through its class descriptor. */
#include <stdio.h>

#include "vokt/vokt.h"

int main(void) {
    Runtime_Init(); /* once, before anything else */
    printf("vokt %s\n", Runtime_VersionString());

    /* An EventObject wraps a 64-bit value so that it can live in a container. */
    Vector *events = Vector_NewOwning();
    if (!events) return 1;
    for (uint64_t id = 1; id <= 3; id++) Vector_Add(events, EventObject_New(id * 100));

    EventObject *probe = EventObject_New(200);
    printf("holds 200: %d\n", (int)Vector_Contains(events, probe)); /* through Equals */
    printf("class of element 0: %s\n", ((Object *)Vector_GetAt(events, 0))->ftbl->name);

    Object_Destroy(probe); /* any object, through its descriptor */
    Vector_Free(events);   /* an owning vector destroys its elements */
    return 0;
}
