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
    EXPECT_EQ(s->length, out.size());
    String_Destroy(s);
    return out;
}

TEST(String, UnsetIsDistinctFromEmpty) {
    String *unset = String_New(), *empty = String_NewFromChars("");
    EXPECT_STREQ(unset->ftbl->name, "String");
    EXPECT_EQ(String_IsSet(unset), 0);
    EXPECT_EQ(String_Length(unset), 0);
    EXPECT_EQ(String_Hash(unset), 0);
    EXPECT_EQ(String_Hash(empty), 0);
    EXPECT_EQ(String_Equals(unset, unset), 0);
    EXPECT_EQ(String_Equals(empty, empty), 1);
    String *items[] = {empty, unset};
    EXPECT_LT(String_Compare(&items[1], &items[0]), 0);
    EXPECT_EQ(String_Compare(&items[1], &items[1]), 0);
    EXPECT_EQ(String_AppendChars(unset, ""), 0);
    EXPECT_EQ(String_IsSet(unset), 1);
    EXPECT_EQ(String_Length(unset), 0);
    String_Reset(unset);
    EXPECT_EQ(String_IsSet(unset), 0);
    EXPECT_EQ(String_AppendChar(unset, 'x'), 0);
    EXPECT_EQ(Text(unset), "x");
    String_Destroy(unset);
    String_Destroy(empty);
}

TEST(String, SettingFormattingAppending) {
    String *s = String_New();
    EXPECT_EQ(String_SetN(s, "abcdef", 3), 0);
    EXPECT_EQ(Text(s), "abc");
    EXPECT_EQ(String_SetN(s, "ab\0cd", 5), 0);  // stops at the NUL
    EXPECT_EQ(Text(s), "ab");
    EXPECT_EQ(String_SetN(s, "abc", -1), 0);
    EXPECT_EQ(Text(s), "abc");
    EXPECT_EQ(String_SetN(s, "abc", 0), 0);
    EXPECT_EQ(Text(s), "");
    EXPECT_EQ(String_Format(s, "%s=%d", "x", 42), 0);
    EXPECT_EQ(Text(s), "x=42");
    EXPECT_EQ(String_AppendN(s, "abc", 2), 0);
    EXPECT_EQ(String_AppendFormatted(s, "[%03d]", 7), 0);
    EXPECT_EQ(String_AppendChar(s, '!'), 0);
    EXPECT_EQ(Text(s), "x=42ab[007]!");
    EXPECT_EQ(String_AppendChars(s, s->string), 0);  // appending itself
    EXPECT_EQ(Text(s), "x=42ab[007]!x=42ab[007]!");
    // A 5000-byte text is measured and made with a single allocation.
    test::FailAllocation(2);
    EXPECT_EQ(String_Format(s, "%5000d", 1), 0);
    EXPECT_EQ(test::InjectedFailures(), 0);
    test::FailAllocation(0);
    EXPECT_EQ(String_Length(s), 5000);
    String *copy = String_Copy(s), *sub = String_Substring(s, 4995, 100);
    EXPECT_EQ(String_Equals(copy, s), 1);
    EXPECT_NE(copy->string, s->string);
    EXPECT_EQ(Text(sub), "    1");
    String *formatted = String_NewFormatted("%c%c", 'o', 'k');
    EXPECT_EQ(Text(formatted), "ok");
    EXPECT_EQ(String_NewFormatted(nullptr), nullptr);
    for (String *x : {s, copy, sub, formatted}) String_Destroy(x);
}

TEST(String, ComparingHashingSearching) {
    String *a = String_NewFromChars("a"), *fox = String_NewFromChars("The quick brown fox jumps over the lazy dog");
    EXPECT_EQ(static_cast<uint32_t>(String_Hash(a)), 0xca2e9442u);
    EXPECT_EQ(static_cast<uint32_t>(String_Hash(fox)), 0x519e91f5u);
    EXPECT_EQ(a->ftbl->Hash(a), String_Hash(a));
    String *upper = String_NewFromChars("A");
    EXPECT_EQ(String_Equals(a, upper), 0);
    EXPECT_EQ(String_EqualsIgnoreCase(a, upper), 1);
    EXPECT_EQ(String_StartsWith(fox, "The q"), 1);
    EXPECT_EQ(String_StartsWith(fox, "the"), 0);
    EXPECT_EQ(String_EndsWith(fox, "dog"), 1);
    EXPECT_EQ(String_EndsWith(a, "aa"), 0);
    String *abc = String_NewFromChars("abcabc");
    EXPECT_EQ(String_Find(abc, "c", 3), 2);  // the start is ignored
    EXPECT_EQ(String_Find(abc, "x", 0), -1);
    EXPECT_EQ(String_FindLast(abc, "x"), -1);
    String_ToLower(fox);
    EXPECT_EQ(Text(fox).substr(0, 9), "the quick");

    Vector *v = Vector_NewOwning();
    for (const char *t : {"pear", "apple", "fig"}) Vector_Add(v, String_NewFromChars(t));
    Vector_Add(v, String_New());
    Vector_Sort(v);
    String *joined = String_New();
    String *unset = static_cast<String *>(Vector_RemoveAt(v, 0));
    EXPECT_EQ(String_IsSet(unset), 0);  // the unset one sorted first
    String_Destroy(unset);
    EXPECT_EQ(String_Join(v, ", ", joined), 0);
    EXPECT_EQ(Text(joined), "apple, fig, pear");
    String *probe = String_NewFromChars("fig");
    EXPECT_EQ(Vector_Contains(v, probe), 1);
    for (String *x : {a, fox, upper, abc, joined, probe}) String_Destroy(x);
    Vector_Free(v);
}

