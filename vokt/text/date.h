// SPDX-License-Identifier: MIT
/** @file
 * Day-month-year dates ("5-jan-2024") and month names, in local time.
 *
 * @par Example
 * @include reference/date.c
 */
#ifndef VOKT_TEXT_DATE_H
#define VOKT_TEXT_DATE_H

#include <stdint.h>
#include <time.h>

#include "vokt/text/string.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Writes a time's local date as day, month name and year ("5-jan-2024").
 * @param out Receives the date (replaced).
 * @param t Seconds since the epoch, as far as this machine's time_t reaches (a 32-bit time_t,
 *        as some 32-bit machines have, spans 13 December 1901 to 19 January 2038); the year
 *        is counted in 64 bits.
 * @return 0; -2 when memory ran out; or an error reference ("invalid time supplied: <t>",
 *         out unchanged) when t has no local date: the caller takes and frees that Error. */
VOKT_API int32_t Date_Format(String *out, time_t t);
/** Date_Format() of the current time.
 * @param out Receives the date.
 * @return As Date_Format(). */
VOKT_API int32_t Date_FormatNow(String *out);
/** Names a month.
 * @param month 1 to 12.
 * @param out Receives "jan" to "dec"; "UNK" for any other number.
 * @return 0; for another number an error reference ("invalid month supplied: <month>"),
 *         which the caller takes and frees; -1 for a null out. */
VOKT_API int32_t Month_ToName(int32_t month, String *out);
/** Numbers a month name, exactly and case-sensitively ("Jan" is refused).
 * @param name "jan" to "dec".
 * @return 1 to 12; for any other text an error reference ("invalid month supplied:
 *         <name>"), which the caller takes and frees. */
VOKT_API int32_t Month_FromName(const char *name);
/** The local calendar year of a time.
 * @param t Seconds since the epoch.
 * @return The year; 0 when t has no local date or its year does not fit 32 bits. */
VOKT_API int32_t Date_Year(time_t t);
/** Date_Year() of the current time.
 * @return The current local year. */
VOKT_API int32_t Date_CurrentYear(void);

#ifdef __cplusplus
}
#endif
#endif
