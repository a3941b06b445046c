// SPDX-License-Identifier: MIT
/** @file
 * CodeName, up to 11 identifier characters packed into a 64-bit code.
 */
#ifndef VOKT_CONTAINERS_CODENAME_H
#define VOKT_CONTAINERS_CODENAME_H

#include <stdint.h>

#include "vokt/core/object.h"
#include "vokt/text/string.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Up to 11 identifier characters packed as 6-bit blocks into 64 bits (block 0 lowest). */
typedef struct CodeName {
    const ClassDescriptor *ftbl; /**< The CodeName descriptor. */
    uint32_t words[2]; /**< The code: words[0] the low 32 bits, words[1] the high. */
} CodeName;

/** New code 0, or null. */
VOKT_API CodeName *CodeName_New(void);
/** New copy of code, or null (also for a null code, reported). */
VOKT_API CodeName *CodeName_Copy(const CodeName *code);
/** New code from two words, low word first. */
VOKT_API CodeName *CodeName_FromWords(const uint32_t *words);
/** New code packing the first 11 characters of name: 'A'-'Z' 1-26, 'a'-'z' 27-52,
 * '0'-'9' 53-62, '_' 63, anything else 0. */
VOKT_API CodeName *CodeName_FromName(const char *name);
/** Stores the 6-bit value as block index (0 lowest) of the code in words: 0, or an error
 * reference ("block index out of bounds") for an index outside 0 to 10. Block 10 keeps
 * only the lowest 4 bits of its value. */
VOKT_API int32_t CodeName_SetBlock(uint32_t *words, int32_t index, uint32_t value);
/** (extension) The code as one 64-bit number. */
VOKT_API uint64_t CodeName_Value(const CodeName *code);
/** (extension) out := the characters packed in the code, up to the first empty block:
 * the inverse of CodeName_FromName for names of packable characters (the 11th only when
 * its value fits in 4 bits). 0, or -2. */
VOKT_API int32_t CodeName_ToName(const CodeName *code, String *out);

#ifdef __cplusplus
}
#endif
#endif
