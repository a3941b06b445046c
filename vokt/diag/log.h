// SPDX-License-Identifier: MIT
/** @file
 * The process-wide log file ("vokt.log"), its levels, echo and size limit.
 *
 * A line is written when its level is at or below the threshold: 0 failures that are always
 * recorded (allocation failures, assertion reports), 1 errors, 25 notable events, 50 details
 * and warnings, 100 debug trace. The threshold comes from the environment, read at the first
 * log call: VOKT_DEBUG=1 sets 100, tags each line with its thread and echoes it on standard
 * error; VOKT_DEBUG=path does the same into that file; otherwise VOKT_LOGGING=n sets n (text
 * that is no number reads as 0); without either, 0. Every call runs whole under one recursive
 * mutex, so lines from several threads never interleave. The file is opened and closed for
 * each line, and once it outgrows its limit (128 KiB) it is cut to the whole lines of its
 * newest half, at most once a minute.
 *
 * @par Example
 * @include reference/log.c
 */
#ifndef VOKT_DIAG_LOG_H
#define VOKT_DIAG_LOG_H

#include <stdarg.h>
#include <stdint.h>

#include "vokt/core/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Writes one line, "DD/MM/YYYY hh:mm:ss: " and the formatted text, when level is at or below
 *  the threshold (at threshold 100 the thread's identifier follows the time). A line whose file
 *  cannot be opened (ten attempts) is dropped quietly.
 * @param level The line's level.
 * @param format A printf format, checked against the arguments by the compiler.
 * @param ... Its arguments.
 * @return 0 (also when the line was not due); -2 when memory ran out before anything was
 *         written (when only the text could not be made, the line says "INSUFFICIENT FREE
 *         MEMORY TO MAINTAIN LOGFILE" and the result is 0). Any thread. */
VOKT_API int32_t Log_Write(int32_t level, const char *format, ...) VOKT_PRINTF(2, 3);
/** Log_Write() with an argument list.
 * @param level The line's level.
 * @param format A printf format.
 * @param args Its arguments.
 * @return As Log_Write(). */
VOKT_API int32_t Log_WriteV(int32_t level, const char *format, va_list args) VOKT_PRINTF(2, 0);
/** Writes one line at level 100 (debug trace).
 * @param format A printf format, checked against the arguments by the compiler.
 * @param ... Its arguments.
 * @return 0, always. */
VOKT_API int32_t Log_Debug(const char *format, ...) VOKT_PRINTF(1, 2);
/** Writes to another file from now on.
 * @param path The file (appended to; made when missing); null: back to "vokt.log".
 * @return 0; -2 when memory ran out (the log then uses "vokt.log"). Any thread. */
VOKT_API int32_t Log_SetFile(const char *path);
/** Sets the threshold: the first call sets it, even lower than the environment's; later calls
 *  can only raise it.
 * @param level The threshold. Any thread. */
VOKT_API void Log_SetLevel(int32_t level);
/** Sets the threshold, as long as Log_SetLevel() has not been called.
 * @param level The threshold. Any thread. */
VOKT_API void Log_SetInitialLevel(int32_t level);
/** Sets the size at which the file is cut back.
 * @param kb The limit in KiB; below 2 counts as 2. Any thread. */
VOKT_API void Log_SetMaxSize(int32_t kb);
/** Copies every written line to standard output, or stops doing so.
 * @param flag Nonzero: echo. Any thread. */
VOKT_API void Log_SetEcho(int32_t flag);
/** Reads the threshold (without the lock).
 * @return The threshold in force; -1 before the environment has been read. Any thread. */
VOKT_API int32_t Log_GetLevel(void);
/** Start-up step of the log. Its mutex is statically initialised, so the log is usable before
 * any start-up, and it is never initialised again: this call leaves a thread that is already
 * logging undisturbed. The log is also safe across fork(): the child can log even if another
 * thread was logging at that moment. */
VOKT_API void Log_Init(void);
/** Ends the log: waits for a line being written and releases the log's own memory.
 * @note Call it last, once: no log call may follow (nor any other runtime call that may log). */
VOKT_API void Log_Shutdown(void);

#ifdef __cplusplus
}
#endif
#endif