TEST(String, EditingInPlace) {
    String *s = String_NewFromChars("  \t a b \r\n");
    String_Trim(s);
    EXPECT_EQ(Text(s), "a b");
    String_Set(s, "   ");
    String_Trim(s);
    EXPECT_EQ(Text(s), "");
    String_Set(s, "\va\f");
    String_Trim(s);
    EXPECT_EQ(Text(s), "\va\f");  // only the four blanks are trimmed
    String_Set(s, "  a \t\n b  ");
    String_CollapseWhitespace(s);
    EXPECT_EQ(Text(s), "a b");
    String_Set(s, "line\r\n\n");
    String_ChompNewlines(s);
    EXPECT_EQ(Text(s), "line");
    String_Truncate(s, 2);
    EXPECT_EQ(Text(s), "li");
    String_Truncate(s, 5);
    EXPECT_EQ(Text(s), "li");
    String_Set(s, "abcdef");
    String_Delete(s, 1, 2);
    EXPECT_EQ(Text(s), "adef");
    String_Delete(s, 3, 9);  // past the end: ignored
    EXPECT_EQ(Text(s), "adef");
    String_Destroy(s);
}

TEST(String, WrappingFollowsItsRules) {
    EXPECT_EQ(Wrapped("aaaa bbbb cccc", 10, 10), "aaaa bbbb\r\ncccc");
    EXPECT_EQ(Wrapped("aaaa bbbb cccc", 9, 9), "aaaa\r\nbbbb cccc");
    EXPECT_EQ(Wrapped("abcdefghij", 4, 4), "abcd\r\nefgh\r\nij");
    EXPECT_EQ(Wrapped("aaaa bbbb cccc", 5, 10, "> "), "aaaa\r\n> bbbb cccc");
    EXPECT_EQ(Wrapped("ab\ncd", 10, 10, ">"), "ab\n>cd");            // own line ends are kept
    EXPECT_EQ(Wrapped("ab  \ncd", 10, 10, ">"), "ab  \ncd");         // a '\n' after spaces is text
    EXPECT_EQ(Wrapped("abcd efgh", 4, 4), "abcd\r\n efg\r\nh");      // a space after a hard cut stays
    EXPECT_EQ(Wrapped("one   two", 5, 5), "one\r\ntwo");             // trailing spaces dropped
    EXPECT_EQ(Wrapped("", 4, 4), "");
    String *s = String_NewFromChars("aaaa bbbb");
    EXPECT_EQ(String_Wrap(s, 5), 0);
    EXPECT_EQ(Text(s), "aaaa\r\nbbbb");
    String_Destroy(s);
}

TEST(String, SplittingAndJoining) {
    String *s = String_NewFromChars("key=value=2"), *l = String_New(), *r = String_New();
    EXPECT_EQ(String_SplitAt(s, '=', l, r), 0);
    EXPECT_EQ(Text(l), "key");
    EXPECT_EQ(Text(r), "value=2");
    String_Set(s, "novalue");
    EXPECT_EQ(String_SplitAt(s, '=', l, r), 1);
    EXPECT_EQ(Text(l), "key");

    auto pieces = [](Vector *v) {
        std::string all;
        for (int64_t i = 0; i < Vector_Length(v); i++) all += "[" + Text(static_cast<String *>(Vector_GetAt(v, i))) + "]";
        Vector_Clear(v);
        return all;
    };
    Vector *v = Vector_NewOwning();
    for (auto [text, expected] : {std::pair{"", ""}, {",", "[][]"}, {"a,,b", "[a][][b]"}, {"a,", "[a][]"}}) {
        String_Set(s, text);
        EXPECT_EQ(String_SplitCommas(s, v), 0);
        EXPECT_EQ(pieces(v), expected) << text;
    }
    EXPECT_EQ(String_SplitChars("", ':', v), 0);
    EXPECT_EQ(pieces(v), "[]");
    EXPECT_EQ(String_SplitChars("a::b:", ':', v), 0);
    EXPECT_EQ(pieces(v), "[a][][b][]");
    Vector_SetSynchronized(v, 1);
    String_SplitChars("x y z", ' ', v);
    EXPECT_EQ(String_Join(v, "+", l), 0);
    EXPECT_EQ(Text(l), "x+y+z");
    for (String *x : {s, l, r}) String_Destroy(x);
    Vector_Free(v);
}

