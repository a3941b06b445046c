// SPDX-License-Identifier: MIT
/** @file
 * String (growable, exact-fit, NUL-terminated), text utilities, paths and the cleanup list.
 *
 * An output String argument is replaced, not appended to, unless the operation's name says
 * Append. Operations return 0 on success, -2 when memory runs out and -1 for a caller's
 * mistake (which is also reported in the log).
 *
 * @par Example
 * @include reference/string.c
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

/** Makes an unset String.
 * @return The String, owned by the caller (String_Destroy()); null when memory ran out
 *         ("Unable to allocate String ps" in the log). */
VOKT_API String *String_New(void);
/** Makes a String holding a copy of chars.
 * @param chars The text.
 * @return The String, owned by the caller; null when memory ran out. */
VOKT_API String *String_NewFromChars(const char *chars);
/** Makes a String holding printf-formatted text.
 * @param format A printf format, checked against the arguments by the compiler.
 * @param ... Its arguments.
 * @return The String, owned by the caller; null when memory ran out or format is null. */
VOKT_API String *String_NewFormatted(const char *format, ...) VOKT_PRINTF(1, 2);
/** Copies a String.
 * @param s The String.
 * @return A new String, unset when s is unset; owned by the caller; null when memory ran out
 *         or s is null (reported). */
VOKT_API String *String_Copy(const String *s);
/** Copies part of a String.
 * @param s The String.
 * @param start From this byte; outside the text it gives the empty text.
 * @param count At most this many bytes (fewer at the end of the text); negative: to the end.
 * @return A new String (unset when s is unset), owned by the caller; null when memory ran out
 *         or s is null (reported). */
VOKT_API String *String_Substring(const String *s, int32_t start, int32_t count);
/** Releases the text and the String (the class's Destroy slot), including the text that a
 *  failed append left behind.
 * @param s The String, dead afterwards; null is reported and ignored. */
VOKT_API void String_Destroy(String *s);
/** Releases the text and leaves the String unset, without checking it first.
 * @param s The String. */
VOKT_API void String_Clear(String *s);
/** Checks the String, then unsets it when it is set (String_Clear()).
 * @param s The String. */
VOKT_API void String_Reset(String *s);

/** Checks a String: it exists, and it has a text exactly when it is set. A broken rule is
 *  reported in the log ("ps != NULL", "ps->string != NULL", "ps->string == NULL").
 * @param s The String. */
VOKT_API void String_Check(const String *s);
/** Tells whether a String holds a value.
 * @param s The String.
 * @return 1 when set (possibly empty), else 0; 0 for null (reported). */
VOKT_API int32_t String_IsSet(const String *s);
/** Measures the text.
 * @param s The String.
 * @return The number of bytes before the NUL; 0 when unset or null. */
VOKT_API int32_t String_Length(const String *s);

/** Replaces the text by a copy of chars.
 * @param s The String.
 * @param chars The text (may lie inside s).
 * @return 0; -2 when memory ran out, after "ERROR: malloc failed!" on standard error and
 *         "Unable to malloc %d bytes at util:%d" in the log, leaving s unset; -1 for a null s.
 *         A null chars is reported ("chars != NULL") and leaves s set without a text, as it
 *         always has. */
VOKT_API int32_t String_Set(String *s, const char *chars);
/** Replaces the text by at most count bytes of chars, stopping early at a NUL.
 * @param s The String.
 * @param chars The text (may lie inside s).
 * @param count At most this many bytes; 0 gives the empty text; negative: all of chars.
 * @return 0; -2 when memory ran out (s is then unset, no message); -1 for a null argument
 *         (reported). */
VOKT_API int32_t String_SetN(String *s, const char *chars, int32_t count);
/** Replaces the text by printf-formatted text, measured first and allocated once.
 * @param s The String.
 * @param format A printf format, checked against the arguments by the compiler.
 * @param ... Its arguments (they may point into s).
 * @return 0; -2 when memory ran out; -1 for a null s or format. */
VOKT_API int32_t String_Format(String *s, const char *format, ...) VOKT_PRINTF(2, 3);
/** String_Format() with an argument list.
 * @param s The String.
 * @param format A printf format.
 * @param args Its arguments; the list is used up as vsnprintf uses it.
 * @return As String_Format(). */
VOKT_API int32_t String_VFormat(String *s, const char *format, va_list args) VOKT_PRINTF(2, 0);
/** Appends a copy of chars (an unset String is set to it).
 * @param s The String.
 * @param chars The text (may lie inside s).
 * @return 0; -2 when memory ran out, after which a String that was set reads as unset (length
 *         0) while it keeps its old text until String_Destroy(); -1 for a null argument
 *         (reported). */
