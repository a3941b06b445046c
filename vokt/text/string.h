// SPDX-License-Identifier: MIT
/** @file
 * String (growable, exact-fit, NUL-terminated), text utilities, paths and the cleanup list.
 */
#ifndef VOKT_TEXT_STRING_H
#define VOKT_TEXT_STRING_H

#include <stdarg.h>
#include <stdint.h>

#include "vokt/containers/vector.h"
#include "vokt/core/object.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A heap-held, NUL-terminated byte string stored with exact fit (no spare room). Unset (no
 *  value) is distinct from empty. No lock: one thread at a time. */
typedef struct String {
    const ClassDescriptor *ftbl; /**< The String descriptor (it fills all four generic slots). */
    int32_t bIsSet; /**< 1 when the String holds a value, possibly empty; 0 when unset. */
    char *string; /**< The text, length + 1 bytes, owned; null when unset. */
    uint64_t length; /**< Bytes before the NUL; 0 when unset; never above 2147483647. */
} String;

/* A text never grows past 2147483647 bytes, the most that String_Length can report: a
 * longer result fails as a failed allocation does. Every operation below accepts text
 * arguments that lie inside the String it changes. */

/** New unset String, or null. Every String is released with String_Destroy. */
VOKT_API String *String_New(void);
/** New String holding a copy of chars, or null. */
VOKT_API String *String_NewFromChars(const char *chars);
/** New String holding the formatted text, or null (also for a null format). */
VOKT_API String *String_NewFormatted(const char *format, ...) VOKT_PRINTF(1, 2);
/** New copy of s (unset when s is unset), or null. */
VOKT_API String *String_Copy(const String *s);
/** New String of at most count bytes of s from byte start, or null. */
VOKT_API String *String_Substring(const String *s, int32_t start, int32_t count);
/** Releases the text (also the one a failed append left) and the String. */
VOKT_API void String_Destroy(String *s);
/** Releases the text and leaves s unset. */
VOKT_API void String_Clear(String *s);
/** String_Clear when s is set. */
VOKT_API void String_Reset(String *s);

/** Reports a broken invariant through the assertion log. */
VOKT_API void String_Check(const String *s);
/** 1 when s holds a value, else 0 (also for null, reported). */
VOKT_API int32_t String_IsSet(const String *s);
/** Length of the text; 0 when unset or null. */
VOKT_API int32_t String_Length(const String *s);

/** Replaces the text by a copy of chars: 0, or -2 (reported) leaving s unset. */
VOKT_API int32_t String_Set(String *s, const char *chars);
/** Replaces the text by at most count bytes of chars (negative: all): 0 or -2. */
VOKT_API int32_t String_SetN(String *s, const char *chars, int32_t count);
/** Replaces the text by the printf-formatted text (measured first, allocated once): 0, -2,
 *  or -1 for a null String or format. */
VOKT_API int32_t String_Format(String *s, const char *format, ...) VOKT_PRINTF(2, 3);
/** String_Format with an argument list. */
VOKT_API int32_t String_VFormat(String *s, const char *format, va_list args) VOKT_PRINTF(2, 0);
/** Appends chars: 0 or -2. After -2 on a set String, s reads as unset. */
VOKT_API int32_t String_AppendChars(String *s, const char *chars);
/** Appends at most count bytes of chars (stopping at a NUL; negative: all): as
 *  String_AppendChars. */
VOKT_API int32_t String_AppendN(String *s, const char *chars, int32_t count);
/** Appends one byte: 0, or -2 with s unchanged. */
VOKT_API int32_t String_AppendChar(String *s, char c);
/** Appends the printf-formatted text: 0, -2, or the appending's failure. */
VOKT_API int32_t String_AppendFormatted(String *s, const char *format, ...) VOKT_PRINTF(2, 3);
/** String_AppendFormatted with an argument list. */
VOKT_API int32_t String_VAppendFormatted(String *s, const char *format, va_list args) VOKT_PRINTF(2, 0);

/** 1 when both are set and byte-equal, else 0. */
VOKT_API int32_t String_Equals(const String *a, const String *b);
/** As String_Equals, ignoring case (strcasecmp). */
VOKT_API int32_t String_EqualsIgnoreCase(const String *a, const String *b);
/** qsort comparator over two slots holding String pointers; unset texts sort first. */
VOKT_API int String_Compare(const void *pa, const void *pb);
/** One-at-a-time hash of the text; 0 for unset or empty. */
VOKT_API int32_t String_Hash(const String *s);
/** 1 when the text begins with prefix, else 0 (also for null or unset). */
VOKT_API int32_t String_StartsWith(const String *s, const char *prefix);
/** 1 when the text ends with suffix, else 0 (also when suffix is the longer). */
VOKT_API int32_t String_EndsWith(const String *s, const char *suffix);
/** Index of the first occurrence of needle, or -1. start is ignored: the search
 * always begins at byte 0. */
VOKT_API int32_t String_Find(const String *s, const char *needle, int32_t start);
/** -1 when needle is absent. Because String_Find ignores its start, it does not return
 * when the needle is present; kept for source compatibility, do not use. */
VOKT_API int32_t String_FindLast(const String *s, const char *needle);

/** Lower-cases every byte through the C library's tolower table of the current locale. */
VOKT_API void String_ToLower(String *s);
/** Cuts the text to newLength bytes when it is longer (the buffer is kept); else nothing. */
VOKT_API void String_Truncate(String *s, int32_t newLength);
/** Removes count bytes from byte start. A negative start or count, or a range that does
 *  not lie inside the text, is ignored: the String is left as it was. */
VOKT_API void String_Delete(String *s, int32_t start, int32_t count);
/** Removes leading and trailing spaces, tabs, carriage returns and line feeds (no other
 *  whitespace). */
VOKT_API void String_Trim(String *s);
/** Drops leading and trailing blanks and folds every inner run into one space. */
VOKT_API void String_CollapseWhitespace(String *s);
/** Removes every trailing carriage return and line feed. */
VOKT_API void String_ChompNewlines(String *s);
/** String_WrapEx(s, width, width, NULL). */
VOKT_API int32_t String_Wrap(String *s, int32_t width);
/** Breaks lines with "\r\n" at spaces (or hard at the width), first line firstWidth,
 * later lines width, indent added after every line end: 0 or -2. */
VOKT_API int32_t String_WrapEx(String *s, int32_t firstWidth, int32_t width, const char *indent);

/** Splits at the first byte c: 0 (or a failure code), 1 when there is no c. */
VOKT_API int32_t String_SplitAt(const String *s, char c, String *left, String *right);
/** Appends every comma-separated piece to vector as a new String: 0 or -2. */
VOKT_API int32_t String_SplitCommas(const String *s, Vector *vector);
/** Appends every piece of text between bytes c to vector as a new String: 0 or -2. */
VOKT_API int32_t String_SplitChars(const char *text, char c, Vector *vector);
/** out := the element texts joined by separator: 0 or a failure code. */
VOKT_API int32_t String_Join(Vector *vector, const char *separator, String *out);

/** 1 when path names a directory, else 0. */
VOKT_API int32_t File_IsDirectory(const char *path);
/** 1 when stat succeeds on path, else 0. */
VOKT_API int32_t File_Exists(const char *path);
/** s := name resolved against base (a file's folder, or a folder): 0 or a code. */
VOKT_API int32_t String_ResolvePath(String *s, const char *name, const char *base);

/** Registers object in the owning vector *list (made on first use) so that destroying
 * the list releases it; returns object, or null after destroying it on failure. */
VOKT_API void *CleanupList_Add(Vector **list, void *object);

#ifdef __cplusplus
}
#endif
#endif
