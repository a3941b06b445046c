// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support.h"
#include "vokt/vokt.h"

namespace {

std::string Text(const String *s) { return s && s->string ? std::string(s->string, s->length) : "<unset>"; }

// Applies an edit to a new String holding text and returns the result.
std::string After(const char *text, const std::function<int32_t(String *)> &edit) {
    String *s = String_NewFromChars(text);
    EXPECT_EQ(edit(s), 0);
    std::string out = Text(s);
    String_Destroy(s);
    return out;
}

TEST(String, UnsetEmptyAndAppending) {
    String *unset = String_New(), *empty = String_NewFromChars("");
    EXPECT_EQ(String_Length(unset), 0);
    EXPECT_EQ(String_Hash(unset), 0);
    EXPECT_EQ(String_Equals(unset, unset), 0);
    String *items[] = {empty, unset};
    EXPECT_LT(String_Compare(&items[1], &items[0]), 0);  // unset sorts first
    EXPECT_EQ(String_AppendChars(unset, ""), 0);
    EXPECT_EQ(String_IsSet(unset), 1);
    EXPECT_EQ(String_Equals(unset, empty), 1);
    EXPECT_EQ(String_SetN(unset, "ab\0cd", 5), 0);  // stops at the NUL
    EXPECT_EQ(String_AppendFormatted(unset, "[%03d]", 7), 0);
    EXPECT_EQ(String_AppendChar(unset, '!'), 0);
    EXPECT_EQ(String_AppendChars(unset, unset->string), 0);  // appending itself
    EXPECT_EQ(Text(unset), "ab[007]!ab[007]!");
    // A 5000-byte text is measured and made with a single allocation.
    test::FailAllocation(2);
    EXPECT_EQ(String_Format(empty, "%5000d", 1), 0);
    EXPECT_EQ(test::InjectedFailures(), 0);
    test::FailAllocation(0);
    String *sub = String_Substring(empty, 4995, 100);
    EXPECT_EQ(Text(sub), "    1");
    for (String *x : {unset, empty, sub}) String_Destroy(x);
}

TEST(String, ComparingHashingSearching) {
    String *a = String_NewFromChars("a"), *fox = String_NewFromChars("The quick brown fox jumps over the lazy dog");
    EXPECT_EQ(static_cast<uint32_t>(String_Hash(a)), 0xca2e9442u);  // one-at-a-time reference values
    EXPECT_EQ(static_cast<uint32_t>(fox->ftbl->Hash(fox)), 0x519e91f5u);
    String *upper = String_NewFromChars("A");
    EXPECT_EQ(String_Equals(a, upper), 0);
    EXPECT_EQ(String_EqualsIgnoreCase(a, upper), 1);
    EXPECT_EQ(String_StartsWith(fox, "The q"), 1);
    EXPECT_EQ(String_StartsWith(fox, "the"), 0);
    EXPECT_EQ(String_EndsWith(fox, "dog"), 1);
    EXPECT_EQ(String_EndsWith(a, "aa"), 0) << "a suffix longer than the text";
    EXPECT_EQ(String_EndsWith(a, "a"), 1) << "the whole text";
    String_Set(a, "abcabc");
    EXPECT_EQ(String_Find(a, "c", 3), 2);  // the start is ignored
    EXPECT_EQ(String_FindLast(a, "x"), -1);
    for (String *x : {a, fox, upper}) String_Destroy(x);
}

TEST(String, EditingAndWrapping) {
    auto trim = [](String *s) { return String_Trim(s), 0; };
    EXPECT_EQ(After("  \t a b \r\n", trim), "a b");
    EXPECT_EQ(After("   ", trim), "");
    EXPECT_EQ(After("\va\f", trim), "\va\f");  // only the four blanks
    EXPECT_EQ(After("  a \t\n b  ", [](String *s) { return String_CollapseWhitespace(s), 0; }), "a b");
    EXPECT_EQ(After("line\r\n\n", [](String *s) { return String_ChompNewlines(s), 0; }), "line");
    EXPECT_EQ(After("abcdef", [](String *s) { return String_Delete(s, 1, 2), String_Truncate(s, 3), 0; }), "ade");
    EXPECT_EQ(After("abc", [](String *s) { return String_Delete(s, 1, 2), 0; }), "a") << "up to the end";
    EXPECT_EQ(After("abc", [](String *s) { return String_Truncate(s, 0), 0; }), "");
    EXPECT_EQ(After("Ab", [](String *s) { return String_ToLower(s), String_Delete(s, 1, 9), 0; }), "ab");
    const std::tuple<const char *, int32_t, int32_t, const char *, const char *> wraps[] = {
        {"aaaa bbbb cccc", 10, 10, nullptr, "aaaa bbbb\r\ncccc"},
        {"aaaa bbbb cccc", 9, 9, nullptr, "aaaa\r\nbbbb cccc"},
        {"abcdefghij", 4, 4, nullptr, "abcd\r\nefgh\r\nij"},
        {"aaaa bbbb cccc", 5, 10, "> ", "aaaa\r\n> bbbb cccc"},
        {"ab\ncd", 10, 10, ">", "ab\n>cd"},         // own line ends are kept
        {"ab  \ncd", 10, 10, ">", "ab  \ncd"},      // a '\n' after spaces is text
        {"abcd efgh", 4, 4, nullptr, "abcd\r\n efg\r\nh"},  // a space after a hard cut stays
        {"one   two", 5, 5, nullptr, "one\r\ntwo"},  // trailing spaces dropped
    };
    for (auto [text, first, width, indent, expected] : wraps)
        EXPECT_EQ(After(text, [first = first, width = width, indent = indent](String *s) {
                      return String_WrapEx(s, first, width, indent);
                  }),
                  expected)
            << text;
}

TEST(String, SplittingJoiningAndPaths) {
    String *s = String_NewFromChars("key=value=2"), *l = String_New(), *r = String_New();
    EXPECT_EQ(String_SplitAt(s, '=', l, r), 0);
    EXPECT_EQ(Text(l) + "|" + Text(r), "key|value=2");
    String_Set(s, "novalue");
    EXPECT_EQ(String_SplitAt(s, '=', l, r), 1);
    Vector *v = Vector_NewOwning();
    auto pieces = [&](int32_t code) {
        EXPECT_EQ(code, 0);
        EXPECT_EQ(String_Join(v, "|", l), 0);
        Vector_Clear(v);
        return "[" + Text(l) + "]";
    };
    for (auto [text, expected] : {std::pair{"", "[]"}, {",", "[|]"}, {"a,,b", "[a||b]"}}) {
        String_Set(s, text);
        EXPECT_EQ(pieces(String_SplitCommas(s, v)), expected) << text;
    }
    EXPECT_EQ(pieces(String_SplitChars("a::b:", ':', v)), "[a||b|]");
    EXPECT_EQ(String_SplitChars("", ':', v), 0);
    EXPECT_EQ(Vector_Length(v), 1);  // one empty piece
    EXPECT_EQ(0, test::InChild([] {
        String *s = String_New();
        mkdir("etc", 0755);
        test::WriteFile("etc/x.conf", "");
        for (auto [base, expected] : {std::pair{"etc/x.conf", "etc/b.txt"}, {"etc", "etc/b.txt"}, {"etc/", "etc/b.txt"},
                                      {"dir", "dir/b.txt"}}) {
            EXPECT_EQ(String_ResolvePath(s, "b.txt", base), 0);
            EXPECT_EQ(Text(s), expected) << base;
        }
        EXPECT_EQ(String_ResolvePath(s, "/abs/b.txt", "etc"), 0);
        EXPECT_EQ(Text(s), "/abs/b.txt");
        String_Destroy(s);
    }));
    for (String *x : {s, l, r}) String_Destroy(x);
    Vector_Free(v);
}

TEST(String, FailuresAndMistakesLeaveTheSpecifiedState) {
    EXPECT_EQ(0, test::InChild([] {
        String *s = String_New();
        testing::internal::CaptureStderr();
        test::FailAllocation(1);
        EXPECT_EQ(String_Set(s, "hello"), -2);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: malloc failed!\n");
        EXPECT_EQ(String_IsSet(s), 0);
        // A failed append leaves the String reading as unset while it keeps its text.
        String_Set(s, "abc");
        const char *old = s->string;
        test::FailAllocation(1);
        EXPECT_EQ(String_AppendChars(s, "def"), -2);
        EXPECT_EQ(s->bIsSet, 0);
        EXPECT_EQ(s->length, 0u);
        EXPECT_EQ(s->string, old);
        String_Check(s);
        String_AppendChars(s, nullptr);
        String_Length(nullptr);
        String_Destroy(s);  // and nothing leaks
        const std::string log = test::ReadFile("vokt.log");
        EXPECT_NE(log.find(": Unable to malloc 6 bytes at util:"), std::string::npos);
        for (const char *text : {"ps->string == NULL", "chars != NULL", "ps != NULL"})
            EXPECT_TRUE(test::HasReport(log, text, "util")) << text;
    }));
}

}  // namespace

