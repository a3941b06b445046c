// SPDX-License-Identifier: MIT
// String: a heap-held, NUL-terminated byte string stored with exact fit, and the text
// utilities built on it. Reports as module "util", the name its users' logs know.
#include "vokt/text/string.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vokt/diag/log.h"
#include "vokt/internal/alloc.h"
#include "vokt/internal/assert.h"
#include "vokt/internal/errors.h"
#include "vokt/internal/classes.h"
#include "vokt/internal/hash.h"
#include "vokt/internal/scope.h"
#include "vokt/internal/text.h"

namespace {

constexpr char kModule[] = "util";
// Lengths travel as signed 32-bit numbers, so no text grows past what they can say.
constexpr uint64_t kMaxLength = 2147483647;

using vokt::Adopt;
using vokt::AllUsable;
using vokt::Gone;
using vokt::IsString;
using vokt::Scoped;
using vokt::Usable;

// A set String with its text: the state in which String_Check has nothing to report.
inline bool HasText(const String *ps) { return ps && ps->bIsSet && ps->string; }

// String_Equals for anything but two set Strings with texts: nothing to compare, but each
// is checked and reported.
[[gnu::noinline]] int32_t EqualsChecked(const String *a, const String *b) {
    AllUsable({a, b});
    return 0;
}

// Stores an exact-fit copy of n bytes. The old text is released only after the copy
// exists, so the source may lie inside it. On failure the String is left unset.
int32_t SetBytes(String *ps, const char *chars, size_t n) {
    char *text = n <= kMaxLength ? static_cast<char *>(vokt::AllocFor(ps, n + 1)) : nullptr;
    if (!text) {
        String_Clear(ps);
        return -2;
    }
    memcpy(text, chars, n);
    text[n] = '\0';
    vokt::Free(ps->string);
    ps->string = text;
    ps->length = n;
    ps->bIsSet = 1;
    return 0;
}

// A failed append leaves the String reading as unset while it still points at its old
// text; that failure state is part of the contract.
int32_t AppendFailed(String *ps) {
    ps->bIsSet = 0;
    ps->length = 0;
    return -2;
}

// Appends bytes that lie inside the String's own text: they are found again at their
// offset once the text has moved.
[[gnu::noinline]] int32_t AppendOwnBytes(String *ps, const char *chars, size_t n) {
    const size_t offset = static_cast<size_t>(chars - ps->string);
    const bool fits = n <= kMaxLength && ps->length <= kMaxLength - n;
    char *text = fits ? static_cast<char *>(vokt::Realloc(ps->string, ps->length + n + 1)) : nullptr;
    if (!text) return AppendFailed(ps);
    memmove(text + ps->length, text + offset, n);
    ps->length += n;
    text[ps->length] = '\0';
    ps->string = text;
    return 0;
}

// Appends n bytes to a set String.
[[gnu::always_inline]] inline int32_t AppendBytes(String *ps, const char *chars, size_t n) {
    char *const old = ps->string;
    if (chars >= old && chars <= old + ps->length) [[unlikely]]
        return AppendOwnBytes(ps, chars, n);
    if (n > kMaxLength || ps->length > kMaxLength - n) [[unlikely]]
        return AppendFailed(ps);
    char *text = static_cast<char *>(vokt::Realloc(old, ps->length + n + 1));  // its record keeps its owner
    if (!text) [[unlikely]]
        return AppendFailed(ps);
    memcpy(text + ps->length, chars, n);  // the length is read again: fewer registers to keep
    ps->length += n;
    text[ps->length] = '\0';
    ps->string = text;
    return 0;
}

size_t BoundedLength(const char *chars, int32_t count) {
    return count < 0 ? strlen(chars) : strnlen(chars, static_cast<size_t>(count));
}

String *Construct(int32_t code, String *ps) {
    if (code == 0) return ps;
    vokt::DropError(code);
    String_Destroy(ps);
    return nullptr;
}

bool IsTrimmed(char c) { return c == ' ' || c == '\r' || c == '\n' || c == '\t'; }

const String *ElementString(const void *slot) { return *static_cast<const String *const *>(slot); }

}  // namespace

