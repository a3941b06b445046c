// SPDX-License-Identifier: MIT
/** @file
 * Stream, one line reader over a String, a stdio file or a file descriptor.
 *
 * Each source keeps its own line-end rules: a String's lines end at a line feed (a carriage
 * return is kept); a file's at a line feed, at most 1023 bytes a read; a descriptor's lines may
 * be of any length, carriage returns and line feeds stripped.
 *
 * @par Example
 * @include reference/stream.c
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
/** A stream's reader.
 * @param stream The stream.
 * @param line Receives the next line.
 * @param length Null, or receives the line's length (0 when none).
 * @return 0, or a failure code as Stream_ReadLine() gives it. */
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

/** Makes a stream over a copy of a text.
 * @param chars The text; null reads as an empty one.
 * @return The stream, owned by the caller (Stream_Destroy()); null when memory ran out
 *         ("Unable to allocate Stream stream" when the record failed). */
VOKT_API Stream *Stream_NewFromString(const char *chars);
/** Makes a stream over an open stdio file, read from where it stands.
 * @param fp The file; it stays the caller's: destroying the stream never closes it.
 * @return The stream, owned by the caller; null when memory ran out. */
VOKT_API Stream *Stream_NewFromFile(FILE *fp);
/** Makes a stream over a file descriptor, read 128 bytes at a time.
 * @param fd The descriptor; it stays the caller's. Descriptor 0 is reported at every check
 *        ("stream->handle != 0") and read all the same.
 * @return The stream, owned by the caller; null when memory ran out. */
VOKT_API Stream *Stream_NewFromHandle(int32_t fd);
/** Destroys the stream with its last line and its text (the class's Destroy slot); a file or
 *  descriptor is never closed.
 * @param stream The stream, dead afterwards. */
VOKT_API void Stream_Destroy(Stream *stream);
/** Checks a stream (it exists and has the source its type says); a broken rule is reported
 *  in the log.
 * @param stream The stream. */
VOKT_API void Stream_Check(const Stream *stream);
/** Tells whether the end of input has been reached.
 * @param stream The stream.
 * @return 1 once a read found the end (also for a null stream), else 0. */
VOKT_API int32_t Stream_IsEOF(const Stream *stream);
/** Reads the next line and keeps a copy of it as the stream's last line. The read that finds
 *  the end of input sets the end flag; a String or file stream then leaves line as it was (a
 *  file stream: empty), a descriptor stream leaves it unset. Read until Stream_IsEOF() says 1.
 * @param stream The stream.
 * @param line Receives the line (replaced).
 * @return 0; -2 when memory ran out; -1 for a null argument. */
VOKT_API int32_t Stream_ReadLine(Stream *stream, String *line);
/** Copies the last line that Stream_ReadLine() delivered.
 * @param stream The stream.
 * @param out Receives it (replaced); unset when no line was read yet.
 * @return 0; -2 when memory ran out; -1 for a null argument. */
VOKT_API int32_t Stream_GetLastLine(const Stream *stream, String *out);
/** Reads the next logical line: physical lines continued with a backslash are joined with one
 *  blank, blanks around each joint and at both ends are dropped, and blank lines after a
 *  continuation are skipped: the line "key = a" ending in a backslash, then the line "   b",
 *  give "key = a b".
 * @param stream The stream.
 * @param out Receives the logical line (replaced); "" at the end of input.
 * @return 0; -2 when memory ran out; -1 for a null argument. */
VOKT_API int32_t Stream_ReadLogicalLine(Stream *stream, String *out);

#ifdef __cplusplus
}
#endif
#endif
