// SPDX-License-Identifier: MIT
/** @file
 * The process-wide log file ("vokt.log"), its levels, echo and size limit.
 */
#ifndef VOKT_DIAG_LOG_H
#define VOKT_DIAG_LOG_H

#include <stdarg.h>
#include <stdint.h>

#include "vokt/core/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Writes one line when level is at or below the threshold: 0, or -2 when out of memory. */
VOKT_API int32_t Log_Write(int32_t level, const char *format, ...) VOKT_PRINTF(2, 3);
/** Log_Write with an argument list. */
VOKT_API int32_t Log_WriteV(int32_t level, const char *format, va_list args) VOKT_PRINTF(2, 0);
/** Writes at level 100; always 0. */
VOKT_API int32_t Log_Debug(const char *format, ...) VOKT_PRINTF(1, 2);
/** Logs to path from now on (NULL: back to "vokt.log"): 0, -2 or an error reference. */
VOKT_API int32_t Log_SetFile(const char *path);
/** The first call sets the threshold; later calls can only raise it. */
VOKT_API void Log_SetLevel(int32_t level);
/** Sets the threshold while Log_SetLevel has not been called yet. */
VOKT_API void Log_SetInitialLevel(int32_t level);
/** Size limit of the log file in KiB (at least 2). */
VOKT_API void Log_SetMaxSize(int32_t kb);
/** Copies every written line to standard output when nonzero. */
VOKT_API void Log_SetEcho(int32_t flag);
/** The threshold in force (-1 before the environment has been read), read without the lock. */
VOKT_API int32_t Log_GetLevel(void);
/** Start-up step of the log. Its mutex is statically initialised, so the log is usable before
 * any start-up, and it is never initialised again: this call leaves a thread that is already
 * logging undisturbed. The log is also safe across fork(): the child can log even if another
 * thread was logging at that moment. */
VOKT_API void Log_Init(void);
/** Last call of the log; no log call may follow. */
VOKT_API void Log_Shutdown(void);

#ifdef __cplusplus
}
#endif
#endif
