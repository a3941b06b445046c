// SPDX-License-Identifier: MIT
/** @file
 * Socket, StreamHandle and FileHandle: descriptors and files as objects that close what
 * they hold when destroyed. What Socket_New and FileHandle_New open is close-on-exec, so it
 * never leaks into a program that another thread starts. A failed open is not a failed
 * constructor: it shows as a negative descriptor or a null file inside a live object.
 *
 * @par Example
 * @include reference/handles.c
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

/** Opens a socket as an object.
 * @param domain As socket()'s (AF_UNIX, AF_INET, ...).
 * @param type As socket()'s; SOCK_CLOEXEC is added.
 * @param protocol As socket()'s.
 * @return The object, owned by the caller (Socket_Destroy()), whose fd is -1 when socket()
 *         failed (errno tells why); null only when memory ran out. */
VOKT_API Socket *Socket_New(int32_t domain, int32_t type, int32_t protocol);
/** Closes the socket (when its fd is not negative) and frees the object (the class's Destroy
 *  slot).
 * @param s The object, dead afterwards. */
VOKT_API void Socket_Destroy(Socket *s);
/** Wraps an open descriptor as an object that closes it when destroyed.
 * @param fd The descriptor, now owned by the object.
 * @return The object, owned by the caller (StreamHandle_Destroy()); null when memory ran
 *         out (fd is then still the caller's). */
VOKT_API StreamHandle *StreamHandle_New(int32_t fd);
/** Closes the descriptor (when not negative) and frees the object (the class's Destroy slot).
 * @param s The object, dead afterwards. */
VOKT_API void StreamHandle_Destroy(StreamHandle *s);
/** Opens a stdio file as an object.
 * @param path As fopen()'s.
 * @param mode As fopen()'s; 'e' (close-on-exec) is added unless given.
 * @return The object, owned by the caller (FileHandle_Destroy()), whose fp is null when the
 *         open failed (errno tells why); null only when memory ran out. */
VOKT_API FileHandle *FileHandle_New(const char *path, const char *mode);
/** Closes the file (when not null) and frees the object (the class's Destroy slot).
 * @param s The object, dead afterwards. */
VOKT_API void FileHandle_Destroy(FileHandle *s);

#ifdef __cplusplus
}
#endif
#endif
