/* vokt: Stream, one line reader over a String, a stdio file or a file descriptor. */
#ifndef VOKT_TEXT_STREAM_H
#define VOKT_TEXT_STREAM_H

#include <stdint.h>
#include <stdio.h>

#include "vokt/core/object.h"
#include "vokt/text/string.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { STRING_STREAM = 1, FILE_STREAM = 2, HANDLE_STREAM = 3 }; /* 0: under construction */

typedef struct Stream Stream;
typedef int32_t (*StreamReader)(Stream *stream, String *line, int32_t *length);

struct Stream {
    const ClassDescriptor *ftbl;
    StreamReader readLine;
    int32_t type;
    int32_t bEof;
    String *lastLine;
    String *string;
    int32_t pos;
    FILE *file;
    int32_t handle;
    char buffer[128];
    int32_t bufLen;
    int32_t bufPos;
};

/* Stream over a copy of chars (lines end at '\n'; '\r' is kept), or null. */
VOKT_API Stream *Stream_NewFromString(const char *chars);
/* Stream over an open file (at most 1023 bytes a line per read), or null. The file stays
 * the caller's: destroying the stream never closes it. */
VOKT_API Stream *Stream_NewFromFile(FILE *fp);
/* Stream over a descriptor (lines of any length, CR-LF stripped), or null. The
 * descriptor stays the caller's. */
VOKT_API Stream *Stream_NewFromHandle(int32_t fd);
VOKT_API void Stream_Destroy(Stream *stream);
/* Reports a broken invariant through the assertion log. */
VOKT_API void Stream_Check(const Stream *stream);
VOKT_API int32_t Stream_IsEOF(const Stream *stream);
/* Reads the next line into line and keeps a copy as the last line: 0 or a code. At the
 * end of input bEof is set. */
VOKT_API int32_t Stream_ReadLine(Stream *stream, String *line);
/* out := the last line read (unset when there is none): 0 or a code. */
VOKT_API int32_t Stream_GetLastLine(const Stream *stream, String *out);
/* out := the next logical line: physical lines continued with a backslash joined by one
 * blank; "" at the end of input. 0 or a code. */
VOKT_API int32_t Stream_ReadLogicalLine(Stream *stream, String *out);

#ifdef __cplusplus
}
#endif
#endif
