// SPDX-License-Identifier: MIT
/* The log: one file for the whole process, lines written up to the threshold. Run with
 * VOKT_DEBUG=1 to see every line on standard error too. */
#include <stdio.h>

#include "vokt/vokt.h"

int main(void) {
    Runtime_Init();
    Log_SetFile("log-example.log"); /* "vokt.log" in the working folder otherwise */
    Log_SetLevel(50);               /* lines of levels 0 to 50 */
    Log_Write(0, "always written: %s", "failures");
    Log_Write(25, "a notable event");
    Log_Debug("level 100: not written at threshold %d", (int)Log_GetLevel());

    FILE *f = fopen("log-example.log", "r");
    char line[256];
    while (f && fgets(line, sizeof line, f)) fputs(line, stdout);
    if (f) fclose(f);
    remove("log-example.log");
    Log_Shutdown(); /* the last log call of the process */
    return 0;
}