VOKT_API int32_t String_AppendChars(String *s, const char *chars);
/** Appends at most count bytes of chars, stopping early at a NUL.
 * @param s The String.
 * @param chars The text (may lie inside s).
 * @param count At most this many bytes; negative: all of chars.
 * @return As String_AppendChars(). */
VOKT_API int32_t String_AppendN(String *s, const char *chars, int32_t count);
/** Appends one byte (an unset String is set to it).
 * @param s The String.
 * @param c The byte.
 * @return 0; -2 when memory ran out (s unchanged); -1 for a null s. */
VOKT_API int32_t String_AppendChar(String *s, char c);
/** Appends printf-formatted text.
 * @param s The String.
 * @param format A printf format, checked against the arguments by the compiler.
 * @param ... Its arguments (they may point into s).
 * @return 0; -2 when memory ran out; or the failure of the formatting or the append (as
 *         String_AppendChars()). */
VOKT_API int32_t String_AppendFormatted(String *s, const char *format, ...) VOKT_PRINTF(2, 3);
/** String_AppendFormatted() with an argument list.
 * @param s The String.
 * @param format A printf format.
 * @param args Its arguments.
 * @return As String_AppendFormatted(). */
VOKT_API int32_t String_VAppendFormatted(String *s, const char *format, va_list args) VOKT_PRINTF(2, 0);

/** Compares two Strings byte for byte (the class's Equals slot).
 * @param a A String.
 * @param b Another.
 * @return 1 when both are set and their texts equal; else 0 (an unset String equals nothing,
 *         not even itself). */
VOKT_API int32_t String_Equals(const String *a, const String *b);
/** As String_Equals(), ignoring case (strcasecmp).
 * @param a A String.
 * @param b Another.
 * @return 1 when both are set and their texts equal ignoring case, else 0. */
VOKT_API int32_t String_EqualsIgnoreCase(const String *a, const String *b);
/** Orders two Strings for qsort and Vector_Sort() (the class's Compare slot).
 * @param pa Points at a slot holding a String pointer (not at the String).
 * @param pb Points at another such slot.
 * @return Negative, 0 or positive in strcmp order; a String without a text sorts before every
 *         other. */
VOKT_API int String_Compare(const void *pa, const void *pb);
/** Hashes the text with Bob Jenkins' one-at-a-time hash (the class's Hash slot), the same on
 *  every machine.
 * @param s The String.
 * @return The hash as a signed number; 0 for an unset or empty String. */
VOKT_API int32_t String_Hash(const String *s);
/** Tells whether the text begins with prefix.
 * @param s The String.
 * @param prefix The beginning to look for.
 * @return 1 when it does, else 0 (also for a null or unset s or a null prefix). */
VOKT_API int32_t String_StartsWith(const String *s, const char *prefix);
/** Tells whether the text ends with suffix.
 * @param s The String.
 * @param suffix The end to look for (the whole text is one).
 * @return 1 when it does, else 0 (also when suffix is the longer, or for null). */
VOKT_API int32_t String_EndsWith(const String *s, const char *suffix);
/** Finds the first occurrence of needle.
 * @param s The String.
 * @param needle The text to find.
 * @param start Ignored, as it always has been: the search begins at byte 0.
 * @return The byte index of the first occurrence, or -1 (also for null). */
VOKT_API int32_t String_Find(const String *s, const char *needle, int32_t start);
/** Do not use: kept for source compatibility only.
 * @param s The String.
 * @param needle The text to find.
 * @return -1 when needle is absent. When it is present the call never returns, because
 *         String_Find() ignores its start. */
VOKT_API int32_t String_FindLast(const String *s, const char *needle);

/** Lower-cases every byte through the C library's tolower table of the current locale.
 * @param s The String. */
VOKT_API void String_ToLower(String *s);
/** Cuts the text to newLength bytes when it is longer (the buffer is kept); otherwise nothing.
 * @param s The String.
 * @param newLength The new length, from 0. */
VOKT_API void String_Truncate(String *s, int32_t newLength);
/** Removes count bytes from byte start, moving the rest down.
 * @param s The String.
 * @param start The first byte removed.
 * @param count How many; a negative start or count, or a range that does not lie inside the
 *        text (it may end exactly at the end), leaves the String as it was. */
