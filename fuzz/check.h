// SPDX-License-Identifier: MIT
// Shared by the fuzz targets: a model mismatch is a crash, so libFuzzer keeps the input.
#ifndef VOKT_FUZZ_CHECK_H
#define VOKT_FUZZ_CHECK_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "vokt/vokt.h"

#define FUZZ_CHECK(cond)                                                                  \
    do {                                                                                  \
        if (!(cond)) {                                                                    \
            fprintf(stderr, "model mismatch: %s (%s:%d)\n", #cond, __FILE__, __LINE__);   \
            abort();                                                                      \
        }                                                                                 \
    } while (0)

// The String's invariant, and its text.
inline std::string Text(const String *s) {
    FUZZ_CHECK(s != nullptr);
    FUZZ_CHECK((s->bIsSet != 0) == (s->string != nullptr));
    if (!s->string) return "";
    FUZZ_CHECK(strlen(s->string) == s->length);
    return std::string(s->string, s->length);
}

// Text as the C API sees it: up to the first NUL.
inline std::string CText(const std::string &bytes) { return std::string(bytes.c_str()); }

// Takes and frees a stored error; the reference must name one.
inline void DropError(int32_t ref) {
    FUZZ_CHECK(ErrorStore_IsError(ref));
    Error_Free(ErrorStore_Take(ref));
}

// Assertion reports and failures are not written anywhere while fuzzing.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    setenv("VOKT_LOGGING", "-5", 1);
    return 0;
}

#endif
