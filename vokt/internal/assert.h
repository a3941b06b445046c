// SPDX-License-Identifier: MIT
// Private: the library's assertions. A failed one is reported with the condition in its own
// source words and execution goes on. A file that uses them defines `constexpr char kModule[]`
// first.
#ifndef VOKT_INTERNAL_ASSERT_H
#define VOKT_INTERNAL_ASSERT_H

#include <stdio.h>

#include "vokt/diag/error.h"

// Reported through Assert_Fail, into the log, with this line.
#define VOKT_ASSERT(cond)                                        \
    do {                                                         \
        if (!(cond)) Assert_Fail(#cond, kModule, __LINE__);      \
    } while (0)

// Reports and returns the given value: used only where carrying on would touch memory
// that is not there (a null object, an index past the allocation).
#define VOKT_ASSERT_OR_RETURN(cond, ...)                         \
    do {                                                         \
        if (!(cond)) {                                           \
            Assert_Fail(#cond, kModule, __LINE__);               \
            return __VA_ARGS__;                                  \
        }                                                        \
    } while (0)

// The thread layer's form, on standard error: the log and the error store lock Mutexes, so
// a report from inside a Mutex, a Counter or a thread's record could re-enter the lock it is
// about. Its line numbers are the ones these reports have always carried, which tools match,
// not the lines of today's source.
#define VOKT_ASSERT_ON_STDERR(cond, line)                        \
    do {                                                         \
        if (!(cond)) vokt::AssertOnStderr(#cond, kModule, line); \
    } while (0)

namespace vokt {
[[gnu::cold, gnu::noinline]] inline void AssertOnStderr(const char *condition, const char *module, int line) {
    fprintf(stderr, "Assertion failed: %s in file %s on line %d\n", condition, module, line);
}
}  // namespace vokt

#endif
