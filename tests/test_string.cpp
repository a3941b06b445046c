#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support.h"
#include "vokt/vokt.h"

namespace {

std::string Text(const String *s) { return s && s->string ? std::string(s->string, s->length) : "<unset>"; }

std::string Wrapped(const char *text, int32_t first, int32_t width, const char *indent = nullptr) {
    String *s = String_NewFromChars(text);
    EXPECT_EQ(String_WrapEx(s, first, width, indent), 0);
    std::string out = Text(s);
    String_Destroy(s);
    return out;
}

// Applies an in-place edit to a copy of text.
std::string Edited(const char *text, void (*edit)(String *)) {
    String *s = String_NewFromChars(text);
    edit(s);
    std::string out = Text(s);
    EXPECT_EQ(strlen(s->string), s->length);
    String_Destroy(s);
    return out;
}

TEST(String, UnsetIsDistinctFromEmpty) {
    String *unset = String_New(), *empty = String_NewFromChars("");
    EXPECT_EQ(String_Length(unset), 0);
    EXPECT_EQ(String_Hash(unset), 0);
    EXPECT_EQ(String_Equals(unset, unset), 0);
    EXPECT_EQ(String_Equals(empty, empty), 1);
    String *items[] = {empty, unset};
    EXPECT_LT(String_Compare(&items[1], &items[0]), 0);  // unset sorts first
    EXPECT_EQ(String_AppendChars(unset, ""), 0);
    EXPECT_EQ(String_IsSet(unset), 1);
    EXPECT_EQ(String_Length(unset), 0);
    String_Reset(unset);
    EXPECT_EQ(String_AppendChar(unset, 'x'), 0);
    EXPECT_EQ(Text(unset), "x");
    String_Destroy(unset);
    String_Destroy(empty);
}

TEST(String, SettingFormattingAppending) {
    String *s = String_New();
    for (auto [count, expected] : {std::pair{3, "abc"}, {-1, "abcdef"}, {0, ""}, {99, "abcdef"}}) {
        EXPECT_EQ(String_SetN(s, "abcdef", count), 0);
        EXPECT_EQ(Text(s), expected);
    }
    EXPECT_EQ(String_Format(s, "%s=%d", "x", 42), 0);
    EXPECT_EQ(String_AppendN(s, "ab\0cd", 5), 0);  // stops at the NUL
    EXPECT_EQ(String_AppendFormatted(s, "[%03d]", 7), 0);
    EXPECT_EQ(String_AppendChars(s, s->string), 0);  // appending itself
    EXPECT_EQ(Text(s), "x=42ab[007]x=42ab[007]");
    // A 5000-byte text is measured and made with a single allocation.
    test::FailAllocation(2);
    EXPECT_EQ(String_Format(s, "%5000d", 1), 0);
    EXPECT_EQ(test::InjectedFailures(), 0);
    test::FailAllocation(0);
    EXPECT_EQ(String_Length(s), 5000);
    String *copy = String_Copy(s), *sub = String_Substring(s, 4995, 100), *f = String_NewFormatted("%c%c", 'o', 'k');
    EXPECT_EQ(String_Equals(copy, s), 1);
    EXPECT_NE(copy->string, s->string);
    EXPECT_EQ(Text(sub), "    1");
    EXPECT_EQ(Text(f), "ok");
    EXPECT_EQ(String_NewFormatted(nullptr), nullptr);
    for (String *x : {s, copy, sub, f}) String_Destroy(x);
}

TEST(String, ComparingHashingSearching) {
    String *a = String_NewFromChars("a"), *fox = String_NewFromChars("The quick brown fox jumps over the lazy dog");
    EXPECT_EQ(static_cast<uint32_t>(String_Hash(a)), 0xca2e9442u);  // one-at-a-time reference values
    EXPECT_EQ(static_cast<uint32_t>(fox->ftbl->Hash(fox)), 0x519e91f5u);
    String *upper = String_NewFromChars("A");
    EXPECT_EQ(String_Equals(a, upper), 0);
    EXPECT_EQ(String_EqualsIgnoreCase(a, upper), 1);
    EXPECT_EQ(String_StartsWith(fox, "The q") + String_StartsWith(fox, "the"), 1);
    EXPECT_EQ(String_EndsWith(fox, "dog") + String_EndsWith(a, "aa"), 1);
    String_Set(a, "abcabc");
    EXPECT_EQ(String_Find(a, "c", 3), 2);  // the start is ignored
    EXPECT_EQ(String_FindLast(a, "x"), -1);
    String_ToLower(fox);
    EXPECT_EQ(Text(fox).substr(0, 9), "the quick");

    Vector *v = Vector_NewOwning();
    for (const char *t : {"pear", "apple", "fig"}) Vector_Add(v, String_NewFromChars(t));
    Vector_Sort(v);
    EXPECT_EQ(String_Join(v, ", ", upper), 0);
    EXPECT_EQ(Text(upper), "apple, fig, pear");
    String_Set(a, "fig");
    EXPECT_EQ(Vector_Contains(v, a), 1);
    for (String *x : {a, fox, upper}) String_Destroy(x);
    Vector_Free(v);
}

TEST(String, EditingInPlace) {
    EXPECT_EQ(Edited("  \t a b \r\n", String_Trim), "a b");
    EXPECT_EQ(Edited("   ", String_Trim), "");
    EXPECT_EQ(Edited("\va\f", String_Trim), "\va\f");  // only the four blanks
    EXPECT_EQ(Edited("  a \t\n b  ", String_CollapseWhitespace), "a b");
    EXPECT_EQ(Edited("line\r\n\n", String_ChompNewlines), "line");
    EXPECT_EQ(Edited("abcdef", [](String *s) { String_Truncate(s, 2); }), "ab");
    EXPECT_EQ(Edited("ab", [](String *s) { String_Truncate(s, 5); }), "ab");
    EXPECT_EQ(Edited("abcdef", [](String *s) { String_Delete(s, 1, 2); }), "adef");
    EXPECT_EQ(Edited("abcdef", [](String *s) { String_Delete(s, 3, 9); }), "abcdef");  // past the end
}

TEST(String, WrappingFollowsItsRules) {
    EXPECT_EQ(Wrapped("aaaa bbbb cccc", 10, 10), "aaaa bbbb\r\ncccc");
    EXPECT_EQ(Wrapped("aaaa bbbb cccc", 9, 9), "aaaa\r\nbbbb cccc");
    EXPECT_EQ(Wrapped("abcdefghij", 4, 4), "abcd\r\nefgh\r\nij");
    EXPECT_EQ(Wrapped("aaaa bbbb cccc", 5, 10, "> "), "aaaa\r\n> bbbb cccc");
    EXPECT_EQ(Wrapped("ab\ncd", 10, 10, ">"), "ab\n>cd");         // own line ends are kept
    EXPECT_EQ(Wrapped("ab  \ncd", 10, 10, ">"), "ab  \ncd");      // a '\n' after spaces is text
    EXPECT_EQ(Wrapped("abcd efgh", 4, 4), "abcd\r\n efg\r\nh");   // a space after a hard cut stays
    EXPECT_EQ(Wrapped("one   two", 5, 5), "one\r\ntwo");          // trailing spaces dropped
    EXPECT_EQ(Wrapped("", 4, 4), "");
}

TEST(String, SplittingAndJoining) {
    String *s = String_NewFromChars("key=value=2"), *l = String_New(), *r = String_New();
    EXPECT_EQ(String_SplitAt(s, '=', l, r), 0);
    EXPECT_EQ(Text(l) + "|" + Text(r), "key|value=2");
    String_Set(s, "novalue");
    EXPECT_EQ(String_SplitAt(s, '=', l, r), 1);
    EXPECT_EQ(Text(l), "key");

    Vector *v = Vector_NewOwning();
    auto pieces = [v](int32_t code) {
        EXPECT_EQ(code, 0);
        std::string all;
        for (int64_t i = 0; i < Vector_Length(v); i++) all += "[" + Text(static_cast<String *>(Vector_GetAt(v, i))) + "]";
        Vector_Clear(v);
        return all;
    };
    for (auto [text, expected] : {std::pair{"", ""}, {",", "[][]"}, {"a,,b", "[a][][b]"}, {"a,", "[a][]"}}) {
        String_Set(s, text);
        EXPECT_EQ(pieces(String_SplitCommas(s, v)), expected) << text;
    }
    EXPECT_EQ(pieces(String_SplitChars("", ':', v)), "[]");
    EXPECT_EQ(pieces(String_SplitChars("a::b:", ':', v)), "[a][][b][]");
    Vector_SetSynchronized(v, 1);
    String_SplitChars("x y z", ' ', v);
    EXPECT_EQ(String_Join(v, "+", l), 0);
    EXPECT_EQ(Text(l), "x+y+z");
    for (String *x : {s, l, r}) String_Destroy(x);
    Vector_Free(v);
}

TEST(String, ResolvingPaths) {
    EXPECT_EQ(0, test::InChild([] {
        mkdir("etc", 0755);
        test::WriteFile("x.conf", "");
        test::WriteFile("etc/x.conf", "");
        String *s = String_New();
        const std::pair<const char *, const char *> cases[] = {{"x.conf", "b.txt"},      {"etc", "etc/b.txt"},
                                                               {"etc/", "etc/b.txt"},    {"dir", "dir/b.txt"},
                                                               {"etc/x.conf", "etc/b.txt"}};
        for (auto [base, expected] : cases) {
            EXPECT_EQ(String_ResolvePath(s, "b.txt", base), 0);
            EXPECT_EQ(Text(s), expected) << base;
        }
        EXPECT_EQ(String_ResolvePath(s, "/abs/b.txt", "etc"), 0);
        EXPECT_EQ(Text(s), "/abs/b.txt");
        EXPECT_EQ(File_IsDirectory("etc") + File_IsDirectory("x.conf") + File_Exists("nope"), 1);
        String_Destroy(s);
    }));
}

TEST(String, FailuresAndMistakesLeaveTheSpecifiedState) {
    EXPECT_EQ(0, test::InChild([] {
        String *s = String_New();
        testing::internal::CaptureStderr();
        test::FailAllocation(1);
        EXPECT_EQ(String_Set(s, "hello"), -2);
        test::FailAllocation(0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: malloc failed!\n");
        EXPECT_EQ(String_IsSet(s), 0);
        EXPECT_NE(test::ReadFile("vokt.log").find(": Unable to malloc 6 bytes at util:"), std::string::npos);

        // A failed append leaves the String reading as unset while it keeps its text.
        String_Set(s, "abc");
        const char *old = s->string;
        test::FailAllocation(1);
        EXPECT_EQ(String_AppendChars(s, "def"), -2);
        test::FailAllocation(0);
        EXPECT_EQ(s->bIsSet + s->length, 0u);
        EXPECT_EQ(s->string, old);
        String_Check(s);
        EXPECT_EQ(String_AppendChars(s, nullptr), -1);
        EXPECT_EQ(String_Length(nullptr), 0);
        String_Destroy(s);  // and nothing leaks
        const std::string log = test::ReadFile("vokt.log");
        for (const char *text : {"ps->string == NULL", "chars != NULL", "ps != NULL"})
            EXPECT_TRUE(test::HasReport(log, text, "util")) << text;

        // Whatever allocation fails, these end with -2 or null and leave nothing behind.
        test::SweepAllocations([](long) {
            String *w = String_NewFromChars("aaaa bbbb cccc dddd");
            const int32_t wrapped = w ? String_WrapEx(w, 6, 6, "  ") : 0;
            EXPECT_TRUE(wrapped == 0 || wrapped == -2);
            Object_Destroy(w);
            Vector *v = Vector_NewOwning();
            const int32_t split = v ? String_SplitChars("a:b:c:d:e:f:g:h:i:j:k:l", ':', v) : 0;
            EXPECT_TRUE(split == 0 || split == -2);
            Object_Destroy(v);
        });
    }));
}

}  // namespace
