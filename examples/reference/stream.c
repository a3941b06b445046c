// SPDX-License-Identifier: MIT
/* Stream: lines from a text, and logical lines joined at a trailing backslash. */
#include <stdio.h>

#include "vokt/vokt.h"

int main(void) {
    Runtime_Init();
    Stream *lines = Stream_NewFromString("first\nsecond\nthird");
    String *line = String_New();
    if (!lines || !line) return 1;
    /* Read until the end flag: the read that finds the end leaves the line as it was. */
    while (Stream_ReadLine(lines, line) == 0 && !Stream_IsEOF(lines)) printf("line: %s\n", line->string);
    Stream_Destroy(lines);

    Stream *config = Stream_NewFromString("name = a \\\n   long value\nother = x\n");
    if (!config) return 1;
    while (Stream_ReadLogicalLine(config, line) == 0 && !Stream_IsEOF(config)) printf("logical: %s\n", line->string);
    Stream_Destroy(config);
    String_Destroy(line);
    return 0;
}
