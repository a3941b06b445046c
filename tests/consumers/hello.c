/* A C program built against an installed vokt through pkg-config. */
#include <stdio.h>

#include "vokt/vokt.h"

int main(void) {
    StringMap *map;
    String *s;
    int ok;
    Runtime_Init();
    map = StringMap_New();
    StringMap_Set(map, "greeting", "hello");
    s = String_NewFormatted("%s from C", StringMap_Get(map, "greeting"));
    ok = s && String_Length(s) == 12;
    printf("%s\n", s ? s->string : "(none)");
    String_Destroy(s);
    StringMap_Free(map);
    return ok ? 0 : 1;
}
