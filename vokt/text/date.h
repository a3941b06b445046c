// SPDX-License-Identifier: MIT
/** @file
 * Day-month-year dates ("5-jan-2024") and month names, in local time.
 */
#ifndef VOKT_TEXT_DATE_H
#define VOKT_TEXT_DATE_H

#include <stdint.h>
#include <time.h>

#include "vokt/text/string.h"

#ifdef __cplusplus
extern "C" {
#endif

/** out := the local date of t as "%d-%s-%d" (the year counted in 64 bits): 0, -2, or an
 * error reference ("invalid time supplied: <t>") when t has no local date, leaving out
 * unchanged. */
VOKT_API int32_t Date_Format(String *out, time_t t);
/** Date_Format of the current time. */
VOKT_API int32_t Date_FormatNow(String *out);
/** out := "jan" to "dec" for 1 to 12: 0; otherwise "UNK" and an error reference. */
VOKT_API int32_t Month_ToName(int32_t month, String *out);
/** 1 to 12 for "jan" to "dec" (exact, case-sensitive), else an error reference. */
VOKT_API int32_t Month_FromName(const char *name);
/** The local calendar year of t; 0 when t has no local date or its year does not fit 32
 * bits. */
VOKT_API int32_t Date_Year(time_t t);
/** Date_Year of the current time. */
VOKT_API int32_t Date_CurrentYear(void);

#ifdef __cplusplus
}
#endif
#endif
