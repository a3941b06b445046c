// SPDX-License-Identifier: MIT
/** @file
 * Three-part version strings ("2.1.10").
 */
#ifndef VOKT_TEXT_VERSION_H
#define VOKT_TEXT_VERSION_H

#include <stdint.h>

#include "vokt/core/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The first nonzero difference of major, minor and patch (a - b), not clamped to -1/1; a
 * difference beyond 32 bits gives INT32_MAX or INT32_MIN, so the sign is always right.
 * 0 when equal or when either text does not give three numbers. */
VOKT_API int32_t Version_Compare(const char *a, const char *b);

#ifdef __cplusplus
}
#endif
#endif
