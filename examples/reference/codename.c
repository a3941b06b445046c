// SPDX-License-Identifier: MIT
/* CodeName: a short identifier packed into one 64-bit number, and back. */
#include <stdio.h>

#include "vokt/vokt.h"

int main(void) {
    Runtime_Init();
    CodeName *code = CodeName_FromName("Order_42");
    String *name = String_New();
    if (!code || !name || CodeName_ToName(code, name) != 0) return 1;
    printf("%s packs to %llu and unpacks to %s\n", "Order_42", (unsigned long long)CodeName_Value(code),
           name->string);

    /* A block outside 0 to 10 is refused with a stored Error. */
    int32_t result = CodeName_SetBlock(code->words, 11, 1);
    if (ErrorStore_IsError(result)) {
        Error *e = ErrorStore_Take(result);
        printf("refused: %s\n", e->message->string);
        Error_Free(e);
    }
    Object_Destroy(code);
    String_Destroy(name);
    return 0;
}
