// SPDX-License-Identifier: MIT
/* Versions: three numbers compared one by one. */
#include <stdio.h>

#include "vokt/vokt.h"

int main(void) {
    const char *pairs[][2] = {{"2.1.8", "2.1.10"}, {"3.0.0", "2.9.9"}, {"1.2.3", "1.2.3"}, {"2.1", "9.9.9"}};
    for (int i = 0; i < 4; i++) {
        const int32_t d = Version_Compare(pairs[i][0], pairs[i][1]);
        printf("%s %s %s\n", pairs[i][0], d < 0 ? "<" : d > 0 ? ">" : "==", pairs[i][1]);
    }
    return 0;
}
