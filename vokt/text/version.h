// SPDX-License-Identifier: MIT
/** @file
 * Three-part version strings ("2.1.10").
 *
 * @par Example
 * @include reference/version.c
 */
#ifndef VOKT_TEXT_VERSION_H
#define VOKT_TEXT_VERSION_H

#include <stdint.h>

#include "vokt/core/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Compares two "major.minor.patch" versions, number by number.
 * @param a A version.
 * @param b Another.
 * @return The first nonzero difference of major, minor and patch (a - b), not clamped to -1
 *         and 1 ("2.1.8" against "2.1.10" gives -2); a difference beyond 32 bits gives
 *         INT32_MAX or INT32_MIN, so the sign is always right. 0 when they are equal, and
 *         when either text does not give three numbers ("2.1" compares equal to anything). */
VOKT_API int32_t Version_Compare(const char *a, const char *b);

#ifdef __cplusplus
}
#endif
#endif
