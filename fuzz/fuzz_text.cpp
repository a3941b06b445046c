// SPDX-License-Identifier: MIT
// Text operations against plain models: trimming, collapsing, splitting and joining,
// editing, wrapping, paths and formatting.
#include <fuzzer/FuzzedDataProvider.h>

#include <vector>

#include "check.h"

namespace {

bool Blank(char c) { return c == ' ' || c == '\r' || c == '\n' || c == '\t'; }

std::string Trimmed(const std::string &t) {
    size_t a = 0, b = t.size();
    while (a < b && Blank(t[a])) a++;
    while (b > a && Blank(t[b - 1])) b--;
    return t.substr(a, b - a);
}

std::string Collapsed(const std::string &t) {
    std::string out;
    for (size_t i = 0; i < t.size();) {
        if (Blank(t[i])) {
            i++;
            continue;
        }
        size_t j = i;
        while (j < t.size() && !Blank(t[j])) j++;
        out += (out.empty() ? "" : " ") + t.substr(i, j - i);
        i = j;
    }
    return out;
}

std::string Without(std::string t, const char *drop) {
    std::string out;
    for (char c : t)
        if (!strchr(drop, c)) out += c;
    return out;
}

// Splits text with split, joins the pieces with the separator, and returns the result.
template <typename Split>
std::string SplitJoined(const char *separator, Split split) {
    Vector *pieces = Vector_NewOwning();
    String *joined = String_New();
    FUZZ_CHECK(split(pieces) == 0);
    FUZZ_CHECK(String_Join(pieces, separator, joined) == 0);
    std::string out = Text(joined);
    Object_Destroy(pieces);
    Object_Destroy(joined);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    const char separator = static_cast<char>(in.ConsumeIntegralInRange<int>(1, 255));
    const int32_t first = in.ConsumeIntegralInRange<int32_t>(-2, 30), width = in.ConsumeIntegralInRange<int32_t>(-2, 30);
    const int32_t start = in.ConsumeIntegralInRange<int32_t>(-3, 40), count = in.ConsumeIntegralInRange<int32_t>(-3, 40);
    const std::string indent(in.ConsumeIntegralInRange<size_t>(0, 3), '>');
    const std::string name = CText(in.ConsumeRandomLengthString(12));
    const std::string text = CText(in.ConsumeRemainingBytesAsString());
    const std::string sep(1, separator);

    String *s = String_NewFromChars(text.c_str());
    String_Trim(s);
    FUZZ_CHECK(Text(s) == Trimmed(text));
    String_Set(s, text.c_str());
    String_CollapseWhitespace(s);
    FUZZ_CHECK(Text(s) == Collapsed(text));

    String_Set(s, text.c_str());
    FUZZ_CHECK(SplitJoined(",", [&](Vector *v) { return String_SplitCommas(s, v); }) == text);
    FUZZ_CHECK(SplitJoined(sep.c_str(), [&](Vector *v) { return String_SplitChars(text.c_str(), separator, v); }) == text);
    String *left = String_New(), *right = String_New();
    const int32_t split = String_SplitAt(s, separator, left, right);
    if (text.find(separator) == std::string::npos) {
        FUZZ_CHECK(split == 1);
    } else {
        FUZZ_CHECK(split == 0);
        FUZZ_CHECK(Text(left) + sep + Text(right) == text);
    }

    // Substring, Delete and Truncate against std::string.
    const int64_t n = static_cast<int64_t>(text.size());
    String *sub = String_Substring(s, start, count);
    const size_t from = static_cast<size_t>(start < 0 ? 0 : start > n ? n : start);
    FUZZ_CHECK(Text(sub) == text.substr(from, count < 0 ? std::string::npos : static_cast<size_t>(count)));
    std::string edited = text;
    String_Delete(s, start, count);
    if (start >= 0 && count >= 0 && start + count <= n) edited.erase(static_cast<size_t>(start), static_cast<size_t>(count));
    FUZZ_CHECK(Text(s) == edited);
    String_Truncate(s, count);
    if (count >= 0 && count < static_cast<int64_t>(edited.size())) edited.resize(static_cast<size_t>(count));
    FUZZ_CHECK(Text(s) == edited);

    // Wrapping only drops spaces and adds line ends and indents.
    String_Set(s, text.c_str());
    FUZZ_CHECK(String_WrapEx(s, first, width, indent.empty() ? nullptr : indent.c_str()) == 0);
    FUZZ_CHECK(Without(Text(s), " \r\n>") == Without(text, " \r\n>"));

    // Paths: an absolute name as it is; otherwise joined to a base that does not exist.
    const std::string base = "no-such-dir/" + name;
    FUZZ_CHECK(String_ResolvePath(s, text.c_str(), base.c_str()) == 0);
    if (!text.empty() && text[0] == '/')
        FUZZ_CHECK(Text(s) == text);
    else
        FUZZ_CHECK(Text(s) == base + (base.back() == '/' ? "" : "/") + text);
    FUZZ_CHECK(String_ResolvePath(s, s->string, s->string) == 0);  // both inside the target

    FUZZ_CHECK(String_Format(s, "%s|%d", text.c_str(), count) == 0);
    FUZZ_CHECK(Text(s) == text + "|" + std::to_string(count));
    FUZZ_CHECK(String_AppendFormatted(s, "%s", s->string) == 0);
    FUZZ_CHECK(Text(s) == (text + "|" + std::to_string(count)) + (text + "|" + std::to_string(count)));

    for (String *x : {s, left, right, sub}) String_Destroy(x);
    return 0;
}
