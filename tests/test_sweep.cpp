// SPDX-License-Identifier: MIT
// Every public operation that allocates, run with each of its allocations failing in
// turn: once (transient), and from that one on (persistent). Each run must give the
// success or the documented failure result, leak nothing, and leave its objects usable.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support.h"
#include "vokt/vokt.h"

namespace {

enum Outcome { kDone, kRefused, kWrong };

// The objects an operation works on, made before any allocation fails.
struct Fixture {
    String *s = String_NewFromChars("one two,three:four");
    String *a = String_New(), *b = String_New(), *probe = String_NewFromChars("probe");
    Vector *v = Vector_NewOwning(), *strings = Vector_NewOwning();
    ObjectSet *set = ObjectSet_New();
    StringMap *map = StringMap_New(), *other = StringMap_New(), *big = StringMap_New();
    StringBag *bag = StringBag_New();
    MemBlock *mem = MemBlock_New(16);
    CodeName *code = CodeName_FromName("abc");
    FILE *file = tmpfile();
    int fds[2] = {-1, -1};
    Stream *text = Stream_NewFromString("a \\\n b\nc"), *lines = nullptr, *handle = nullptr;

    Fixture() {
        for (const char *t : {"x", "y", "z"}) Vector_Add(strings, String_NewFromChars(t));
        for (int i = 0; i < 10; i++) Vector_Add(v, EventObject_New(i));  // full: the next add grows
        for (const char *k : {"k1", "k2", "k3", "k4"}) StringMap_Set(map, k, "value");
        for (int i = 0; i < 130; i++) StringMap_Set(big, std::to_string(i).c_str(), "v");
        fputs("first\nsecond\n", file);
        rewind(file);
        lines = Stream_NewFromFile(file);
        if (pipe(fds) == 0 && write(fds[1], "p\r\nq", 4) == 4) close(fds[1]);
        handle = Stream_NewFromHandle(fds[0]);
    }
    ~Fixture() {
        for (void *o : {(void *)s, (void *)a, (void *)b, (void *)probe, (void *)v, (void *)strings, (void *)set,
                        (void *)map, (void *)other, (void *)big, (void *)bag, (void *)mem, (void *)code, (void *)text, (void *)lines,
                        (void *)handle})
            Object_Destroy(o);
        fclose(file);
        close(fds[0]);
    }
    // After any run, with allocation working again, everything still works.
    void ExpectUsable(const char *name) {
        EXPECT_EQ(String_Set(s, "usable"), 0) << name;
        EXPECT_STREQ(s->string, "usable") << name;
        const int64_t length = Vector_Length(v);
        EXPECT_NE(Vector_Add(v, EventObject_New(99)), nullptr) << name;
        EXPECT_EQ(Vector_Length(v), length + 1) << name;
        EXPECT_EQ(ObjectSet_Add(set, probe, nullptr), 0) << name;
        EXPECT_EQ(ObjectSet_Find(set, probe), probe) << name;
        EXPECT_EQ(StringMap_Set(map, "usable", "yes"), 0) << name;
        EXPECT_STREQ(StringMap_Get(map, "usable"), "yes") << name;
        EXPECT_EQ(StringBag_Add(bag, "usable", 1), 0) << name;
        EXPECT_EQ(MemBlock_Resize(mem, 64), 0) << name;
    }
};

Outcome Code(int32_t r) { return r == 0 ? kDone : r == -2 ? kRefused : kWrong; }
// A stored error is a documented failure too; it is taken and freed here.
Outcome CodeOrError(int32_t r) {
    if (r == 0 || r == -2) return Code(r);
    if (!ErrorStore_IsError(r)) return kWrong;
    Error_Free(ErrorStore_Take(r));
    return kRefused;
}
// For operations whose success is an error reference.
Outcome WantedError(int32_t r) { return r == -2 ? kRefused : CodeOrError(r) == kRefused ? kDone : kWrong; }
Outcome Made(void *object) {
    Object_Destroy(object);
    return object ? kDone : kRefused;
}
Outcome Registered(Error *e) {
    const int32_t ref = ErrorStore_Register(e);
    if (ref == -2) Error_Free(e);
    return WantedError(ref);
}

using Op = Outcome (*)(Fixture &);
const std::pair<const char *, Op> kOperations[] = {
    {"String_New", [](Fixture &) { return Made(String_New()); }},
    {"String_NewFromChars", [](Fixture &) { return Made(String_NewFromChars("abc")); }},
    {"String_NewFormatted", [](Fixture &) { return Made(String_NewFormatted("%d-%s", 5, "x")); }},
    {"String_Copy", [](Fixture &f) { return Made(String_Copy(f.s)); }},
    {"String_Substring", [](Fixture &f) { return Made(String_Substring(f.s, 1, 5)); }},
    {"String_Set", [](Fixture &f) { return Code(String_Set(f.s, "hello world")); }},
    {"String_SetN", [](Fixture &f) { return Code(String_SetN(f.s, "hello", 3)); }},
    {"String_Format", [](Fixture &f) { return Code(String_Format(f.s, "%05d|%s", 42, "x")); }},
    {"String_AppendChars", [](Fixture &f) { return Code(String_AppendChars(f.s, "more")); }},
    {"String_AppendN", [](Fixture &f) { return Code(String_AppendN(f.s, "more", 2)); }},
    {"String_AppendChar", [](Fixture &f) { return Code(String_AppendChar(f.s, '!')); }},
    {"String_AppendFormatted", [](Fixture &f) { return Code(String_AppendFormatted(f.s, "%d", 7)); }},
    {"String_WrapEx", [](Fixture &f) { return Code(String_WrapEx(f.s, 4, 5, "> ")); }},
    {"String_Wrap", [](Fixture &f) { return Code(String_Wrap(f.s, 3)); }},
    {"String_SplitAt", [](Fixture &f) { return Code(String_SplitAt(f.s, ' ', f.a, f.b)); }},
    {"String_SplitCommas", [](Fixture &f) { return Code(String_SplitCommas(f.s, f.v)); }},
    {"String_SplitChars", [](Fixture &f) { return Code(String_SplitChars("a:b:c", ':', f.v)); }},
    {"String_Join", [](Fixture &f) { return Code(String_Join(f.strings, ", ", f.s)); }},
    {"String_Join aliased", [](Fixture &f) { return Code(String_Join(f.strings, f.s->string, f.s)); }},
    {"String_ResolvePath", [](Fixture &f) { return Code(String_ResolvePath(f.s, "b.txt", "dir")); }},
    {"String_ResolvePath aliased", [](Fixture &f) { return Code(String_ResolvePath(f.s, "b", f.s->string)); }},
    {"CleanupList_Add",
     [](Fixture &) {
         Vector *list = nullptr;
         String *x = String_New();
         const Outcome o = x && CleanupList_Add(&list, x) ? kDone : kRefused;
         Object_Destroy(list);
         return o;
     }},
    {"EventObject_New", [](Fixture &) { return Made(EventObject_New(1)); }},
    {"Object_New", [](Fixture &) {
         static const ClassDescriptor kOwn = {sizeof(EventObject), "Own", Object_Free, nullptr, nullptr, nullptr};
         return Made(Object_New(&kOwn));
     }},
    {"MemBlock_New",
     [](Fixture &) {
         MemBlock *m = MemBlock_New(32);
         const Outcome o = m && m->data ? kDone : kRefused;  // a block without data is documented
         Object_Destroy(m);
         return o;
     }},
    {"MemBlock_Resize", [](Fixture &f) { return CodeOrError(MemBlock_Resize(f.mem, 4096)); }},
    {"Vector_New", [](Fixture &) { return Made(Vector_New()); }},
    {"Vector_NewOwning", [](Fixture &) { return Made(Vector_NewOwning()); }},
    {"Vector_SetSynchronized",  // refused, the vector stays unsynchronised
     [](Fixture &f) {
         const Outcome o = Code(Vector_SetSynchronized(f.v, 1));
         return o == kRefused && f.v->bSynchronized ? kWrong : o;
     }},
    {"Vector_Add",
     [](Fixture &f) {
         EventObject *e = EventObject_New(5);
         if (e && Vector_Add(f.v, e)) return kDone;
         Object_Destroy(e);
         return kRefused;
     }},
    {"Vector_AddAll",
     [](Fixture &f) {
         Vector *copy = Vector_New();
         const Outcome o = copy ? Code(Vector_AddAll(copy, f.strings)) : kRefused;
         Object_Destroy(copy);
         return o;
     }},
    {"ObjectSet_New", [](Fixture &) { return Made(ObjectSet_New()); }},
    {"ObjectSet_AddVector", [](Fixture &f) { return Code(ObjectSet_AddVector(f.set, f.strings)); }},
    {"ObjectSet_Add rehash",
     [](Fixture &f) {
         Outcome o = kDone;
         for (int i = 0; i < 3 && o == kDone; i++) o = Code(ObjectSet_Add(f.set, Vector_GetAt(f.strings, i), nullptr));
         return o;
     }},
    {"ObjectSet_ToVector",
     [](Fixture &f) {
         Vector *copy = Vector_New();
         for (int i = 0; i < 10 && copy; i++) Vector_Add(copy, nullptr);  // full: the copy grows
         const Outcome o = copy ? Code(ObjectSet_AddVector(f.set, f.strings)) : kRefused;
         const Outcome p = copy && o == kDone ? Code(ObjectSet_ToVector(f.set, copy)) : kRefused;
         Object_Destroy(copy);
         return p;
     }},
    {"StringMap_New", [](Fixture &) { return Made(StringMap_New()); }},
    // A refused change leaves the map as it was.
    {"StringMap_Set",
     [](Fixture &f) {
         const Outcome o = Code(StringMap_Set(f.map, "k5", "grows"));
         return o == kRefused && (f.map->count != 4 || StringMap_Get(f.map, "k5")) ? kWrong : o;
     }},
    {"StringMap_Set replace",
     [](Fixture &f) {
         const Outcome o = Code(StringMap_Set(f.map, "k1", "other"));
         return o == kRefused && strcmp(StringMap_Get(f.map, "k1"), "value") != 0 ? kWrong : o;
     }},
    {"StringMap_Assign", [](Fixture &f) {
         const Outcome o = Code(StringMap_Assign(f.other, f.map));
         for (int32_t i = 0; i < f.other->count; i++)
             if (strcmp(StringMap_KeyAt(f.other, i), StringMap_KeyAt(f.map, i)) != 0) return kWrong;
         return o;
     }},
    {"StringMap_Clear shrink",
     [](Fixture &f) {
         StringMap_Clear(f.big);  // a failed shrink keeps the larger array
         return StringMap_Length(f.big) == 0 ? kDone : kWrong;
     }},
    {"StringBag_New", [](Fixture &) { return Made(StringBag_New()); }},
    {"StringBag_Add", [](Fixture &f) { return Code(StringBag_Add(f.bag, "word", 2)); }},
    {"StringBagElem_New", [](Fixture &) { return Made(StringBagElem_New("word", 1)); }},
    {"CodeName_New", [](Fixture &) { return Made(CodeName_New()); }},
    {"CodeName_Copy", [](Fixture &f) { return Made(CodeName_Copy(f.code)); }},
    {"CodeName_FromName", [](Fixture &) { return Made(CodeName_FromName("name")); }},
    {"CodeName_FromWords", [](Fixture &f) { return Made(CodeName_FromWords(f.code->words)); }},
    {"CodeName_ToName", [](Fixture &f) { return CodeOrError(CodeName_ToName(f.code, f.s)); }},
    {"CodeName_SetBlock outside", [](Fixture &f) { return WantedError(CodeName_SetBlock(f.code->words, 11, 1)); }},
    {"Stream_NewFromString", [](Fixture &) { return Made(Stream_NewFromString("a\nb")); }},
    {"Stream_NewFromFile", [](Fixture &f) { return Made(Stream_NewFromFile(f.file)); }},
    {"Stream_NewFromHandle", [](Fixture &f) { return Made(Stream_NewFromHandle(f.fds[0])); }},
    {"Stream_ReadLine string", [](Fixture &f) { return Code(Stream_ReadLine(f.text, f.a)); }},
    {"Stream_ReadLine file", [](Fixture &f) { return Code(Stream_ReadLine(f.lines, f.a)); }},
    {"Stream_ReadLine handle", [](Fixture &f) { return Code(Stream_ReadLine(f.handle, f.a)); }},
    {"Stream_GetLastLine",
     [](Fixture &f) { return Code(Stream_ReadLine(f.lines, f.a)) == kDone ? Code(Stream_GetLastLine(f.lines, f.b)) : kRefused; }},
    {"Stream_ReadLogicalLine", [](Fixture &f) { return Code(Stream_ReadLogicalLine(f.text, f.a)); }},
    {"Socket_New", [](Fixture &) { return Made(Socket_New(AF_UNIX, SOCK_STREAM, 0)); }},
    {"StreamHandle_New", [](Fixture &) { return Made(StreamHandle_New(-1)); }},
    {"FileHandle_New", [](Fixture &) { return Made(FileHandle_New("handle.txt", "w")); }},
    {"Date_Format", [](Fixture &f) { return CodeOrError(Date_Format(f.s, 1704456000)); }},
    {"Date_FormatNow", [](Fixture &f) { return CodeOrError(Date_FormatNow(f.s)); }},
    {"Month_ToName", [](Fixture &f) { return Code(Month_ToName(3, f.s)); }},
    {"Month_ToName unknown", [](Fixture &f) { return WantedError(Month_ToName(13, f.s)); }},
    {"Month_FromName unknown", [](Fixture &) { return WantedError(Month_FromName("Jan")); }},
    {"Log_Write", [](Fixture &) { return Code(Log_Write(0, "line %d", 1)); }},
    {"Log_Debug", [](Fixture &) { return Log_Debug("trace %d", 1) == 0 ? kDone : kWrong; }},
    {"Log_SetFile",
     [](Fixture &) {
         const Outcome o = CodeOrError(Log_SetFile("other.log"));
         Log_SetFile(nullptr);
         return o;
     }},
    {"Error_NewFriendly", [](Fixture &) { return Made(Error_NewFriendly(5, "friendly %d", 5)); }},
    {"Error_NewInternal", [](Fixture &) { return Made(Error_NewInternal("internal")); }},
    {"Error_NewNetwork", [](Fixture &) { return Made(Error_NewNetwork(111, "connect")); }},
    {"ErrorStore_Register", [](Fixture &) { return Registered(Error_NewInternal("stored")); }},
};

// One run of op with allocations failing as `fail` sets up; true when a failure was
// injected.
bool RunOnce(const char *name, Op op, const std::function<void()> &fail) {
    bool injected = false;
    const long live = test::LiveBlocks();
    {
        Fixture f;
        fail();
        const Outcome o = op(f);
        injected = test::InjectedFailures() > 0;
        test::FailAllocation(0);
        EXPECT_NE(o, kWrong) << name;
        if (!injected) {
            EXPECT_EQ(o, kDone) << name;
        }
        f.ExpectUsable(name);
    }
    EXPECT_EQ(test::LiveBlocks(), live) << name << ": leaked";
    return injected;
}

TEST(Sweep, EveryAllocationOfEveryOperationMayFail) {
    EXPECT_EQ(0, test::InChild([] {
        Runtime_Init();
        test::ChecksOff heldBack(VOKT_CHECK_LEAKS | VOKT_CHECK_LOCKS);  // blocks are counted as they go back
        testing::internal::CaptureStderr();
        for (const auto &[name, op] : kOperations) {
            for (bool persistent : {false, true}) {
                long n = 1;
                while (n < 200 && RunOnce(name, op, [&] { persistent ? test::FailFrom(n) : test::FailAllocation(n); })) n++;
                EXPECT_LT(n, 200) << name;
                EXPECT_GT(n, 1) << name << ": made no allocation, so no failure was tried";
            }
        }
        // An Error whose message could not be made says so, with the format it had.
        const std::string stderrText = testing::internal::GetCapturedStderr();
        EXPECT_GT(test::Count(stderrText, "Unable to generate VOKT error description 'friendly %d'\n"), 0);
        // Each failed constructor said which record it could not make.
        const std::string log = test::ReadFile("vokt.log");
        for (const char *made : {"CodeName codename", "Error error", "EventObject rval", "FileHandle s", "MemBlock mem",
                                 "ObjectSet oset", "ObjectVector vec", "Socket s", "Stream stream", "StreamHandle s",
                                 "String ps", "StringBag sb", "StringBagElem sbe", "StringMap map"})
            EXPECT_GT(test::Count(log, ": Unable to allocate " + std::string(made) + "\n"), 0) << made;
        for (const char *text : {": Failed to allocate entry structure\n", ": Failed to allocate block of 32 bytes\n",
                                 ": Failed to re-allocate block of 4096 bytes\n"})
            EXPECT_GT(test::Count(log, text), 0) << text;
    }));
}

}  // namespace
