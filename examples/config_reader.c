// SPDX-License-Identifier: MIT
/* config_reader: reads a "key = value" file the way vokt programs usually do. It opens
 * the file with FileHandle_New, reads logical lines (backslash continuations joined) from
 * a Stream, splits and trims each setting, keeps the settings in a StringMap and counts
 * repeated keys in a StringBag, then prints them in key order with long values wrapped.
 * Progress goes to vokt.log at level 25 (run with VOKT_LOGGING=25 to see it).
 *
 * Usage: config_reader [file]   (default: the sample beside this program's source) */
#include <stdio.h>
#include <string.h>

#include "vokt/vokt.h"

#ifndef SAMPLE_PATH
#define SAMPLE_PATH "examples/sample.conf"
#endif

enum { WIDTH = 64 };

/* Reports a problem through the error store, as library code would, then handles it:
 * print, log, free. */
static void ReportBadLine(int number, const String *line) {
    int32_t ref = ErrorStore_Register(Error_NewFriendly(1, "logical line %d has no '=' and is skipped: %s", number,
                                                        line->string));
    Error *error = ErrorStore_Take(ref);
    fprintf(stderr, "config_reader: %s\n", error->message->string);
    Log_Write(1, "config_reader: %s", error->message->string);
    Error_Free(error);
}

/* Reads every setting; 0, or the failure code of the stream or the collections. */
static int32_t ReadSettings(Stream *stream, StringMap *settings, StringBag *keys) {
    String *line = String_New(), *key = String_New(), *value = String_New();
    int32_t code = line && key && value ? 0 : -2;
    int number = 0;
    while (code == 0) {
        code = Stream_ReadLogicalLine(stream, line);
        if (code != 0) break;
        number++;
        String_Trim(line);
        if (String_Length(line) == 0 || line->string[0] == '#') {
            if (Stream_IsEOF(stream)) break;
            continue;
        }
        if (String_SplitAt(line, '=', key, value) == 1) {
            ReportBadLine(number, line);
            continue;
        }
        String_Trim(key);
        String_Trim(value);
        code = StringBag_Add(keys, key->string, 1);
        if (code == 0) code = StringMap_Set(settings, key->string, value->string);
        Log_Write(50, "config_reader: %s = %s", key->string, value->string);
    }
    String_Destroy(line);
    String_Destroy(key);
    String_Destroy(value);
    return code;
}

static uint32_t TimesSet(StringBag *keys, const char *key) {
    for (int64_t i = 0; i < StringBag_Length(keys); i++) {
        StringBagElem *e = Vector_GetAt(keys->elements, i);
        if (strcmp(e->string->string, key) == 0) return e->count;
    }
    return 0;
}

/* Prints the settings in key order, each value wrapped under a hanging indent. */
static int32_t PrintSettings(StringMap *settings, StringBag *keys) {
    Vector *names = Vector_NewOwning();
    int32_t code = names ? 0 : -2;
    for (int32_t i = 0; code == 0 && i < StringMap_Length(settings); i++) {
        String *name = String_NewFromChars(StringMap_KeyAt(settings, i));
        if (!name || !Vector_Add(names, name)) {
            String_Destroy(name);
            code = -2;
        }
    }
    if (code == 0) Vector_Sort(names);
    for (int64_t i = 0; code == 0 && i < Vector_Length(names); i++) {
        String *name = Vector_GetAt(names, i);
        String *text = String_NewFromChars(StringMap_Get(settings, name->string));
        int32_t indent = (int32_t)name->length + 3;
        if (!text) {
            code = -2;
            break;
        }
        code = String_WrapEx(text, WIDTH - indent, WIDTH - 4, "    ");
        if (code == 0) {
            uint32_t times = TimesSet(keys, name->string);
            printf("%s = %s\n", name->string, text->string);
            if (times > 1) printf("    (set %u times; the last value is kept)\n", times);
        }
        String_Destroy(text);
    }
    Object_Destroy(names);
    return code;
}

int main(int argc, char **argv) {
    const char *path = argc > 1 ? argv[1] : SAMPLE_PATH;
    FileHandle *file;
    Stream *stream;
    StringMap *settings;
    StringBag *keys;
    int32_t code;

    Runtime_Init();
    Log_Write(25, "config_reader: reading %s", path);
    file = FileHandle_New(path, "r");
    if (!file || !file->fp) {
        fprintf(stderr, "config_reader: cannot open %s\n", path);
        Log_Write(1, "config_reader: cannot open %s", path);
        Object_Destroy(file);
        return 1;
    }
    stream = Stream_NewFromFile(file->fp);
    settings = StringMap_New();
    keys = StringBag_New();
    code = stream && settings && keys ? ReadSettings(stream, settings, keys) : -2;
    if (code == 0) {
        printf("%d settings from %s:\n\n", StringMap_Length(settings), path);
        code = PrintSettings(settings, keys);
    }
    if (code != 0) fprintf(stderr, "config_reader: failed with code %d\n", code);
    Log_Write(25, "config_reader: done with %s (code %d)", path, code);

    Object_Destroy(keys);
    Object_Destroy(settings);
    Object_Destroy(stream);
    Object_Destroy(file); /* closes the file; the stream never does */
    ErrorStore_Shutdown();
    Log_Shutdown();
    return code == 0 ? 0 : 1;
}
