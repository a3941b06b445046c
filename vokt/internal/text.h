// SPDX-License-Identifier: MIT
// Private: what the String module's files share: assignment and appending for callers that
// already know the length, and the checks every operation makes of its Strings.
#ifndef VOKT_INTERNAL_TEXT_H
#define VOKT_INTERNAL_TEXT_H

#include <stddef.h>

#include <initializer_list>

#include "vokt/internal/alloc.h"
#include "vokt/internal/classes.h"
#include "vokt/internal/scope.h"
#include "vokt/text/string.h"

namespace vokt {
// String_Set of n known bytes: same result codes and failure reports, no length scan.
int32_t SetText(String *s, const char *chars, size_t n);
// String_AppendChars of n known bytes.
int32_t AppendText(String *s, const char *chars, size_t n);

inline bool IsString(const void *object) {
    return object && static_cast<const Object *>(object)->ftbl == &kStringClass;
}
// Whether the String can be used at all: a destroyed one is reported by the objects check
// and left alone (its memory may be the allocator's again); any other is checked.
inline bool Usable(const String *ps) {
    if (UsedAfterDestroy(ps, &kStringClass)) return false;
    String_Check(ps);
    return ps != nullptr;
}
// Each String is checked (every broken one is reported); true when all can be used.
inline bool AllUsable(std::initializer_list<const String *> strings) {
    bool all = true;
    for (const String *ps : strings) all = Usable(ps) && all;
    return all;
}
// A destroyed String, reported: the operation returns as it would for a null one.
inline bool Gone(const String *ps) { return UsedAfterDestroy(ps, &kStringClass); }
// Takes over a buffer that holds exactly length + 1 bytes.
inline void Adopt(String *ps, char *text, size_t length) {
    if (Checking(kCheckLeaks | kCheckObjects)) Reown(text, ps);
    Free(ps->string);
    ps->string = text;
    ps->length = length;
    ps->bIsSet = 1;
}
inline bool Inside(const String *ps, const char *text) {
    return ps && ps->string && text >= ps->string && text <= ps->string + ps->length;
}

// text itself, or (when it lies inside ps, whose text is about to change) a copy held by
// keep; null when that copy cannot be made.
inline const char *Steady(const String *ps, const char *text, Scoped<String> &keep) {
    if (!Inside(ps, text)) return text;
    keep.reset(String_NewFromChars(text));
    return keep ? keep->string : nullptr;
}
}  // namespace vokt

#endif
