// SPDX-License-Identifier: MIT
/* StringBag: how often each word comes, case ignored, the first spelling kept. */
#include <stdio.h>

#include "vokt/vokt.h"

int main(void) {
    Runtime_Init();
    StringBag *bag = StringBag_New();
    if (!bag) return 1;
    const char *words[] = {"Apple", "pear", "APPLE", "Fig", "apple"};
    for (int i = 0; i < 5; i++)
        if (StringBag_Add(bag, words[i], 1) != 0) return 1;

    StringBag_Sort(bag);
    for (int64_t i = 0; i < StringBag_Length(bag); i++) {
        const StringBagElem *e = Vector_GetAt(bag->elements, i);
        printf("%s %u\n", e->string->string, (unsigned)e->count);
    }
    StringBag_Free(bag);
    return 0;
}
