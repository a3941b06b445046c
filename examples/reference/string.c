// SPDX-License-Identifier: MIT
/* String: splitting, trimming, formatting, wrapping and joining. An output String is
 * replaced unless the operation's name says Append. */
#include <stdio.h>

#include "vokt/vokt.h"

int main(void) {
    Runtime_Init();
    String *line = String_NewFromChars("  colour = deep blue  ");
    String *key = String_New(), *value = String_New();
    if (!line || !key || !value) return 1;
    if (String_SplitAt(line, '=', key, value) == 0) {
        String_Trim(key);
        String_Trim(value);
    }
    String_Format(line, "[%s] is [%s]", key->string, value->string);
    String_AppendChars(line, ", and that is final");
    printf("%s\n", line->string);

    String_Wrap(line, 16); /* breaks at spaces with "\r\n" */
    printf("%s\n", line->string);

    Vector *parts = Vector_NewOwning();
    String_SplitChars("a,b,,c", ',', parts); /* empty pieces are kept */
    String_Join(parts, " | ", line);
    printf("%s (%d pieces)\n", line->string, (int)Vector_Length(parts));

    Vector_Free(parts);
    String_Destroy(line);
    String_Destroy(key);
    String_Destroy(value);
    return 0;
}
