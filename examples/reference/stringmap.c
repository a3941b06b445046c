// SPDX-License-Identifier: MIT
/* StringMap: copies of string keys and values, found by their hash. */
#include <stdio.h>

#include "vokt/vokt.h"

int main(void) {
    Runtime_Init();
    StringMap *settings = StringMap_New();
    if (!settings) return 1;
    if (StringMap_Set(settings, "colour", "blue") != 0 || StringMap_Set(settings, "size", "large") != 0 ||
        StringMap_Set(settings, "colour", "green") != 0) /* replaces the value */
        return 1;
    StringMap_Set(settings, "size", NULL); /* a null value removes the key */

    printf("colour = %s\n", StringMap_Get(settings, "colour"));
    printf("size is %s\n", StringMap_Get(settings, "size") ? "set" : "not set");
    for (int32_t i = 0; i < StringMap_Length(settings); i++) /* in hash order */
        printf("%s: %s\n", StringMap_KeyAt(settings, i), StringMap_ValueAt(settings, i));
    StringMap_Free(settings);
    return 0;
}
