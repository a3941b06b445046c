// SPDX-License-Identifier: MIT
/** @file
 * Export and format attributes, and the result codes shared by all modules.
 */
#ifndef VOKT_CORE_API_H
#define VOKT_CORE_API_H

/** Marks a function of the public API: exported from libvokt.so, everything else is hidden. */
#if defined(VOKT_BUILDING) && (defined(__GNUC__) || defined(__clang__))
#define VOKT_API __attribute__((visibility("default")))
#else
#define VOKT_API
#endif

/** Lets the compiler check printf-style format f against the arguments from position a. */
#if defined(__GNUC__) || defined(__clang__)
#define VOKT_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define VOKT_PRINTF(f, a)
#endif

/** Result of an operation that succeeded. */
#define VOKT_OK 0
/** Result of a plain failure (a caller's mistake, a missing file): no Error belongs to it. */
#define VOKT_FAILED (-1)
/** Result when memory ran out; stands for a static Error that is never freed. */
#define ERROR_OUT_OF_MEMORY (-2)
/** Set in an error reference that names an Error in the store (low 30 bits: index + 1). */
#define ERROR_COMPLEX_BIT 0x40000000

#endif
