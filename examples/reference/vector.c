// SPDX-License-Identifier: MIT
/* Vector: an owning vector of Strings, sorted, searched and emptied. */
#include <stdio.h>

#include "vokt/vokt.h"

int main(void) {
    Runtime_Init();
    Vector *names = Vector_NewOwning(); /* destroys its elements when freed */
    if (!names) return 1;
    const char *input[] = {"pear", "apple", "fig"};
    for (int i = 0; i < 3; i++)
        if (!Vector_Add(names, String_NewFromChars(input[i]))) return 1;

    Vector_Sort(names); /* with String_Compare, the Compare slot of element 0 */
    for (int64_t i = 0; i < Vector_Length(names); i++) printf("%s\n", ((String *)Vector_GetAt(names, i))->string);

    /* Removal never destroys: the stored String comes back to the caller. */
    String *probe = String_NewFromChars("fig");
    String *removed = Vector_Remove(names, probe);
    printf("removed %s, %d left\n", removed->string, (int)Vector_Length(names));
    String_Destroy(removed);
    String_Destroy(probe);
    Vector_Free(names);
    return 0;
}
