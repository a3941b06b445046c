// SPDX-License-Identifier: MIT
/** @file
 * Assertion reports, Error records, the error store and network error texts.
 */
#ifndef VOKT_DIAG_ERROR_H
#define VOKT_DIAG_ERROR_H

#include <stdint.h>

#include "vokt/core/object.h"
#include "vokt/text/string.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A stored error record. Created unregistered; once taken from the store (ErrorStore_Take)
 *  it belongs to the taking thread, which frees it with Error_Free. */
typedef struct Error {
    const ClassDescriptor *ftbl; /**< The Error descriptor. */
    String *message; /**< The formatted text of the error. */
    String *detail; /**< A short user-facing text (network errors that have one), or null. */
    int32_t bFriendly; /**< 1: the message is meant for the user; 0: internal. */
    int32_t code; /**< The error code; 999 for every internal error, 998 for network errors. */
    int32_t systemError; /**< The operating-system or resolver error number, else 0. */
    int32_t priority; /**< Decides which of two errors ErrorStore_Combine keeps; 100 by default. */
    int32_t bStatic; /**< 1 only in the static out-of-memory record, which is never freed. */
} Error;

/** Logs "Assertion failed: ..." at level 0; the caller carries on. */
VOKT_API void Assert_Fail(const char *condition, const char *module, int32_t line);
/** New unregistered user-facing Error, or null. */
VOKT_API Error *Error_NewFriendly(int32_t code, const char *format, ...) VOKT_PRINTF(2, 3);
/** New unregistered internal Error (code 999), or null. */
VOKT_API Error *Error_NewInternal(const char *format, ...) VOKT_PRINTF(1, 2);
/** New unregistered Error for a socket or resolver error number; null for 0. */
VOKT_API Error *Error_NewNetwork(int32_t number, const char *operation);
/** Frees an Error; the static out-of-memory record is left alone. */
VOKT_API void Error_Free(Error *e);
/** Stores e and returns its reference; -2 (e not taken) on failure. */
VOKT_API int32_t ErrorStore_Register(Error *e);
/** 1 when ref stands for an Error (-2 included), else 0. */
VOKT_API int32_t ErrorStore_IsError(int32_t ref);
/** The Error of ref, left in the store (borrowed). */
VOKT_API Error *ErrorStore_Get(int32_t ref);
/** The Error of ref, removed from the store: the caller frees it with Error_Free. A reference
 *  that names no stored error (taken already, or never issued) is reported, gives null and
 *  changes nothing in the store. */
VOKT_API Error *ErrorStore_Take(int32_t ref);
/** Reports an invalid reference through the assertion log. */
VOKT_API void ErrorStore_Check(int32_t ref);
/** Keeps the error of higher priority (the first on a tie) and frees the other; a reference
 *  combined with itself is returned untouched. */
VOKT_API int32_t ErrorStore_Combine(int32_t a, int32_t b);
/** Logs the error's module, line, code and message at the debug level. */
VOKT_API void Error_Trace(int32_t ref, const char *module, int32_t line);
/** Name, text and level of a socket or resolver error number; any pointer may be null. */
VOKT_API void NetError_Describe(int32_t number, char *name, int32_t nameLength, char *text, int32_t textLength,
                                int32_t *level);
/** Start-up step of the store. Its mutex is statically initialised (the store is usable before
 * any start-up) and never initialised again, so a thread inside the store is undisturbed. */
VOKT_API void ErrorStore_Init(void);
/** Frees every stored Error and the store. */
VOKT_API void ErrorStore_Shutdown(void);
/** (extension) Priorities of friendly errors with codes 0 to 103, from the program
 * built on the runtime; NULL restores the default of 100 for each. */
VOKT_API void Error_SetPriorityTable(const int32_t table[104]);
/** (extension) Priority of one code; codes of 104 and above keep up to 64 entries. */
VOKT_API void Error_SetCodePriority(int32_t code, int32_t priority);

#ifdef __cplusplus
}
#endif
#endif
