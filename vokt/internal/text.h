// SPDX-License-Identifier: MIT
// Private: String assignment and appending for callers that already know the length.
#ifndef VOKT_INTERNAL_TEXT_H
#define VOKT_INTERNAL_TEXT_H

#include <stddef.h>

#include "vokt/text/string.h"

namespace vokt {
// String_Set of n known bytes: same result codes and failure reports, no length scan.
int32_t SetText(String *s, const char *chars, size_t n);
// String_AppendChars of n known bytes.
int32_t AppendText(String *s, const char *chars, size_t n);
}  // namespace vokt

#endif