TEST(String, ResolvingPaths) {
    EXPECT_EQ(0, test::InChild([] {
        test::WriteFile("x.conf", "");
        mkdir("etc", 0755);
        String *s = String_New();
        const std::pair<const char *, const char *> cases[] = {
            {"x.conf", "b.txt"}, {"etc", "etc/b.txt"}, {"etc/", "etc/b.txt"}, {"dir", "dir/b.txt"}};
        for (auto [base, expected] : cases) {
            EXPECT_EQ(String_ResolvePath(s, "b.txt", base), 0);
            EXPECT_EQ(Text(s), expected) << base;
        }
        test::WriteFile("etc/x.conf", "");
        EXPECT_EQ(String_ResolvePath(s, "b.txt", "etc/x.conf"), 0);
        EXPECT_EQ(Text(s), "etc/b.txt");
        EXPECT_EQ(String_ResolvePath(s, "/abs/b.txt", "etc"), 0);
        EXPECT_EQ(Text(s), "/abs/b.txt");
        EXPECT_EQ(File_IsDirectory("etc"), 1);
        EXPECT_EQ(File_IsDirectory("x.conf"), 0);
        EXPECT_EQ(File_Exists("x.conf"), 1);
        EXPECT_EQ(File_Exists("nope"), 0);
        String_Destroy(s);
    }));
}

TEST(String, AllocationFailuresReportAndLeaveTheSpecifiedState) {
    EXPECT_EQ(0, test::InChild([] {
        String *s = String_New();
        testing::internal::CaptureStderr();
        test::FailAllocation(1);
        EXPECT_EQ(String_Set(s, "hello"), -2);
        test::FailAllocation(0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: malloc failed!\n");
        EXPECT_EQ(String_IsSet(s), 0);
        const std::string log = test::ReadFile("vokt.log");
        EXPECT_NE(log.find(": Unable to malloc 6 bytes at util:"), std::string::npos) << log;

        // A failed append leaves the String reading as unset while it keeps its text.
        String_Set(s, "abc");
        const char *old = s->string;
        test::FailAllocation(1);
        EXPECT_EQ(String_AppendChars(s, "def"), -2);
        test::FailAllocation(0);
        EXPECT_EQ(s->bIsSet, 0);
        EXPECT_EQ(s->length, 0u);
        EXPECT_EQ(s->string, old);
        String_Check(s);
        EXPECT_TRUE(test::HasReport(test::ReadFile("vokt.log"), "ps->string == NULL", "util"));
        String_Destroy(s);  // and nothing leaks

        // Whatever allocation fails, these end with -2 or null and leave nothing behind.
        test::SweepAllocations([](long) {
            String *w = String_NewFromChars("aaaa bbbb cccc dddd");
            if (w) {
                const int32_t code = String_WrapEx(w, 6, 6, "  ");
                EXPECT_TRUE(code == 0 || code == -2);
                String_Destroy(w);
            }
            Vector *v = Vector_NewOwning();
            if (v) {
                const int32_t code = String_SplitChars("a:b:c:d:e:f:g:h:i:j:k:l", ':', v);
                EXPECT_TRUE(code == 0 || code == -2);
                Vector_Free(v);
            }
            String *f = String_NewFormatted("%d-%s", 5, "x");
            if (f) {
                EXPECT_STREQ(f->string, "5-x");
            }
            Object_Destroy(f);
        });
    }));
}

TEST(String, NullArgumentsAreReportedNotFollowed) {
    EXPECT_EQ(0, test::InChild([] {
        String *s = String_NewFromChars("x");
        EXPECT_EQ(String_AppendChars(s, nullptr), -1);
        EXPECT_EQ(String_Length(nullptr), 0);
        EXPECT_EQ(String_Copy(nullptr), nullptr);
        EXPECT_EQ(String_Set(s, nullptr), 0);  // set, with no text: later checks report it
        String_Check(s);
        String_Destroy(s);
        const std::string log = test::ReadFile("vokt.log");
        EXPECT_TRUE(test::HasReport(log, "chars != NULL", "util"));
        EXPECT_TRUE(test::HasReport(log, "ps != NULL", "util"));
        EXPECT_TRUE(test::HasReport(log, "ps->string != NULL", "util"));
    }));
}

}  // namespace
