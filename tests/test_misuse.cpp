// A caller's mistake (a null object, an index outside a vector, a bad reference) is
// reported and survived: every public operation, called wrongly, gives its failure value.
#include <gtest/gtest.h>

#include <string.h>

#include "support.h"
#include "vokt/vokt.h"

namespace {

void *Nothing(void *) { return nullptr; }

using Call = bool (*)();
const std::pair<const char *, Call> kMistakes[] = {
    {"Vector_SetSynchronized", [] { return Vector_SetSynchronized(nullptr, 1) == -1; }},
    {"Vector_Lock/Unlock", [] { return Vector_Lock(nullptr), Vector_Unlock(nullptr), true; }},
    {"Vector_Length", [] { return Vector_Length(nullptr) == 0; }},
    {"Vector_GetAt", [] { return Vector_GetAt(nullptr, 0) == nullptr; }},
    {"Vector_SetAt", [] { return Vector_SetAt(nullptr, 0, nullptr), true; }},
    {"Vector_Add", [] { return Vector_Add(nullptr, nullptr) == nullptr; }},
    {"Vector_AddAll", [] { return Vector_AddAll(nullptr, nullptr) == -1; }},
    {"Vector_RemoveAt", [] { return Vector_RemoveAt(nullptr, 0) == nullptr; }},
    {"Vector_Remove", [] { return Vector_Remove(nullptr, nullptr) == nullptr; }},
    {"Vector_RemoveIdentical", [] { return Vector_RemoveIdentical(nullptr, nullptr) == nullptr; }},
    {"Vector_Contains", [] { return Vector_Contains(nullptr, nullptr) == 0; }},
    {"Vector_Sort/Clear/SetOwnsElements/Free",
     [] { return Vector_Sort(nullptr), Vector_Clear(nullptr), Vector_SetOwnsElements(nullptr, 1), Vector_Free(nullptr), true; }},
    {"Vector outside its elements",
     [] {
         Vector *v = Vector_New();
         Vector_Add(v, nullptr);
         Vector_SetAt(v, 5, v);
         Vector_SetAt(v, -1, v);
         const bool ok = !Vector_GetAt(v, 1) && !Vector_GetAt(v, -1) && !Vector_RemoveAt(v, 3) &&
                         !Vector_Contains(v, nullptr) && !Vector_Remove(v, nullptr);
         Vector_Sort(v);  // a null first element has no Compare
         Vector_Free(v);
         return ok;
     }},
    {"ObjectSet", [] {
         return ObjectSet_Add(nullptr, nullptr, nullptr) == -1 && !ObjectSet_Find(nullptr, nullptr) &&
                !ObjectSet_Remove(nullptr, nullptr) && !ObjectSet_RemoveAny(nullptr) &&
                ObjectSet_AddVector(nullptr, nullptr) == -1 && ObjectSet_ToVector(nullptr, nullptr) == -1 &&
                (ObjectSet_Clear(nullptr), ObjectSet_Free(nullptr), true);
     }},
    {"ObjectSet null object", [] {
         ObjectSet *set = ObjectSet_New();
         const bool ok = ObjectSet_Add(set, nullptr, nullptr) == -1 && !ObjectSet_Find(set, nullptr) && !ObjectSet_Remove(set, nullptr);
         ObjectSet_Free(set);
         return ok;
     }},
    {"StringBag", [] {
         StringBag *bag = StringBag_New();
         const bool ok = StringBag_Add(nullptr, "x", 1) == -1 && StringBag_Add(bag, nullptr, 1) == -1 &&
                         StringBag_Length(nullptr) == 0 && !StringBagElem_New(nullptr, 1);
         StringBag_Sort(nullptr);
         StringBag_Free(nullptr);
         StringBag_Free(bag);
         return ok;
     }},
    {"StringMap", [] {
         StringMap *map = StringMap_New();
         const bool ok = StringMap_Set(nullptr, "k", "v") == -1 && StringMap_Set(map, nullptr, "v") == -1 &&
                         !StringMap_Get(nullptr, "k") && !StringMap_Get(map, nullptr) && !StringMap_KeyAt(map, 0) &&
                         !StringMap_ValueAt(nullptr, 0) && StringMap_Length(nullptr) == 0 &&
                         StringMap_Assign(nullptr, map) == -1 && StringMap_Assign(map, map) == 0;
         StringMap_Clear(nullptr);
         StringMap_Free(nullptr);
         StringMap_Free(map);
         return ok;
     }},
    {"CodeName", [] {
         return !CodeName_Copy(nullptr) && !CodeName_FromWords(nullptr) && CodeName_Value(nullptr) == 0 &&
                CodeName_ToName(nullptr, nullptr) == -1 && CodeName_SetBlock(nullptr, 0, 1) == -1;
     }},
    {"String queries", [] {
         return String_IsSet(nullptr) == 0 && String_Length(nullptr) == 0 && String_Hash(nullptr) == 0 &&
                String_Equals(nullptr, nullptr) == 0 && String_EqualsIgnoreCase(nullptr, nullptr) == 0 &&
                String_StartsWith(nullptr, "a") == 0 && String_EndsWith(nullptr, "a") == 0 &&
                String_Find(nullptr, "a", 0) == -1 && String_FindLast(nullptr, "a") == -1 && !String_Copy(nullptr) &&
                !String_Substring(nullptr, 0, 1) && !String_NewFormatted(nullptr);
     }},
    {"String changes", [] {
         const bool ok = String_Set(nullptr, "a") == -1 && String_SetN(nullptr, "a", 1) == -1 &&
                         String_Format(nullptr, "a") == -1 && String_AppendChars(nullptr, "a") == -1 &&
                         String_AppendN(nullptr, "a", 1) == -1 && String_AppendChar(nullptr, 'a') == -1 &&
                         String_AppendFormatted(nullptr, "a") == -1 && String_Wrap(nullptr, 3) == -1 &&
                         String_SplitAt(nullptr, ',', nullptr, nullptr) == -1 && String_SplitCommas(nullptr, nullptr) == 0 &&
                         String_SplitChars(nullptr, ',', nullptr) == -1 && String_Join(nullptr, ",", nullptr) == -1 &&
                         String_ResolvePath(nullptr, nullptr, nullptr) == -1 && !CleanupList_Add(nullptr, nullptr);
         for (auto edit : {String_ToLower, String_Trim, String_CollapseWhitespace, String_ChompNewlines, String_Reset,
                           String_Clear, String_Destroy})
             edit(nullptr);
         String_Truncate(nullptr, 1);
         String_Delete(nullptr, 0, 1);
         return ok;
     }},
    {"String bad texts", [] {
         String *s = String_NewFromChars("abc");
         const bool ok = String_SetN(s, nullptr, 1) == -1 && String_AppendN(s, nullptr, 1) == -1 &&
                         String_Format(s, nullptr) == -1 && String_StartsWith(s, nullptr) == 0 &&
                         String_Find(s, nullptr, 0) == -1 && String_ResolvePath(s, "x", nullptr) == -1 &&
                         String_SplitCommas(s, nullptr) == -1 && String_SplitChars("a", ',', nullptr) == -1 &&
                         CleanupList_Add(nullptr, String_New()) == nullptr && String_Set(s, nullptr) == 0;
         String_Check(s);  // set, without a text: reported
         String_Destroy(s);
         return ok;
     }},
    {"Strings whose invariant is broken", [] {
         // Set without a text, and unset with one: every operation reports and survives.
         String *noText = String_New(), *stray = String_NewFromChars("stray"), *fine = String_NewFromChars("a b");
         noText->bIsSet = 1;
         stray->bIsSet = 0;
         String *pair[] = {noText, stray};
         const bool ok = String_Equals(noText, fine) == 0 && String_Equals(stray, fine) == 0 &&
                         String_EqualsIgnoreCase(fine, stray) == 0 && String_Hash(noText) == 0 && String_Hash(stray) == 0 &&
                         String_Length(noText) == 0 && String_Compare(&pair[0], &pair[1]) < 0 &&
                         String_StartsWith(noText, "a") == 0 && String_Find(noText, "a", 0) == -1 &&
                         String_WrapEx(noText, 3, 3, nullptr) == 0 && String_SplitAt(noText, ' ', fine, fine) == 1;
         for (auto edit : {String_ToLower, String_Trim, String_CollapseWhitespace, String_ChompNewlines})
             edit(noText);
         FILE *file = tmpfile();
         fputs("line\n", file);
         rewind(file);
         Stream *lines = Stream_NewFromFile(file);
         const bool read = Stream_ReadLine(lines, noText) == 0 && strcmp(noText->string, "line") == 0;
         Stream_Destroy(lines);
         fclose(file);
         stray->bIsSet = 1;
         for (String *s : {noText, stray, fine}) String_Destroy(s);
         return ok && read;
     }},
    {"File", [] { return File_Exists(nullptr) == 0 && File_IsDirectory(nullptr) == 0 && File_IsDirectory("/") == 1; }},
    {"Stream", [] {
         Stream *bad = Stream_NewFromHandle(0);  // descriptor 0 is reported at every check
         const bool ok = Stream_IsEOF(nullptr) == 1 && Stream_ReadLine(nullptr, nullptr) == -1 &&
                         Stream_GetLastLine(nullptr, nullptr) == -1 && Stream_ReadLogicalLine(nullptr, nullptr) == -1 &&
                         Stream_IsEOF(bad) == 0;
         Stream_Check(nullptr);
         Stream_Destroy(nullptr);
         Stream_Destroy(bad);
         return ok;
     }},
    {"Handles", [] {
         Socket_Destroy(nullptr);
         StreamHandle_Destroy(nullptr);
         FileHandle_Destroy(nullptr);
         FileHandle *none = FileHandle_New(nullptr, "r");
         const bool ok = none->fp == nullptr;
         FileHandle_Destroy(none);
         return ok;
     }},
    {"Objects", [] {
         MemoryFunctions now{};
         Memory_GetFunctions(&now);
         Memory_GetFunctions(nullptr);
         Object_Destroy(nullptr);
         return now.Malloc != nullptr && EventObject_Equals(nullptr, nullptr) == 0 && MemBlock_Resize(nullptr, 1) == -1 &&
                (MemBlock_Free(nullptr), true);
     }},
    {"Errors", [] {
         ErrorStore_Check(0x40000007);
         Error_Trace(0x40000007, nullptr, 1);
         Error_Free(nullptr);
         return ErrorStore_Get(0x40000007) == nullptr && ErrorStore_Take(0x40000009) == nullptr &&
                ErrorStore_IsError(0x7fffffff) == 0 && !Error_NewInternal(nullptr) &&
                (NetError_Describe(111, nullptr, 0, nullptr, 0, nullptr), true);
     }},
    {"Dates", [] {
         const int32_t ref = Month_FromName(nullptr);
         const bool stored = ErrorStore_IsError(ref) == 1;
         Error_Free(ErrorStore_Take(ref));
         return stored && Month_ToName(1, nullptr) == -1 && Date_Format(nullptr, 0) == -1;
     }},
    {"Sync", [] {
         for (auto f : {Mutex_Init, Mutex_Lock, Mutex_Unlock}) f(nullptr);
         for (auto f : {Condition_Init, Condition_Destroy, Condition_Signal}) f(nullptr);
         for (auto f : {Event_Init, Event_Destroy}) f(nullptr);
         for (auto f : {Counter_Init, Counter_Destroy, Counter_Increment, Counter_Decrement}) f(nullptr);
         Event_SetState(nullptr, 1);
         Thread_Create(nullptr, Nothing, nullptr);
         Thread_CreateJoinable(nullptr, Nothing, nullptr);
         return Condition_Wait(nullptr) == 0 && Condition_TimedWait(nullptr, 1) == 0 && Event_Wait(nullptr) == 0 &&
                Event_TimedWait(nullptr, 1) == 0 && Counter_GetValue(nullptr) == 0;
     }},
};

TEST(Misuse, EveryOperationSurvivesItsCallersMistakes) {
    EXPECT_EQ(0, test::InChild([] {
        testing::internal::CaptureStderr();
        for (const auto &[name, call] : kMistakes) EXPECT_TRUE(call()) << name;
        testing::internal::GetCapturedStderr();
        EXPECT_TRUE(test::HasReport(test::ReadFile("vokt.log"), "v != NULL", "vector"));
    }));
}

}  // namespace