// Every operation that takes text must accept text that lies inside its own target.
TEST(String, TextInsideTheTargetIsReadBeforeItChanges) {
    EXPECT_EQ(0, test::InChild([] {
        mkdir("etc", 0755);
        using Edit = std::function<int32_t(String *)>;
        const std::tuple<const char *, const char *, Edit> cases[] = {
            {"hello", "llo", [](String *s) { return String_Set(s, s->string + 2); }},
            {"hello", "el", [](String *s) { return String_SetN(s, s->string + 1, 2); }},
            {"ab", "abab", [](String *s) { return String_AppendChars(s, s->string); }},
            {"ab", "abb", [](String *s) { return String_AppendN(s, s->string + 1, 5); }},
            {"ab", "<ab>", [](String *s) { return String_Format(s, "<%s>", s->string); }},
            {"%s!", "%s!!", [](String *s) { return String_Format(s, s->string, "%s!"); }},
            {"ab", "ab=ab", [](String *s) { return String_AppendFormatted(s, "=%s", s->string); }},
            {"aa bb+", "aa\r\n+bb+", [](String *s) { return String_WrapEx(s, 3, 3, s->string + 5); }},
            {"b.txt", "etc/b.txt", [](String *s) { return String_ResolvePath(s, s->string, "etc"); }},
            {"etc", "etc/b.txt", [](String *s) { return String_ResolvePath(s, "b.txt", s->string); }},
            {"x/", "x/x/", [](String *s) { return String_ResolvePath(s, s->string, s->string); }},
        };
        for (const auto &[text, expected, edit] : cases) {
            String *s = String_NewFromChars(text);
            EXPECT_EQ(edit(s), 0) << text << " -> " << expected;
            EXPECT_EQ(Text(s), expected);
            String_Destroy(s);
        }
        // Joining into a String that is also the separator or one of the elements.
        String *out = String_NewFromChars("+"), *b = String_NewFromChars("b");
        Vector *v = Vector_New();
        Vector_Add(v, out);
        Vector_Add(v, b);
        EXPECT_EQ(String_Join(v, out->string, out), 0);
        EXPECT_EQ(Text(out), "++b");
        String_Destroy(out);
        String_Destroy(b);
        Vector_Free(v);
    }));
}

// A length that String_Length cannot report is never reached: the growth fails instead.
TEST(String, NeverGrowsPastWhatItsLengthReports) {
    String *s = String_NewFromChars("abc");
    s->length = 2147483646u;  // pretend: only the tail end of the text is ever touched
    if (sizeof(void *) == 8) {  // a 2 GiB block cannot be had in 32 bits of address space
        EXPECT_EQ(String_AppendChar(s, 'y'), 0);
        EXPECT_EQ(String_Length(s), 2147483647);
    }
    s->length = 2147483647u;
    EXPECT_EQ(String_AppendChar(s, 'z'), -2);
    EXPECT_EQ(String_Length(s), 2147483647) << "a failed AppendChar changes nothing";
    EXPECT_EQ(String_AppendChars(s, "z"), -2);
    EXPECT_EQ(String_Length(s), 0) << "a failed append reads as unset";
    EXPECT_EQ(String_Hash(s), 0);
    s->bIsSet = 1;
    s->length = 3;
    String_Destroy(s);
}