namespace vokt {
const ClassDescriptor kStringClass = {
    sizeof(String),
    "String",
    +[](void *o) { String_Destroy(static_cast<String *>(o)); },
    +[](const void *probe, const void *stored) {
        if (!IsString(probe) || !IsString(stored)) return 0;
        return String_Equals(static_cast<const String *>(probe), static_cast<const String *>(stored));
    },
    String_Compare,
    +[](const void *o) { return String_Hash(static_cast<const String *>(o)); },
};
}  // namespace vokt

extern "C" {

String *String_New(void) { return vokt::New<String>(&vokt::kStringClass, "String ps"); }

String *String_NewFromChars(const char *chars) {
    String *ps = String_New();
    return ps ? Construct(String_Set(ps, chars), ps) : nullptr;
}

String *String_NewFormatted(const char *format, ...) {
    if (!format) return nullptr;
    String *ps = String_New();
    if (!ps) return nullptr;
    va_list args;
    va_start(args, format);
    const int32_t code = String_VFormat(ps, format, args);
    va_end(args);
    return Construct(code, ps);
}

String *String_Copy(const String *s) {
    if (!Usable(s)) return nullptr;
    String *ps = String_New();
    if (!ps || !s->bIsSet || !s->string) return ps;
    return Construct(SetBytes(ps, s->string, s->length), ps);
}

String *String_Substring(const String *s, int32_t start, int32_t count) {
    if (!Usable(s)) return nullptr;
    String *ps = String_New();
    if (!ps || !s->bIsSet || !s->string) return ps;
    // A start outside the text gives the empty text rather than a read past the buffer.
    const uint64_t from = start < 0 ? 0 : (static_cast<uint64_t>(start) > s->length ? s->length : start);
    return Construct(String_SetN(ps, s->string + from, count), ps);
}

void String_Destroy(String *ps) {
    if (vokt::DestroyedAgain(ps, &vokt::kStringClass)) return;  // destroyed before: reported, nothing released
    if (!Usable(ps)) return;
    // Also releases the text kept by a failed append, which reads as unset.
    vokt::Free(ps->string);
    vokt::Free(ps);
}

void String_Clear(String *s) {
    if (!s || Gone(s)) return;
    vokt::Free(s->string);
    s->string = nullptr;
    s->bIsSet = 0;
    s->length = 0;
}

void String_Reset(String *s) {
    if (Usable(s) && s->bIsSet) String_Clear(s);
}

void String_Check(const String *ps) {
    VOKT_ASSERT_OR_RETURN(ps != NULL);
    if (Gone(ps)) return;
    if (ps->bIsSet)
        VOKT_ASSERT(ps->string != NULL);
    else
        VOKT_ASSERT(ps->string == NULL);
}

int32_t String_IsSet(const String *s) {
    if (HasText(s)) return s->bIsSet;  // nothing to report
    return Usable(s) ? s->bIsSet : 0;
}

int32_t String_Length(const String *s) {
    if (!Usable(s) || !s->bIsSet) return 0;
    return static_cast<int32_t>(s->length);
}

int32_t String_Set(String *ps, const char *chars) {
    if (!Usable(ps)) return -1;
    VOKT_ASSERT(chars != NULL);
    if (!chars) {
        // Kept as it has always been: set, with no text, which later checks report.
        String_Clear(ps);
        ps->bIsSet = 1;
        return 0;
    }
    return vokt::SetText(ps, chars, strlen(chars));
}

int32_t String_SetN(String *ps, const char *chars, int32_t count) {
    if (!Usable(ps)) return -1;
    VOKT_ASSERT_OR_RETURN(chars != NULL, -1);
    return SetBytes(ps, chars, BoundedLength(chars, count));
}

int32_t String_Format(String *s, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int32_t code = String_VFormat(s, format, args);
    va_end(args);
    return code;
}

int32_t String_VFormat(String *s, const char *format, va_list args) {
    if (!Usable(s)) return -1;
    VOKT_ASSERT_OR_RETURN(format != NULL, -1);
    va_list measure;
    va_copy(measure, args);
    const int measured = vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    char *buf = nullptr;
    size_t len = 0;
    if (measured >= 0) {
        len = static_cast<size_t>(measured) + 1;
        buf = static_cast<char *>(vokt::AllocFor(s, len));
        if (!buf) return -2;
        vsnprintf(buf, len, format, args);
    } else {
        // For a C library that cannot measure: grow by doubling until the text fits.
        len = 32;
        for (;;) {
            len *= 2;
            buf = static_cast<char *>(vokt::AllocFor(s, len));
            if (!buf) return -2;
            va_list attempt;
            va_copy(attempt, args);
            const int printed = vsnprintf(buf, len, format, attempt);
            va_end(attempt);
            if (printed >= 0 && static_cast<size_t>(printed) < len) break;
            vokt::Free(buf);
            if (len >= 1073741824) {
                fputs("VOKT Internal error: string length too large\n", stderr);
                return -2;
            }
        }
    }
    VOKT_ASSERT(len > strlen(buf));
    const size_t textLength = strlen(buf);
    if (textLength + 1 == len) {
        Adopt(s, buf, textLength);
        return 0;
    }
    const int32_t code = SetBytes(s, buf, textLength);
    vokt::Free(buf);
    return code;
}

int32_t String_AppendChars(String *ps, const char *chars) {
    if (HasText(ps) && chars) return AppendBytes(ps, chars, strlen(chars));  // nothing to report
    if (!Usable(ps)) return -1;
    VOKT_ASSERT_OR_RETURN(chars != NULL, -1);
    return vokt::AppendText(ps, chars, strlen(chars));
}

int32_t String_AppendN(String *ps, const char *chars, int32_t count) {
    if (!Usable(ps)) return -1;
    VOKT_ASSERT_OR_RETURN(chars != NULL, -1);
    if (!ps->bIsSet) return String_SetN(ps, chars, count);
    return AppendBytes(ps, chars, BoundedLength(chars, count));
}

int32_t String_AppendChar(String *s, char c) {
    if (!Usable(s)) return -1;
    if (s->bIsSet) {
        if (s->length >= kMaxLength) return -2;
        char *text = static_cast<char *>(vokt::Realloc(s->string, s->length + 2));
        if (!text) return -2;
        s->string = text;
    } else {
        char *text = static_cast<char *>(vokt::AllocFor(s, 2));
        if (!text) return -2;
        Adopt(s, text, 0);
    }
    s->string[s->length++] = c;
    s->string[s->length] = '\0';
    return 0;
}

int32_t String_AppendFormatted(String *s, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int32_t code = String_VAppendFormatted(s, format, args);
    va_end(args);
    return code;
}

int32_t String_VAppendFormatted(String *s, const char *format, va_list args) {
    Scoped<String> piece(String_New());
    if (!piece) return -2;
    const int32_t code = String_VFormat(piece.get(), format, args);
    if (code != 0) return code;
    if (!Usable(s)) return -1;
    return vokt::AppendText(s, piece->string, piece->length);
}

int32_t String_Equals(const String *a, const String *b) {
    // Two set Strings with their texts pass every check: compare them at once.
    if (HasText(a) && HasText(b)) return strcmp(a->string, b->string) == 0 ? 1 : 0;
    return EqualsChecked(a, b);
}

int32_t String_EqualsIgnoreCase(const String *a, const String *b) {
    const bool usable = AllUsable({a, b});
    if (!usable || !a->bIsSet || !b->bIsSet || !a->string || !b->string) return 0;
    return strcasecmp(a->string, b->string) == 0 ? 1 : 0;
}

int String_Compare(const void *pa, const void *pb) {
    const String *a = ElementString(pa);
    const String *b = ElementString(pb);
    const char *ta = a ? a->string : nullptr;
    const char *tb = b ? b->string : nullptr;
    if (!ta || !tb) return (ta != nullptr) - (tb != nullptr);
    return strcmp(ta, tb);
}

int32_t String_Hash(const String *s) {
    if (HasText(s)) return static_cast<int32_t>(vokt::OneAtATime(s->string, s->length));
    if (!Gone(s)) String_Check(s);  // anything else has no text to hash, and may have something to report
    return 0;
}

int32_t String_StartsWith(const String *s, const char *prefix) {
    if (!s || Gone(s) || !s->string || !prefix) return 0;
    return strncmp(s->string, prefix, strlen(prefix)) == 0 ? 1 : 0;
}

int32_t String_EndsWith(const String *s, const char *suffix) {
    if (!s || Gone(s) || !s->string || !suffix) return 0;
    const size_t n = strlen(suffix);
    if (n > s->length) return 0;
    return memcmp(s->string + s->length - n, suffix, n) == 0 ? 1 : 0;
}

int32_t String_Find(const String *s, const char *needle, int32_t start) {
    (void)start;  // Accepted and ignored: callers have always searched from byte 0.
    if (!s || Gone(s) || !s->string || !needle) return -1;
    const char *found = strstr(s->string, needle);
    return found ? static_cast<int32_t>(found - s->string) : -1;
}

int32_t String_FindLast(const String *s, const char *needle) {
    int32_t last = String_Find(s, needle, 0);
    if (last == -1) return -1;
    // Kept exactly as it has always been written: with String_Find ignoring its start,
    // this loop only ends when the needle is absent.
    for (;;) {
        const int32_t next = String_Find(s, needle, last + 1);
        if (next == -1) return last;
        last = next;
    }
}

void String_ToLower(String *s) {
    if (!Usable(s) || !s->bIsSet || !s->string) return;
    for (uint64_t i = 0; i < s->length; i++)
        s->string[i] = static_cast<char>(tolower(static_cast<unsigned char>(s->string[i])));
}

void String_Truncate(String *s, int32_t newLength) {
    if (newLength < 0 || newLength >= String_Length(s)) return;
    s->string[newLength] = '\0';
    s->length = static_cast<uint64_t>(newLength);
}

void String_Delete(String *s, int32_t start, int32_t count) {
    // Offsets outside the text are ignored instead of moving bytes outside the buffer.
    if (!s || Gone(s) || !s->string || start < 0 || count < 0) return;
    const uint64_t from = static_cast<uint64_t>(start), n = static_cast<uint64_t>(count);
    if (from + n > s->length) return;
    memmove(s->string + from, s->string + from + n, s->length - from - n + 1);
    s->length -= n;
    s->string[s->length] = '\0';
}

void String_Trim(String *s) {
    if (!s || Gone(s) || !s->string || s->length == 0) return;
    uint64_t lead = 0;
    while (lead < s->length && IsTrimmed(s->string[lead])) lead++;
    if (lead > 0) {
        memmove(s->string, s->string + lead, s->length - lead + 1);
        s->length -= lead;
    }
    while (s->length > 0 && IsTrimmed(s->string[s->length - 1])) s->length--;
    s->string[s->length] = '\0';
}

void String_CollapseWhitespace(String *s) {
    if (!s || Gone(s) || !s->string) return;
    uint64_t out = 0;
    bool lastWasSpace = true;
    for (uint64_t i = 0; i < s->length; i++) {
        const char c = s->string[i];
        if (c == '\t' || c == '\n' || c == '\r' || c == ' ') {
            if (!lastWasSpace) {
                s->string[out++] = ' ';
                lastWasSpace = true;
            }
        } else {
            s->string[out++] = c;
            lastWasSpace = false;
        }
    }
    if (out > 0 && s->string[out - 1] == ' ') out--;
    s->string[out] = '\0';
    s->length = out;
}

void String_ChompNewlines(String *s) {
    if (!Usable(s) || !s->string) return;
    while (s->length > 0 && (s->string[s->length - 1] == '\n' || s->string[s->length - 1] == '\r'))
        s->string[--s->length] = '\0';
}

}  // extern "C"

namespace vokt {

int32_t SetText(String *ps, const char *chars, size_t n) {
    if (SetBytes(ps, chars, n) != 0) {
        fputs("ERROR: malloc failed!\n", stderr);
        Log_Write(0, "Unable to malloc %d bytes at %s:%d", static_cast<int>(n + 1), kModule, __LINE__);
        return -2;
    }
    return 0;
}

int32_t AppendText(String *ps, const char *chars, size_t n) {
    return ps->bIsSet ? AppendBytes(ps, chars, n) : SetText(ps, chars, n);
}

}  // namespace vokt
