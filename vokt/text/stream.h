// SPDX-License-Identifier: MIT
/** @file
 * Stream, one line reader over a String, a stdio file or a file descriptor.
 */
#ifndef VOKT_TEXT_STREAM_H
#define VOKT_TEXT_STREAM_H

#include <stdint.h>
#include <stdio.h>

#include "vokt/core/object.h"
#include "vokt/text/string.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The source of a Stream (its type field; 0 while a stream is under construction). */
enum {
    STRING_STREAM = 1, /**< Lines of an in-memory text. */
    FILE_STREAM = 2,   /**< Lines of a stdio file. */
    HANDLE_STREAM = 3  /**< Lines of a file descriptor. */
};

/** A line reader over a String, a stdio file or a file descriptor. No lock: one thread at a
 *  time. The stream never closes its file or descriptor. */
typedef struct Stream Stream;
/** A stream's reader: the next line into line (its length into *length when given): 0 or
 *  a code. */
typedef int32_t (*StreamReader)(Stream *stream, String *line, int32_t *length);

/** A line reader over a String, a stdio file or a file descriptor. */
struct Stream {
    const ClassDescriptor *ftbl; /**< The Stream descriptor. */
    StreamReader readLine; /**< The reader of this stream's type. */
    int32_t type; /**< STRING_STREAM, FILE_STREAM or HANDLE_STREAM. */
    int32_t bEof; /**< Set once the end of input is reached. */
    String *lastLine; /**< Copy of the last line Stream_ReadLine delivered (owned). */
    String *string; /**< STRING_STREAM: the text (owned). */
    int32_t pos; /**< STRING_STREAM: the read position. */
    FILE *file; /**< FILE_STREAM: the file (the caller's). */
    int32_t handle; /**< HANDLE_STREAM: the descriptor (the caller's). */
    char buffer[128]; /**< HANDLE_STREAM: bytes read ahead. */
    int32_t bufLen; /**< HANDLE_STREAM: bytes held in buffer. */
    int32_t bufPos; /**< HANDLE_STREAM: the next unread byte in buffer. */
};

/** Stream over a copy of chars (lines end at a line feed; a carriage return is kept), or
 *  null. */
VOKT_API Stream *Stream_NewFromString(const char *chars);
/** Stream over an open file (at most 1023 bytes a line per read), or null. The file stays
 * the caller's: destroying the stream never closes it. */
VOKT_API Stream *Stream_NewFromFile(FILE *fp);
/** Stream over a descriptor (lines of any length, CR-LF stripped), or null. The
 * descriptor stays the caller's. */
VOKT_API Stream *Stream_NewFromHandle(int32_t fd);
/** Destroys the stream with its last line (and its text); never closes a file or descriptor. */
VOKT_API void Stream_Destroy(Stream *stream);
/** Reports a broken invariant through the assertion log. */
VOKT_API void Stream_Check(const Stream *stream);
/** 1 once the end of input has been reached (also for a null stream), else 0. */
VOKT_API int32_t Stream_IsEOF(const Stream *stream);
/** Reads the next line into line and keeps a copy as the last line: 0 or a code. At the
 * end of input bEof is set. */
VOKT_API int32_t Stream_ReadLine(Stream *stream, String *line);
/** out := the last line read (unset when there is none): 0 or a code. */
VOKT_API int32_t Stream_GetLastLine(const Stream *stream, String *out);
/** out := the next logical line: physical lines continued with a backslash joined by one
 * blank; "" at the end of input. 0 or a code. */
VOKT_API int32_t Stream_ReadLogicalLine(Stream *stream, String *out);

#ifdef __cplusplus
}
#endif
#endif
