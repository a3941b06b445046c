// SPDX-License-Identifier: MIT
// Strings laid out in lines and lists: wrapping, splitting, joining.
#include <string.h>

#include "vokt/containers/vector.h"
#include "vokt/internal/assert.h"
#include "vokt/internal/errors.h"
#include "vokt/internal/text.h"

namespace {

using vokt::Adopt;
using vokt::AllUsable;
using vokt::Inside;
using vokt::IsString;
using vokt::Scoped;
using vokt::Usable;

constexpr char kModule[] = "util";  // the String module's name in its reports

}  // namespace

extern "C" {

int32_t String_Wrap(String *s, int32_t width) { return String_WrapEx(s, width, width, nullptr); }

int32_t String_WrapEx(String *s, int32_t firstWidth, int32_t width, const char *indent) {
    if (!Usable(s)) return -1;
    if (!s->bIsSet || !s->string) return 0;
    Scoped<String> out(String_New());
    if (!out) return -2;
    String *o = out.get();
    const char *t = s->string;
    const int64_t length = static_cast<int64_t>(s->length);
    int64_t lineStart = 0, lastBreak = -1, limit = firstWidth;
    auto piece = [&](int64_t from, int64_t to) {  // bytes from..to-1
        return String_AppendN(o, t + from, static_cast<int32_t>(to - from));
    };
    for (int64_t i = 0; i < length; i++) {
        const char c = t[i];
        if (c == '\r' || c == '\n') {
            while (i < length && (t[i] == '\r' || t[i] == '\n')) i++;
            VOKT_TRY(piece(lineStart, i));
            if (indent) VOKT_TRY(String_AppendChars(o, indent));
            lineStart = i;
            limit = width;
            lastBreak = -1;
            continue;
        }
        if (i - lineStart < limit) {
            if (c == ' ') {
                while (i < length && t[i] == ' ') i++;
                lastBreak = i - 1;
            }
            continue;
        }
        if (lastBreak == -1) {
            VOKT_TRY(piece(lineStart, i));
            lineStart = i;
        } else {
            int64_t end = lastBreak;
            while (end >= lineStart && t[end] == ' ') end--;
            VOKT_TRY(piece(lineStart, end + 1));
            i = lastBreak;
            lineStart = lastBreak + 1;
        }
        VOKT_TRY(String_AppendChars(o, "\r\n"));
        limit = width;
        lastBreak = -1;
        if (indent) VOKT_TRY(String_AppendChars(o, indent));
    }
    VOKT_TRY(piece(lineStart < length ? lineStart : length, length));
    // The result was built with exact fit; hand its buffer over instead of copying.
    char *text = o->string;
    const uint64_t n = o->length;
    o->string = nullptr;
    o->bIsSet = 0;
    Adopt(s, text, n);
    return 0;
}

int32_t String_SplitAt(const String *s, char c, String *left, String *right) {
    const bool usable = AllUsable({s, left, right});
    if (!usable || !s->string || s->length == 0) return usable ? 1 : -1;
    const char *found = static_cast<const char *>(memchr(s->string, c, s->length));
    if (!found) return 1;
    const int32_t at = static_cast<int32_t>(found - s->string);
    // When an output is the input itself, the other output is taken first.
    if (left == s) {
        const int32_t code = String_Set(right, s->string + at + 1);
        const int32_t code2 = String_SetN(left, s->string, at);
        return code ? code : code2;
    }
    const int32_t code = String_SetN(left, s->string, at);
    const int32_t code2 = String_Set(right, s->string + at + 1);
    return code ? code : code2;
}

int32_t String_SplitCommas(const String *s, Vector *vector) {
    if (!s || vokt::Gone(s) || !s->string || s->length == 0) return 0;
    VOKT_ASSERT_OR_RETURN(vector != NULL, -1);
    if (vokt::UsedAfterDestroy(vector, &vokt::kVectorClass.base)) return -1;
    const auto add = vokt::VectorSlots(vector)->Add;
    int64_t start = 0;
    const int64_t length = static_cast<int64_t>(s->length);
    for (int64_t i = 0; i <= length; i++) {
        if (i < length && s->string[i] != ',') continue;
        String *piece = String_Substring(s, static_cast<int32_t>(start), static_cast<int32_t>(i - start));
        if (!piece) return -2;
        if (!add(vector, piece)) {
            String_Destroy(piece);
            return -2;
        }
        start = i + 1;
    }
    return 0;
}

int32_t String_SplitChars(const char *text, char c, Vector *vector) {
    VOKT_ASSERT_OR_RETURN(text != NULL, -1);
    VOKT_ASSERT_OR_RETURN(vector != NULL, -1);
    if (vokt::UsedAfterDestroy(vector, &vokt::kVectorClass.base)) return -1;
    // Everything not yet handed to the caller's vector dies with the list.
    vokt::CleanupList list;
    String *work = list.Add(String_NewFromChars(text));
    if (!work) return -2;
    const auto add = vokt::VectorSlots(vector)->Add;
    int64_t start = 0;
    const int64_t length = static_cast<int64_t>(work->length);
    for (int64_t i = 0; i <= length; i++) {
        if (i < length && work->string[i] != c) continue;
        String *piece = list.Add(String_Substring(work, static_cast<int32_t>(start), static_cast<int32_t>(i - start)));
        if (!piece || !add(vector, piece)) return -2;
        list.Keep(piece);  // handed over: no longer ours to destroy
        start = i + 1;
    }
    return 0;
}

int32_t String_Join(Vector *vector, const char *separator, String *out) {
    VOKT_ASSERT_OR_RETURN(vector != NULL, -1);
    if (vokt::UsedAfterDestroy(vector, &vokt::kVectorClass.base) || vokt::Gone(out)) return -1;
    const vokt::VectorReader read(vector);
    const int64_t count = read.Length();
    auto elementAt = [&](int64_t i) { return static_cast<const String *>(read.At(i)); };
    if (!separator) separator = "";
    // When out is also the separator or an element, the text is built aside and handed
    // over at the end, so that every piece is read as it was before the call.
    bool aliased = Inside(out, separator);
    for (int64_t i = 0; i < count && !aliased; i++) aliased = elementAt(i) == out;
    Scoped<String> aside(aliased ? String_New() : nullptr);
    if (aliased && !aside) return -2;
    String *target = aliased ? aside.get() : out;
    VOKT_TRY(String_Set(target, ""));
    const size_t separatorLength = strlen(separator);
    for (int64_t i = 0; i < count; i++) {
        const String *element = elementAt(i);
        if (i > 0) VOKT_TRY(vokt::AppendText(target, separator, separatorLength));
        VOKT_ASSERT_OR_RETURN(IsString(element) && element->string != NULL, -1);
        VOKT_TRY(vokt::AppendText(target, element->string, element->length));
    }
    if (aliased) {
        Adopt(out, target->string, target->length);
        target->string = nullptr;
        target->bIsSet = 0;
    }
    return 0;
}

}  // extern "C"
