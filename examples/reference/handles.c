// SPDX-License-Identifier: MIT
/* Handles: a file as an object that closes it when destroyed, read through a Stream. */
#include <stdio.h>

#include "vokt/vokt.h"

int main(void) {
    Runtime_Init();
    FileHandle *out = FileHandle_New("handles-example.txt", "w");
    if (!out) return 1;
    if (!out->fp) { /* a failed open is a live object without a file */
        perror("handles-example.txt");
        FileHandle_Destroy(out);
        return 1;
    }
    fputs("one\ntwo\n", out->fp);
    FileHandle_Destroy(out); /* closes the file */

    FileHandle *in = FileHandle_New("handles-example.txt", "r");
    Stream *lines = in && in->fp ? Stream_NewFromFile(in->fp) : NULL;
    String *line = String_New();
    if (!lines || !line) return 1;
    while (Stream_ReadLine(lines, line) == 0 && !Stream_IsEOF(lines)) printf("%s\n", line->string);
    Stream_Destroy(lines); /* the file stays open: it is the FileHandle's */
    FileHandle_Destroy(in);
    String_Destroy(line);
    return remove("handles-example.txt");
}
