// SPDX-License-Identifier: MIT
/* Errors: a failing operation returns a reference to a stored Error; callers pass it on
 * unchanged, and whoever handles it takes it out of the store and frees it. */
#include <stdio.h>

#include "vokt/vokt.h"

static int32_t OpenSettings(const char *path) {
    if (!File_Exists(path)) return ErrorStore_Register(Error_NewFriendly(12, "No settings in %s", path));
    return 0;
}

static int32_t Start(void) {
    const int32_t result = OpenSettings("/no/such/file.conf");
    if (ErrorStore_IsError(result)) Error_Trace(result, "example", __LINE__); /* written at level 100 */
    return result; /* passed on unchanged */
}

int main(void) {
    Runtime_Init();
    int32_t result = Start();
    /* Of two failures the more important survives; the other is freed. */
    result = ErrorStore_Combine(result, ErrorStore_Register(Error_NewNetwork(111, "connect")));
    if (ErrorStore_IsError(result)) {
        Error *e = ErrorStore_Take(result); /* now ours: the -2 record is static, also safe */
        printf("code %d: %s\n", (int)e->code, e->message->string);
        Error_Free(e);
    }
    return 0;
}
