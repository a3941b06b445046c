// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "support.h"
#include "vokt/vokt.h"

namespace {

// A class without Equals and with a pointer field, for the byte-comparison fallback.
struct Plain {
    const ClassDescriptor *ftbl;
    const char *text;
};
const ClassDescriptor kPlainClass = {sizeof(Plain), "Plain", nullptr, nullptr, nullptr, nullptr};

TEST(Object, EqualityGoesThroughTheProbesDescriptor) {
    EventObject *a = EventObject_New(7), *b = EventObject_New(7), *c = EventObject_New(8);
    Vector *v = Vector_NewOwning();
    Vector_Add(v, b);
    EXPECT_EQ(Vector_Contains(v, a), 1);  // through Equals: a and b are different objects
    EXPECT_EQ(Vector_Contains(v, c), 0);
    char one[] = "x", two[] = "x";
    Plain p1 = {&kPlainClass, one}, p2 = {&kPlainClass, one}, p3 = {&kPlainClass, two};
    Vector *plain = Vector_New();
    Vector_Add(plain, nullptr);  // a null slot is passed over
    Vector_Add(plain, &p1);
    EXPECT_EQ(Vector_Contains(plain, &p2), 1);  // same address in the pointer field
    EXPECT_EQ(Vector_Contains(plain, &p3), 0);  // equal text, another address
    for (void *o : std::initializer_list<void *>{v, plain, a, c}) Object_Destroy(o);
}

TEST(Object, LoadedVersionIsTheHeadersVersion) {  // (the number: c_check)
    EXPECT_EQ(Runtime_VersionString(), std::to_string(VOKT_VERSION_MAJOR) + "." + std::to_string(VOKT_VERSION_MINOR) +
                                           "." + std::to_string(VOKT_VERSION_PATCH));
}

// An allocator table with a missing member brings back all three of the C library's.
TEST(Object, AllocatorTableWithAMissingMemberIsRefused) {
    EXPECT_EQ(0, test::InChild([] {
        const MemoryFunctions partial = {malloc, realloc, nullptr};
        Memory_SetFunctions(&partial);
        MemoryFunctions now{};
        Memory_GetFunctions(&now);
        EXPECT_EQ(now.Free, free);
        String_Destroy(String_NewFromChars("x"));
    }));
}

TEST(MemBlock, ResizeIsExactAndKeepsTheOldBufferOnFailure) {
    EXPECT_EQ(0, test::InChild([] {
        Runtime_Init();
        MemBlock *mem = MemBlock_New(4);
        memcpy(mem->data, "abc", 4);
        EXPECT_EQ(MemBlock_Resize(mem, 64), 0);
        EXPECT_STREQ(static_cast<char *>(mem->data), "abc");
        void *before = mem->data;
        test::FailAllocation(1);
        const int32_t ref = MemBlock_Resize(mem, 1000);
        EXPECT_EQ(mem->data, before);
        Error *e = ErrorStore_Take(ref);
        EXPECT_EQ(e->code, 999);
        EXPECT_STREQ(e->message->string, "Memory re-allocation of size 1000 failed");
        Error_Free(e);
        test::FailAllocation(0);
        EXPECT_EQ(MemBlock_Resize(mem, 0), 0);
        MemBlock_Free(mem);
        MemBlock_Free(MemBlock_New(0));  // whatever malloc(0) gives, and no message
        MemBlock_Free(nullptr);
        const std::string log = test::ReadFile("vokt.log");
        EXPECT_EQ(test::Count(log, ": Failed to re-allocate block of 1000 bytes\n"), 1);
        EXPECT_TRUE(test::HasReport(log, "mem!=NULL", "memblock"));
    }));
}

// Objects of two sizes that hash alike: comparing them by bytes must never read past the
// smaller one.
struct Tiny {
    const ClassDescriptor *ftbl;
};
struct Wide {
    const ClassDescriptor *ftbl;
    char bytes[56];
};
int32_t HashOne(const void *) { return 1; }
const ClassDescriptor kTinyClass = {sizeof(Tiny), "Tiny", free, nullptr, nullptr, HashOne};
const ClassDescriptor kWideClass = {sizeof(Wide), "Wide", free, nullptr, nullptr, HashOne};

template <typename T>
T *Make(const ClassDescriptor *cls) {
    auto *o = static_cast<T *>(calloc(1, sizeof(T)));
    o->ftbl = cls;
    return o;
}

TEST(Object, ObjectsOfAnotherClassAreNeverReadAsThoughTheyWereTheProbes) {
    auto *tiny = Make<Tiny>(&kTinyClass);
    auto *wide = Make<Wide>(&kWideClass);
    EventObject *event = EventObject_New(0);
    Vector *v = Vector_New();
    Vector_Add(v, tiny);
    EXPECT_EQ(Vector_Contains(v, wide), 0);
    EXPECT_EQ(Vector_Contains(v, event), 0);
    EXPECT_EQ(EventObject_Equals(event, reinterpret_cast<EventObject *>(tiny)), 0);
    ObjectSet *set = ObjectSet_New();
    ObjectSet_Add(set, tiny, nullptr);
    EXPECT_EQ(ObjectSet_Find(set, wide), nullptr);
    int32_t added = 0;
    EXPECT_EQ(ObjectSet_Add(set, wide, &added), 0);
    EXPECT_EQ(added, 1);
    EXPECT_EQ(ObjectSet_Remove(set, wide), wide);
    for (void *o : std::initializer_list<void *>{v, set, event, tiny, wide}) Object_Destroy(o);
}

}  // namespace
