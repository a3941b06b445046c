// SPDX-License-Identifier: MIT
/** @file
 * CodeName, up to 11 identifier characters packed into a 64-bit code.
 *
 * @par Example
 * @include reference/codename.c
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

/** Makes the code 0.
 * @return The code, owned by the caller (Object_Destroy()); null when memory ran out ("Unable
 *         to allocate CodeName codename", the text of every CodeName constructor). */
VOKT_API CodeName *CodeName_New(void);
/** Copies a code.
 * @param code The code.
 * @return A new code with the same words; null when memory ran out or code is null
 *         (reported). */
VOKT_API CodeName *CodeName_Copy(const CodeName *code);
/** Makes a code from its two words.
 * @param words Two words, the low one first.
 * @return The new code; null when memory ran out or words is null. */
VOKT_API CodeName *CodeName_FromWords(const uint32_t *words);
/** Packs the first 11 characters of name, one 6-bit block each (block 0 the first character):
 *  'A'-'Z' give 1-26, 'a'-'z' 27-52, '0'-'9' 53-62, '_' 63, anything else 0. Later characters
 *  are ignored, and the 11th keeps only the lowest 4 bits of its value.
 * @param name The identifier.
 * @return The new code; null when memory ran out or name is null (reported). */
VOKT_API CodeName *CodeName_FromName(const char *name);
/** Stores a 6-bit value as one block of a code's words.
 * @param words The code's two words, the low one first; block 5 straddles them.
 * @param index The block, 0 (lowest) to 10.
 * @param value The value; block 10 keeps only its lowest 4 bits.
 * @return 0; an error reference ("block index out of bounds") for an index outside 0 to 10,
 *         which the caller takes and frees; -1 for null words. */
VOKT_API int32_t CodeName_SetBlock(uint32_t *words, int32_t index, uint32_t value);
/** (extension) Reads a code as one number.
 * @param code The code.
 * @return words[1] << 32 | words[0]; 0 for a null code. */
VOKT_API uint64_t CodeName_Value(const CodeName *code);
/** (extension) Unpacks a code: the characters of its blocks, up to the first empty one. The
 *  inverse of CodeName_FromName() for names of packable characters (the 11th only when its
 *  value fits in 4 bits).
 * @param code The code.
 * @param out Receives the name (replaced).
 * @return 0; -2 when memory ran out; -1 for a null argument. */
VOKT_API int32_t CodeName_ToName(const CodeName *code, String *out);

#ifdef __cplusplus
}
#endif
#endif