VOKT_API void String_Delete(String *s, int32_t start, int32_t count);
/** Removes leading and trailing spaces, tabs, carriage returns and line feeds (no other
 *  whitespace).
 * @param s The String. */
VOKT_API void String_Trim(String *s);
/** Drops leading and trailing spaces, tabs, carriage returns and line feeds and folds every
 *  inner run of them into one space.
 * @param s The String. */
VOKT_API void String_CollapseWhitespace(String *s);
/** Removes every trailing carriage return and line feed.
 * @param s The String. */
VOKT_API void String_ChompNewlines(String *s);
/** Wraps the text at width columns: String_WrapEx(s, width, width, NULL).
 * @param s The String.
 * @param width The longest line.
 * @return As String_WrapEx(). */
VOKT_API int32_t String_Wrap(String *s, int32_t width);
/** Wraps the text: each line is broken at its last run of spaces that fits (those spaces are
 *  dropped), or cut hard at the width when none does; the breaks inserted are a carriage return
 *  and a line feed, and the text's own line ends are kept.
 * @param s The String.
 * @param firstWidth The longest first line.
 * @param width The longest later line.
 * @param indent Null, or text added after every line end (inserted or the text's own).
 * @return 0; -2 when memory ran out (s unchanged); -1 for a null s. */
VOKT_API int32_t String_WrapEx(String *s, int32_t firstWidth, int32_t width, const char *indent);

/** Splits at the first byte c.
 * @param s The String.
 * @param c The separator.
 * @param left Receives the text before it (replaced).
 * @param right Receives the text after it (replaced).
 * @return 0; 1, with left and right untouched, when s is empty or holds no c; -2 when memory
 *         ran out; -1 for a null argument. */
VOKT_API int32_t String_SplitAt(const String *s, char c, String *left, String *right);
/** Appends every comma-separated piece of the text to vector as a new String, in order, empty
 *  pieces included ("a,,b" gives "a", "", "b"); nothing is trimmed.
 * @param s The String; an empty, unset or null one adds nothing.
 * @param vector Receives the pieces (an owning vector then owns them).
 * @return 0; -2 when memory ran out (the pieces added before stay); -1 for a null vector
 *         (with a String to split). */
VOKT_API int32_t String_SplitCommas(const String *s, Vector *vector);
/** Appends every piece of text between bytes c to vector as a new String; an empty text gives
 *  one empty piece.
 * @param text The text.
 * @param c The separator.
 * @param vector Receives the pieces.
 * @return 0; -2 when memory ran out (the pieces added before stay; the others are released);
 *         -1 for a null argument. */
VOKT_API int32_t String_SplitChars(const char *text, char c, Vector *vector);
/** Joins the texts of a vector of set Strings with separator between them.
 * @param vector The Strings; a synchronised vector is read under its lock.
 * @param separator Put between two texts; null counts as empty.
 * @param out Receives the joined text (replaced; it may be the separator's String or an
 *        element).
 * @return 0; -2 when memory ran out; -1 for a null vector or out. */
VOKT_API int32_t String_Join(Vector *vector, const char *separator, String *out);

/** Tells whether path names a directory.
 * @param path The path.
 * @return 1 when stat succeeds on it and it is a directory, else 0. */
VOKT_API int32_t File_IsDirectory(const char *path);
/** Tells whether path names anything.
 * @param path The path.
 * @return 1 when stat succeeds on it, else 0. */
VOKT_API int32_t File_Exists(const char *path);
/** Resolves a '/'-separated path name against a base: an absolute name is taken as it is;
 *  otherwise the name goes in the base's folder when the base is an existing file, or in the
 *  base itself when it is a directory or does not exist ("etc/x.conf" and "etc" both give
 *  "etc/b.txt" for "b.txt").
 * @param s Receives the path (replaced; name and base may lie inside it).
 * @param name The name to resolve.
 * @param base A file whose folder is meant, or a folder.
 * @return 0; -2 when memory ran out; -1 for a null argument. */
VOKT_API int32_t String_ResolvePath(String *s, const char *name, const char *base);

/** Registers a temporary in a cleanup list, an owning vector that the caller destroys on every
 *  return path (which destroys every object still registered).
 * @param list The address of the caller's list, null at first: it is made on first use.
 * @param object The temporary; take it back out with Vector_RemoveIdentical() to keep it.
 * @return object; null when object is null, or after destroying object when the list could
 *         not take it (memory ran out). */
VOKT_API void *CleanupList_Add(Vector **list, void *object);

#ifdef __cplusplus
}
#endif
#endif
