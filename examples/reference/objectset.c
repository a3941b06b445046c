// SPDX-License-Identifier: MIT
/* ObjectSet: distinct Strings by hash and equality; the set never owns them. */
#include <stdio.h>

#include "vokt/vokt.h"

int main(void) {
    Runtime_Init();
    ObjectSet *seen = ObjectSet_New();
    Vector *owner = Vector_NewOwning(); /* the Strings belong here */
    if (!seen || !owner) return 1;

    const char *words[] = {"red", "green", "red", "blue", "green"};
    for (int i = 0; i < 5; i++) {
        String *word = Vector_Add(owner, String_NewFromChars(words[i]));
        int32_t added = 0;
        if (ObjectSet_Add(seen, word, &added) != 0) return 1;
        printf("%s%s\n", words[i], added ? "" : " (seen before)");
    }
    String *probe = String_NewFromChars("blue");
    printf("blue is %s\n", ObjectSet_Find(seen, probe) ? "there" : "missing");
    String_Destroy(probe);

    ObjectSet_Free(seen); /* the Strings stay alive... */
    Vector_Free(owner);   /* ...until their owner goes */
    return 0;
}
