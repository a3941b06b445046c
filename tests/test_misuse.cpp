// SPDX-License-Identifier: MIT
// A caller's mistake (a null object, an index outside a vector, a bad reference) is
// reported and survived: every public operation, called wrongly, gives its failure value.
#include <gtest/gtest.h>

#include <string.h>

#include "support.h"
#include "vokt/vokt.h"

namespace {

void *Nothing(void *) { return nullptr; }

using Calls = void (*)();
const std::pair<const char *, Calls> kMistakes[] = {
    {"Vector", [] {
         EXPECT_EQ(Vector_SetSynchronized(nullptr, 1), -1);
         Vector_Lock(nullptr);
         Vector_Unlock(nullptr);
         EXPECT_EQ(Vector_Length(nullptr), 0);
         EXPECT_EQ(Vector_GetAt(nullptr, 0), nullptr);
         Vector_SetAt(nullptr, 0, nullptr);
         EXPECT_EQ(Vector_Add(nullptr, nullptr), nullptr);
         EXPECT_EQ(Vector_AddAll(nullptr, nullptr), -1);
         EXPECT_EQ(Vector_RemoveAt(nullptr, 0), nullptr);
         EXPECT_EQ(Vector_Remove(nullptr, nullptr), nullptr);
         EXPECT_EQ(Vector_RemoveIdentical(nullptr, nullptr), nullptr);
         EXPECT_EQ(Vector_Contains(nullptr, nullptr), 0);
         Vector_Sort(nullptr);
         Vector_Clear(nullptr);
         Vector_SetOwnsElements(nullptr, 1);
         Vector_Free(nullptr);
     }},
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
         EXPECT_EQ(ObjectSet_Add(nullptr, nullptr, nullptr), -1);
         EXPECT_EQ(ObjectSet_Find(nullptr, nullptr), nullptr);
         EXPECT_EQ(ObjectSet_Remove(nullptr, nullptr), nullptr);
         EXPECT_EQ(ObjectSet_RemoveAny(nullptr), nullptr);
         EXPECT_EQ(ObjectSet_AddVector(nullptr, nullptr), -1);
         EXPECT_EQ(ObjectSet_ToVector(nullptr, nullptr), -1);
         EXPECT_EQ(ObjectSet_Add(set, nullptr, nullptr), -1);  // a null object
         EXPECT_EQ(ObjectSet_Find(set, nullptr), nullptr);
         EXPECT_EQ(ObjectSet_Remove(set, nullptr), nullptr);
         EventObject *unhashable = EventObject_New(1);  // its class has no Hash
         EXPECT_EQ(ObjectSet_Add(set, unhashable, nullptr), -1);
         EXPECT_EQ(ObjectSet_Find(set, unhashable), nullptr);
         EXPECT_EQ(ObjectSet_Remove(set, unhashable), nullptr);
         Object_Destroy(unhashable);
         ObjectSet_Clear(nullptr);
         ObjectSet_Free(nullptr);
         ObjectSet_Free(set);
     }},
    {"StringBag", [] {
         StringBag *bag = StringBag_New();
         EXPECT_EQ(StringBag_Add(nullptr, "x", 1), -1);
         EXPECT_EQ(StringBag_Add(bag, nullptr, 1), -1);
         EXPECT_EQ(StringBag_Length(nullptr), 0);
         EXPECT_EQ(StringBagElem_New(nullptr, 1), nullptr);
         StringBag_Sort(nullptr);
         StringBag_Free(nullptr);
         StringBag_Free(bag);
     }},
    {"StringMap", [] {
         StringMap *map = StringMap_New();
         EXPECT_EQ(StringMap_Set(nullptr, "k", "v"), -1);
         EXPECT_EQ(StringMap_Set(map, nullptr, "v"), -1);
         EXPECT_EQ(StringMap_Get(nullptr, "k"), nullptr);
         EXPECT_EQ(StringMap_Get(map, nullptr), nullptr);
         EXPECT_EQ(StringMap_KeyAt(map, 0), nullptr);
         EXPECT_EQ(StringMap_ValueAt(nullptr, 0), nullptr);
         EXPECT_EQ(StringMap_Length(nullptr), 0);
         EXPECT_EQ(StringMap_Assign(nullptr, map), -1);
         EXPECT_EQ(StringMap_Assign(map, map), 0);
         StringMap_Clear(nullptr);
         StringMap_Free(nullptr);
         StringMap_Free(map);
     }},
    {"CodeName", [] {
         EXPECT_EQ(CodeName_Copy(nullptr), nullptr);
         EXPECT_EQ(CodeName_FromWords(nullptr), nullptr);
         EXPECT_EQ(CodeName_Value(nullptr), 0);
         EXPECT_EQ(CodeName_ToName(nullptr, nullptr), -1);
         EXPECT_EQ(CodeName_SetBlock(nullptr, 0, 1), -1);
     }},
    {"String queries", [] {
         EXPECT_EQ(String_IsSet(nullptr), 0);
         EXPECT_EQ(String_Length(nullptr), 0);
         EXPECT_EQ(String_Hash(nullptr), 0);
         EXPECT_EQ(String_Equals(nullptr, nullptr), 0);
         EXPECT_EQ(String_EqualsIgnoreCase(nullptr, nullptr), 0);
         EXPECT_EQ(String_StartsWith(nullptr, "a"), 0);
         EXPECT_EQ(String_EndsWith(nullptr, "a"), 0);
         EXPECT_EQ(String_Find(nullptr, "a", 0), -1);
         EXPECT_EQ(String_FindLast(nullptr, "a"), -1);
         EXPECT_EQ(String_Copy(nullptr), nullptr);
         EXPECT_EQ(String_Substring(nullptr, 0, 1), nullptr);
         EXPECT_EQ(String_NewFormatted(nullptr), nullptr);
     }},
    {"String changes", [] {
         EXPECT_EQ(String_Set(nullptr, "a"), -1);
         EXPECT_EQ(String_SetN(nullptr, "a", 1), -1);
         EXPECT_EQ(String_Format(nullptr, "a"), -1);
         EXPECT_EQ(String_AppendChars(nullptr, "a"), -1);
         EXPECT_EQ(String_AppendN(nullptr, "a", 1), -1);
         EXPECT_EQ(String_AppendChar(nullptr, 'a'), -1);
         EXPECT_EQ(String_AppendFormatted(nullptr, "a"), -1);
         EXPECT_EQ(String_Wrap(nullptr, 3), -1);
         EXPECT_EQ(String_SplitAt(nullptr, ',', nullptr, nullptr), -1);
         EXPECT_EQ(String_SplitCommas(nullptr, nullptr), 0);
         EXPECT_EQ(String_SplitChars(nullptr, ',', nullptr), -1);
         EXPECT_EQ(String_Join(nullptr, ",", nullptr), -1);
         EXPECT_EQ(String_ResolvePath(nullptr, nullptr, nullptr), -1);
         EXPECT_EQ(CleanupList_Add(nullptr, nullptr), nullptr);
         for (auto edit : {String_ToLower, String_Trim, String_CollapseWhitespace, String_ChompNewlines, String_Reset,
                           String_Clear, String_Destroy})
             edit(nullptr);
         String_Truncate(nullptr, 1);
         String_Delete(nullptr, 0, 1);
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
         EXPECT_EQ(Stream_IsEOF(nullptr), 1);
         EXPECT_EQ(Stream_ReadLine(nullptr, nullptr), -1);
         EXPECT_EQ(Stream_GetLastLine(nullptr, nullptr), -1);
         EXPECT_EQ(Stream_ReadLogicalLine(nullptr, nullptr), -1);
         EXPECT_EQ(Stream_IsEOF(bad), 0);
         Stream_Check(nullptr);
         Stream_Destroy(nullptr);
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
         Object_Destroy(nullptr);
         EXPECT_EQ(EventObject_Equals(nullptr, nullptr), 0);
         EXPECT_EQ(MemBlock_Resize(nullptr, 1), -1);
         MemBlock_Free(nullptr);
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
        for (const auto &[name, calls] : kMistakes) {
            SCOPED_TRACE(name);
            calls();
        }
        testing::internal::GetCapturedStderr();
        EXPECT_TRUE(test::HasReport(test::ReadFile("vokt.log"), "v != NULL", "vector"));
    }));
}

}  // namespace
