// SPDX-License-Identifier: MIT
// Three-part version strings compared part by part.
#include "vokt/text/version.h"

#include <stdint.h>
#include <stdio.h>

extern "C" {

int32_t Version_Compare(const char *a, const char *b) {
    int pa[3], pb[3];
    // A text that does not give three numbers compares as equal to anything; sscanf's
    // reading of each number is the rule version texts have always been read by.
    if (!a || !b || sscanf(a, "%d.%d.%d", &pa[0], &pa[1], &pa[2]) != 3 ||  // NOLINT(cert-err34-c)
        sscanf(b, "%d.%d.%d", &pb[0], &pb[1], &pb[2]) != 3)                // NOLINT(cert-err34-c)
        return 0;
    for (int i = 0; i < 3; i++) {
        const int64_t difference = static_cast<int64_t>(pa[i]) - pb[i];
        // The difference itself where it fits; the nearest value of the same sign where not.
        if (difference > INT32_MAX) return INT32_MAX;
        if (difference < INT32_MIN) return INT32_MIN;
        if (difference != 0) return static_cast<int32_t>(difference);
    }
    return 0;
}

}  // extern "C"
