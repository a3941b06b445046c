// SPDX-License-Identifier: MIT
// A caller's mistake (a null object, a destroyed one, an index outside a vector, a bad
// reference) is reported and survived: every public operation, called wrongly, gives its
// failure value.
#include <gtest/gtest.h>

#include <string.h>

#include "support.h"
#include "vokt/vokt.h"

namespace {

void *Nothing(void *) { return nullptr; }

// One object of each class, all of them null or all destroyed, and two live ones beside them.
struct Bad {
    String *s;
    Vector *v;
    ObjectSet *set;
    StringMap *map;
    StringBag *bag;
    Stream *stream;
    MemBlock *mem;
    CodeName *code;
    EventObject *event;
    String *live;
    Vector *list;
};

// After a call that returns nothing: not a tail call, so that with the objects check on each
// operation is a call site of its own.
#define KEEP asm volatile("" ::: "memory")

// Every operation on an object, and what it gives for a bad one.
using OnBad = void (*)(const Bad &);
const std::pair<const char *, OnBad> kOnBad[] = {
    {"String_IsSet", [](const Bad &b) { EXPECT_EQ(String_IsSet(b.s), 0); }},
    {"String_Length", [](const Bad &b) { EXPECT_EQ(String_Length(b.s), 0); }},
    {"String_Hash", [](const Bad &b) { EXPECT_EQ(String_Hash(b.s), 0); }},
    {"String_Equals", [](const Bad &b) { EXPECT_EQ(String_Equals(b.live, b.s), 0); }},
    {"String_EqualsIgnoreCase", [](const Bad &b) { EXPECT_EQ(String_EqualsIgnoreCase(b.live, b.s), 0); }},
    {"String_StartsWith", [](const Bad &b) { EXPECT_EQ(String_StartsWith(b.s, "a"), 0); }},
    {"String_EndsWith", [](const Bad &b) { EXPECT_EQ(String_EndsWith(b.s, "a"), 0); }},
    {"String_Find", [](const Bad &b) { EXPECT_EQ(String_Find(b.s, "a", 0), -1); }},
    {"String_FindLast", [](const Bad &b) { EXPECT_EQ(String_FindLast(b.s, "a"), -1); }},
    {"String_Copy", [](const Bad &b) { EXPECT_EQ(String_Copy(b.s), nullptr); }},
    {"String_Substring", [](const Bad &b) { EXPECT_EQ(String_Substring(b.s, 0, 1), nullptr); }},
    {"String_Set", [](const Bad &b) { EXPECT_EQ(String_Set(b.s, "a"), -1); }},
    {"String_SetN", [](const Bad &b) { EXPECT_EQ(String_SetN(b.s, "a", 1), -1); }},
    {"String_Format", [](const Bad &b) { EXPECT_EQ(String_Format(b.s, "a"), -1); }},
    {"String_AppendChars", [](const Bad &b) { EXPECT_EQ(String_AppendChars(b.s, "a"), -1); }},
    {"String_AppendN", [](const Bad &b) { EXPECT_EQ(String_AppendN(b.s, "a", 1), -1); }},
    {"String_AppendChar", [](const Bad &b) { EXPECT_EQ(String_AppendChar(b.s, 'a'), -1); }},
    {"String_AppendFormatted", [](const Bad &b) { EXPECT_EQ(String_AppendFormatted(b.s, "a"), -1); }},
    {"String_Wrap", [](const Bad &b) { EXPECT_EQ(String_Wrap(b.s, 3), -1); }},
    {"String_SplitAt", [](const Bad &b) { EXPECT_EQ(String_SplitAt(b.s, ',', b.live, b.live), -1); }},
    {"String_SplitCommas", [](const Bad &b) { EXPECT_EQ(String_SplitCommas(b.s, b.list), 0); }},
    {"String_SplitChars", [](const Bad &b) { EXPECT_EQ(String_SplitChars("a,b", ',', b.v), -1); }},
    {"String_Join", [](const Bad &b) { EXPECT_EQ(String_Join(b.v, ",", b.live), -1); }},
    {"String_ResolvePath", [](const Bad &b) { EXPECT_EQ(String_ResolvePath(b.s, "x", "/"), -1); }},
    {"String_ToLower", [](const Bad &b) { String_ToLower(b.s); KEEP; }},
    {"String_Trim", [](const Bad &b) { String_Trim(b.s); KEEP; }},
    {"String_CollapseWhitespace", [](const Bad &b) { String_CollapseWhitespace(b.s); KEEP; }},
    {"String_ChompNewlines", [](const Bad &b) { String_ChompNewlines(b.s); KEEP; }},
    {"String_Reset", [](const Bad &b) { String_Reset(b.s); KEEP; }},
    {"String_Clear", [](const Bad &b) { String_Clear(b.s); KEEP; }},
    {"String_Truncate", [](const Bad &b) { String_Truncate(b.s, 1); KEEP; }},
    {"String_Delete", [](const Bad &b) { String_Delete(b.s, 0, 1); KEEP; }},
    {"String_Check", [](const Bad &b) { String_Check(b.s); KEEP; }},
    {"String_Destroy", [](const Bad &b) { String_Destroy(b.s); KEEP; }},
    {"Vector_SetSynchronized", [](const Bad &b) { EXPECT_EQ(Vector_SetSynchronized(b.v, 1), -1); }},
    {"Vector_Lock", [](const Bad &b) { Vector_Lock(b.v); KEEP; }},
    {"Vector_Unlock", [](const Bad &b) { Vector_Unlock(b.v); KEEP; }},
    {"Vector_Length", [](const Bad &b) { EXPECT_EQ(Vector_Length(b.v), 0); }},
    {"Vector_GetAt", [](const Bad &b) { EXPECT_EQ(Vector_GetAt(b.v, 0), nullptr); }},
    {"Vector_SetAt", [](const Bad &b) { Vector_SetAt(b.v, 0, b.live); KEEP; }},
    {"Vector_Add", [](const Bad &b) { EXPECT_EQ(Vector_Add(b.v, b.live), nullptr); }},
    {"Vector_AddAll", [](const Bad &b) { EXPECT_EQ(Vector_AddAll(b.list, b.v), -1); }},
    {"Vector_RemoveAt", [](const Bad &b) { EXPECT_EQ(Vector_RemoveAt(b.v, 0), nullptr); }},
    {"Vector_Remove", [](const Bad &b) { EXPECT_EQ(Vector_Remove(b.v, b.live), nullptr); }},
    {"Vector_RemoveIdentical", [](const Bad &b) { EXPECT_EQ(Vector_RemoveIdentical(b.v, b.live), nullptr); }},
    {"Vector_Contains", [](const Bad &b) { EXPECT_EQ(Vector_Contains(b.v, b.live), 0); }},
    {"Vector_Contains, a bad probe", [](const Bad &b) { EXPECT_EQ(Vector_Contains(b.list, b.s), 0); }},  // its Equals
    {"Vector_Sort", [](const Bad &b) { Vector_Sort(b.v); KEEP; }},
    {"Vector_Clear", [](const Bad &b) { Vector_Clear(b.v); KEEP; }},
    {"Vector_SetOwnsElements", [](const Bad &b) { Vector_SetOwnsElements(b.v, 1); KEEP; }},
    {"Vector_Free", [](const Bad &b) { Vector_Free(b.v); KEEP; }},
    {"ObjectSet_Add", [](const Bad &b) { EXPECT_EQ(ObjectSet_Add(b.set, b.live, nullptr), -1); }},
    {"ObjectSet_Find", [](const Bad &b) { EXPECT_EQ(ObjectSet_Find(b.set, b.live), nullptr); }},
    {"ObjectSet_Remove", [](const Bad &b) { EXPECT_EQ(ObjectSet_Remove(b.set, b.live), nullptr); }},
    {"ObjectSet_RemoveAny", [](const Bad &b) { EXPECT_EQ(ObjectSet_RemoveAny(b.set), nullptr); }},
    {"ObjectSet_AddVector", [](const Bad &b) { EXPECT_EQ(ObjectSet_AddVector(b.set, b.list), -1); }},
    {"ObjectSet_ToVector", [](const Bad &b) { EXPECT_EQ(ObjectSet_ToVector(b.set, b.list), -1); }},
    {"ObjectSet_Clear", [](const Bad &b) { ObjectSet_Clear(b.set); KEEP; }},
    {"ObjectSet_Free", [](const Bad &b) { ObjectSet_Free(b.set); KEEP; }},
    {"StringMap_Set", [](const Bad &b) { EXPECT_EQ(StringMap_Set(b.map, "k", "v"), -1); }},
    {"StringMap_Get", [](const Bad &b) { EXPECT_EQ(StringMap_Get(b.map, "k"), nullptr); }},
    {"StringMap_KeyAt", [](const Bad &b) { EXPECT_EQ(StringMap_KeyAt(b.map, 0), nullptr); }},
    {"StringMap_ValueAt", [](const Bad &b) { EXPECT_EQ(StringMap_ValueAt(b.map, 0), nullptr); }},
    {"StringMap_Length", [](const Bad &b) { EXPECT_EQ(StringMap_Length(b.map), 0); }},
    {"StringMap_Assign", [](const Bad &b) { EXPECT_EQ(StringMap_Assign(b.map, b.map), -1); }},
    {"StringMap_Clear", [](const Bad &b) { StringMap_Clear(b.map); KEEP; }},
    {"StringMap_Free", [](const Bad &b) { StringMap_Free(b.map); KEEP; }},
    {"StringBag_Add", [](const Bad &b) { EXPECT_EQ(StringBag_Add(b.bag, "x", 1), -1); }},
    {"StringBag_Length", [](const Bad &b) { EXPECT_EQ(StringBag_Length(b.bag), 0); }},
    {"StringBag_Sort", [](const Bad &b) { StringBag_Sort(b.bag); KEEP; }},
    {"StringBag_Free", [](const Bad &b) { StringBag_Free(b.bag); KEEP; }},
    {"Stream_IsEOF", [](const Bad &b) { EXPECT_EQ(Stream_IsEOF(b.stream), 1); }},
    {"Stream_ReadLine", [](const Bad &b) { EXPECT_EQ(Stream_ReadLine(b.stream, b.live), -1); }},
    {"Stream_GetLastLine", [](const Bad &b) { EXPECT_EQ(Stream_GetLastLine(b.stream, b.live), -1); }},
    {"Stream_ReadLogicalLine", [](const Bad &b) { EXPECT_EQ(Stream_ReadLogicalLine(b.stream, b.live), -1); }},
    {"Stream_Check", [](const Bad &b) { Stream_Check(b.stream); KEEP; }},
    {"Stream_Destroy", [](const Bad &b) { Stream_Destroy(b.stream); KEEP; }},
    {"MemBlock_Resize", [](const Bad &b) { EXPECT_EQ(MemBlock_Resize(b.mem, 8192), -1); }},
    {"MemBlock_Free", [](const Bad &b) { MemBlock_Free(b.mem); KEEP; }},
    {"CodeName_Copy", [](const Bad &b) { EXPECT_EQ(CodeName_Copy(b.code), nullptr); }},
    {"CodeName_Value", [](const Bad &b) { EXPECT_EQ(CodeName_Value(b.code), 0u); }},
    {"CodeName_ToName", [](const Bad &b) { EXPECT_EQ(CodeName_ToName(b.code, b.live), -1); }},
    {"EventObject_Equals", [](const Bad &b) { EXPECT_EQ(EventObject_Equals(b.event, b.event), 0); }},
    {"Object_Destroy", [](const Bad &b) { Object_Destroy(b.event); KEEP; }},
};

using Calls = void (*)();
const std::pair<const char *, Calls> kMistakes[] = {
    {"Vector outside its elements", [] {
         Vector *v = Vector_New();
         Vector_Add(v, nullptr);
         Vector_SetAt(v, 5, v);
         Vector_SetAt(v, -1, v);
         EXPECT_EQ(Vector_GetAt(v, 1), nullptr);
         EXPECT_EQ(Vector_GetAt(v, -1), nullptr);
         EXPECT_EQ(Vector_RemoveAt(v, 3), nullptr);
         EXPECT_EQ(Vector_Contains(v, nullptr), 0);
         EXPECT_EQ(Vector_Remove(v, nullptr), nullptr);
         Vector_Sort(v);  // a null first element has no Compare
         Vector_Free(v);
     }},
    {"ObjectSet", [] {
         ObjectSet *set = ObjectSet_New();
         EXPECT_EQ(ObjectSet_Add(set, nullptr, nullptr), -1);  // a null object
         EXPECT_EQ(ObjectSet_Find(set, nullptr), nullptr);
         EXPECT_EQ(ObjectSet_Remove(set, nullptr), nullptr);
         EventObject *unhashable = EventObject_New(1);  // its class has no Hash
         EXPECT_EQ(ObjectSet_Add(set, unhashable, nullptr), -1);
         EXPECT_EQ(ObjectSet_Find(set, unhashable), nullptr);
         EXPECT_EQ(ObjectSet_Remove(set, unhashable), nullptr);
         Object_Destroy(unhashable);
         ObjectSet_Free(set);
     }},
    {"StringBag", [] {
         StringBag *bag = StringBag_New();
         EXPECT_EQ(StringBag_Add(bag, nullptr, 1), -1);
         EXPECT_EQ(StringBagElem_New(nullptr, 1), nullptr);
         StringBag_Free(bag);
     }},
    {"StringMap", [] {
         StringMap *map = StringMap_New();
         EXPECT_EQ(StringMap_Set(map, nullptr, "v"), -1);
         EXPECT_EQ(StringMap_Get(map, nullptr), nullptr);
         EXPECT_EQ(StringMap_KeyAt(map, 0), nullptr);
         EXPECT_EQ(StringMap_Assign(map, map), 0);
         StringMap_Free(map);
     }},
    {"CodeName", [] {
         EXPECT_EQ(CodeName_FromWords(nullptr), nullptr);
         EXPECT_EQ(CodeName_SetBlock(nullptr, 0, 1), -1);
     }},
    {"String queries and changes", [] {
         EXPECT_EQ(String_Equals(nullptr, nullptr), 0);
         EXPECT_EQ(String_NewFormatted(nullptr), nullptr);
         EXPECT_EQ(String_SplitChars(nullptr, ',', nullptr), -1);
         EXPECT_EQ(String_Join(nullptr, ",", nullptr), -1);
         EXPECT_EQ(CleanupList_Add(nullptr, nullptr), nullptr);
     }},
    {"String bad texts", [] {
         String *s = String_NewFromChars("abc");
         EXPECT_EQ(String_SetN(s, nullptr, 1), -1);
         EXPECT_EQ(String_AppendN(s, nullptr, 1), -1);
         EXPECT_EQ(String_AppendChars(s, nullptr), -1);
         EXPECT_EQ(String_Format(s, nullptr), -1);
         EXPECT_EQ(String_StartsWith(s, nullptr), 0);
         EXPECT_EQ(String_Find(s, nullptr, 0), -1);
         EXPECT_EQ(String_ResolvePath(s, "x", nullptr), -1);
         EXPECT_EQ(String_SplitCommas(s, nullptr), -1);
         EXPECT_EQ(String_SplitChars("a", ',', nullptr), -1);
         EXPECT_EQ(CleanupList_Add(nullptr, String_New()), nullptr);
         EXPECT_EQ(String_Set(s, nullptr), 0);
         String_Check(s);  // set, without a text: reported
         String_Destroy(s);
     }},
    {"Strings whose invariant is broken", [] {
         // Set without a text, and unset with one: every operation reports and survives.
         String *noText = String_New(), *stray = String_NewFromChars("stray"), *fine = String_NewFromChars("a b");
         noText->bIsSet = 1;
         stray->bIsSet = 0;
         String *pair[] = {noText, stray};
         EXPECT_EQ(String_Equals(noText, fine), 0);
         EXPECT_EQ(String_Equals(stray, fine), 0);
         EXPECT_EQ(String_EqualsIgnoreCase(fine, stray), 0);
         EXPECT_EQ(String_Hash(noText), 0);
         EXPECT_EQ(String_Hash(stray), 0);
         EXPECT_EQ(String_Length(noText), 0);
         EXPECT_LT(String_Compare(&pair[0], &pair[1]), 0);
         EXPECT_EQ(String_StartsWith(noText, "a"), 0);
         EXPECT_EQ(String_Find(noText, "a", 0), -1);
         EXPECT_EQ(String_WrapEx(noText, 3, 3, nullptr), 0);
         EXPECT_EQ(String_SplitAt(noText, ' ', fine, fine), 1);
         for (auto edit : {String_ToLower, String_Trim, String_CollapseWhitespace, String_ChompNewlines})
             edit(noText);
         FILE *file = tmpfile();
         fputs("line\n", file);
         rewind(file);
         Stream *lines = Stream_NewFromFile(file);
         EXPECT_EQ(Stream_ReadLine(lines, noText), 0);
         EXPECT_STREQ(noText->string, "line");
         Stream_Destroy(lines);
         fclose(file);
         stray->bIsSet = 1;
         for (String *s : {noText, stray, fine}) String_Destroy(s);
     }},
    {"File and Stream", [] {
         EXPECT_EQ(File_Exists(nullptr), 0);
         EXPECT_EQ(File_IsDirectory(nullptr), 0);
         EXPECT_EQ(File_IsDirectory("/"), 1);
         Stream *bad = Stream_NewFromHandle(0);  // descriptor 0 is reported at every check
         EXPECT_EQ(Stream_IsEOF(bad), 0);
         Stream_Destroy(bad);
     }},
    {"Handles", [] {
         Socket_Destroy(nullptr);
         StreamHandle_Destroy(nullptr);
         FileHandle_Destroy(nullptr);
         FileHandle *none = FileHandle_New(nullptr, "r");
         EXPECT_EQ(none->fp, nullptr);
         FileHandle_Destroy(none);
     }},
    {"Objects", [] {
         Memory_GetFunctions(nullptr);
     }},
    {"Errors", [] {
         ErrorStore_Check(0x40000007);
         Error_Trace(0x40000007, nullptr, 1);
         Error_Free(nullptr);
         EXPECT_EQ(ErrorStore_Get(0x40000007), nullptr);
         EXPECT_EQ(ErrorStore_Take(0x40000009), nullptr);
         EXPECT_EQ(ErrorStore_IsError(0x7fffffff), 0);
         EXPECT_EQ(Error_NewInternal(nullptr), nullptr);
         NetError_Describe(111, nullptr, 0, nullptr, 0, nullptr);
     }},
    {"Dates", [] {
         const int32_t ref = Month_FromName(nullptr);
         EXPECT_EQ(ErrorStore_IsError(ref), 1);
         Error_Free(ErrorStore_Take(ref));
         EXPECT_EQ(Month_ToName(1, nullptr), -1);
         EXPECT_EQ(Date_Format(nullptr, 0), -1);
     }},
    {"Sync", [] {
         for (auto f : {Mutex_Init, Mutex_Lock, Mutex_Unlock}) f(nullptr);
         for (auto f : {Condition_Init, Condition_Destroy, Condition_Signal}) f(nullptr);
         for (auto f : {Event_Init, Event_Destroy}) f(nullptr);
         for (auto f : {Counter_Init, Counter_Destroy, Counter_Increment, Counter_Decrement}) f(nullptr);
         Event_SetState(nullptr, 1);
         Thread_Create(nullptr, Nothing, nullptr);
         Thread_CreateJoinable(nullptr, Nothing, nullptr);
         EXPECT_EQ(Condition_Wait(nullptr), 0);
         EXPECT_EQ(Condition_TimedWait(nullptr, 1), 0);
         EXPECT_EQ(Event_Wait(nullptr), 0);
         EXPECT_EQ(Event_TimedWait(nullptr, 1), 0);
         EXPECT_EQ(Counter_GetValue(nullptr), 0);
     }},
};

TEST(Misuse, EveryOperationSurvivesItsCallersMistakes) {
    EXPECT_EQ(0, test::InChild([] {
        testing::internal::CaptureStderr();
        const Bad none{nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                       String_NewFromChars("live"), Vector_New()};
        Vector_Add(none.list, none.live);
        for (const auto &[name, op] : kOnBad) {
            SCOPED_TRACE(name);
            op(none);
        }
        String_Destroy(none.live);
        Vector_Free(none.list);
        for (const auto &[name, calls] : kMistakes) {
            SCOPED_TRACE(name);
            calls();
        }
        testing::internal::GetCapturedStderr();
        EXPECT_TRUE(test::HasReport(test::ReadFile("vokt.log"), "v != NULL", "vector"));
    }));
}

// Every operation on a destroyed object reports it, and touches nothing.
TEST(Misuse, EveryOperationOnADestroyedObjectIsReported) {
    EXPECT_EQ(0, test::InChild([] {
        Runtime_SetChecks(VOKT_CHECK_OBJECTS);
        const Bad gone{String_NewFromChars("x y"), Vector_New(), ObjectSet_New(), StringMap_New(), StringBag_New(),
                       Stream_NewFromString("a\nb"), MemBlock_New(8), CodeName_FromName("abc"), EventObject_New(1),
                       String_NewFromChars("live"), Vector_New()};
        Vector_Add(gone.list, gone.live);
        String_Destroy(gone.s);
        Vector_Free(gone.v);
        ObjectSet_Free(gone.set);
        StringMap_Free(gone.map);
        StringBag_Free(gone.bag);
        Stream_Destroy(gone.stream);
        MemBlock_Free(gone.mem);
        for (void *o : {static_cast<void *>(gone.code), static_cast<void *>(gone.event)}) Object_Destroy(o);
        for (const auto &entry : kOnBad)  // (a structured binding cannot be captured by clang 14)
            EXPECT_NE(test::Stderr([&] { entry.second(gone); }).find(" after it was destroyed "), std::string::npos) << entry.first;
        EXPECT_STREQ(gone.live->string, "live");
        EXPECT_EQ(Vector_Length(gone.list), 1);
        String_Destroy(gone.live);
        Vector_Free(gone.list);
        Runtime_SetChecks(0);
    }));
}

}  // namespace
