// SPDX-License-Identifier: MIT
/** @file
 * Socket, StreamHandle and FileHandle: descriptors and files as objects that close what
 * they hold when destroyed. What Socket_New and FileHandle_New open is close-on-exec, so it
 * never leaks into a program that another thread starts.
 */
#ifndef VOKT_TEXT_HANDLES_H
#define VOKT_TEXT_HANDLES_H

#include <stdint.h>
#include <stdio.h>

#include "vokt/core/object.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A socket descriptor with the object shape, closed by Socket_Destroy. */
typedef struct Socket {
    const ClassDescriptor *ftbl; /**< The Socket descriptor. */
    int32_t fd; /**< The socket; -1 when socket() failed. */
} Socket;
/** A file descriptor with the object shape, closed by StreamHandle_Destroy. */
typedef struct StreamHandle {
    const ClassDescriptor *ftbl; /**< The StreamHandle descriptor. */
    int32_t fd; /**< The descriptor (owned); a negative one is never closed. */
} StreamHandle;
/** A stdio file with the object shape, closed by FileHandle_Destroy. */
typedef struct FileHandle {
    const ClassDescriptor *ftbl; /**< The FileHandle descriptor. */
    FILE *fp; /**< The file (owned); null when fopen failed. */
} FileHandle;

/** New Socket holding socket(domain, type | SOCK_CLOEXEC, protocol); fd is -1 when that
 * failed. Null
 * only when out of memory. */
VOKT_API Socket *Socket_New(int32_t domain, int32_t type, int32_t protocol);
/** Closes fd (when not negative) and frees the object. */
VOKT_API void Socket_Destroy(Socket *s);
/** New StreamHandle owning fd, or null. */
VOKT_API StreamHandle *StreamHandle_New(int32_t fd);
/** Closes fd (when not negative) and frees the object. */
VOKT_API void StreamHandle_Destroy(StreamHandle *s);
/** New FileHandle holding fopen(path, mode) with 'e' (close-on-exec) added; fp is null
 * when the open failed. Null only when out of memory. */
VOKT_API FileHandle *FileHandle_New(const char *path, const char *mode);
/** Closes fp (when not null) and frees the object. */
VOKT_API void FileHandle_Destroy(FileHandle *s);

#ifdef __cplusplus
}
#endif
#endif
