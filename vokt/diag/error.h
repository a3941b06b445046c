// SPDX-License-Identifier: MIT
/** @file
 * Assertion reports, Error records, the error store and network error texts.
 *
 * An operation's result is a 32-bit error reference: 0 success; -2 (ERROR_OUT_OF_MEMORY) out
 * of memory, standing for a static Error that is never freed; a value with ERROR_COMPLEX_BIT
 * set names an Error kept in the process-wide store; anything else (such as -1) is a plain
 * code with no Error. Whoever finally handles a stored Error takes it out of the store
 * (ErrorStore_Take()) and frees it (Error_Free()). The store is shared by every thread.
 *
 * @par Example
 * @include reference/error.c
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

/** Reports a failed assertion: "Assertion failed: <condition> in file <module> on line <line>"
 *  at log level 0 (followed by an empty line); the caller carries on, never stopped.
 * @param condition The condition's source text.
 * @param module The reporting module's name.
 * @param line The source line. Any thread. */
VOKT_API void Assert_Fail(const char *condition, const char *module, int32_t line);
/** Makes an Error whose message is meant for the user.
 * @param code The error code; it decides the priority (Error_SetPriorityTable()).
 * @param format A printf format for the message, checked against the arguments.
 * @param ... Its arguments.
 * @return The Error, unregistered and owned by the caller (ErrorStore_Register() or
 *         Error_Free()); null when memory ran out, or when the message could not be formatted
 *         ("Unable to generate VOKT error description '<format>'" on standard error). */
VOKT_API Error *Error_NewFriendly(int32_t code, const char *format, ...) VOKT_PRINTF(2, 3);
/** Makes an internal Error (code 999, priority 100), whose message is technical.
 * @param format A printf format for the message, checked against the arguments.
 * @param ... Its arguments.
 * @return As Error_NewFriendly(). */
VOKT_API Error *Error_NewInternal(const char *format, ...) VOKT_PRINTF(1, 2);
/** Makes an Error for a socket or resolver error number, with a readable text where one is
 *  known (NetError_Describe()): a friendly Error (code 998) when there is a text, or when the
 *  log's threshold reaches the number's level; an internal one otherwise.
 * @param number The error number (errno, or the resolver's h_errno).
 * @param operation What was being done, for the message.
 * @return The Error, unregistered and owned by the caller; null for number 0 or when memory
 *         ran out. */
VOKT_API Error *Error_NewNetwork(int32_t number, const char *operation);
/** Frees an Error and its texts.
 * @param e The Error, dead afterwards; the static out-of-memory record, and null, are left
 *        alone, so whatever ErrorStore_Take() gives may be freed. */
VOKT_API void Error_Free(Error *e);
/** Stores an Error and names it by a reference: the first free slot is reused.
 * @param e The Error, now the store's.
 * @return Its reference (ERROR_COMPLEX_BIT plus the slot's index plus one); -2 when e is null
 *         or memory ran out, in which case e stays the caller's. Any thread. */
VOKT_API int32_t ErrorStore_Register(Error *e);
/** Tells whether a result names an Error.
 * @param ref A result or reference.
 * @return 1 for -2 and for a reference whose Error is stored, else 0 (0, -1 and other plain
 *         codes included). Any thread. */
VOKT_API int32_t ErrorStore_IsError(int32_t ref);
/** Looks at the Error of a reference, which stays in the store.
 * @param ref The reference; an invalid one is reported (ErrorStore_Check()).
 * @return The Error, borrowed; the static out-of-memory record for -2; null for a reference
 *         whose Error is not stored. */
VOKT_API Error *ErrorStore_Get(int32_t ref);
/** Takes the Error of a reference out of the store; the reference is then spent, and its slot
 *  is reused by a later registration.
 * @param ref The reference; one that names no stored Error (taken already, or never issued)
 *        is reported and changes nothing in the store.
 * @return The Error, now the caller's (Error_Free()); the static record for -2; null for an
 *         invalid reference. Any thread; the store is freed once it holds no Error. */
VOKT_API Error *ErrorStore_Take(int32_t ref);
/** Reports each way in which a reference is invalid (not complex; no store; index past the
 *  store; an empty slot) through Assert_Fail(), in that order.
 * @param ref The reference; -2 passes. */
VOKT_API void ErrorStore_Check(int32_t ref);
/** Keeps the more important of two results: of two stored Errors the one of higher priority
 *  survives (the first on a tie) and the other is taken and freed.
 * @param a A result: 0, a plain code, -2 or a reference.
 * @param b Another.
 * @return b when a is 0; a when b is 0 or when both are the same (nothing is freed);
 *         otherwise the surviving reference. */
VOKT_API int32_t ErrorStore_Combine(int32_t a, int32_t b);
/** Traces a stored Error at the debug level: "<module>:<line> - Error code <code>:
 *  <message>", written only when the threshold is 100 (or not yet read).
 * @param ref The reference; anything but a stored Error writes nothing.
 * @param module The passing module's name.
 * @param line The source line. */
VOKT_API void Error_Trace(int32_t ref, const char *module, int32_t line);
/** Describes a socket or resolver error number: its symbolic name ("ECONNREFUSED"; the number
 *  itself when unknown), a readable text (often empty) and the log level at which it is
 *  worth telling the user (25 or 50; 50 when unknown).
 * @param number The error number.
 * @param name Null, or receives the name, cut to nameLength bytes with its terminator.
 * @param nameLength The size of name.
 * @param text Null, or receives the text, cut likewise.
 * @param textLength The size of text.
 * @param level Null, or receives the level. */
VOKT_API void NetError_Describe(int32_t number, char *name, int32_t nameLength, char *text, int32_t textLength,
                                int32_t *level);
/** Start-up step of the store. Its mutex is statically initialised (the store is usable before
 * any start-up) and never initialised again, so a thread inside the store is undisturbed. */
VOKT_API void ErrorStore_Init(void);
/** Frees every stored Error and the store; their references are dead afterwards.
 * @note Call it at the end of the program, when no other thread uses the store. */
VOKT_API void ErrorStore_Shutdown(void);
/** (extension) Sets the priorities of friendly Errors with codes 0 to 103 (the program's own
 *  error codes): each made afterwards takes its priority from this table.
 * @param table 104 priorities, copied; null restores 100 for each. */
VOKT_API void Error_SetPriorityTable(const int32_t table[104]);
/** (extension) Sets the priority of one code.
 * @param code The code; for codes of 104 and above up to 64 entries are kept (more are
 *        ignored).
 * @param priority Its priority (the default is 100; 99 for 998). */
VOKT_API void Error_SetCodePriority(int32_t code, int32_t priority);

#ifdef __cplusplus
}
#endif
#endif
