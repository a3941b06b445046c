#include <gtest/gtest.h>
#include <string.h>

#include "support.h"
#include "vokt/vokt.h"

namespace {

// A class without Equals, with a pointer field, for the byte-comparison fallback.
struct Plain {
    const ClassDescriptor *ftbl;
    const char *text;
};
const ClassDescriptor kPlainClass = {sizeof(Plain), "Plain", nullptr, nullptr, nullptr, nullptr};

TEST(Object, EventObjectsMatchByValueThroughTheirDescriptor) {
    EventObject *a = EventObject_New(7), *b = EventObject_New(7), *c = EventObject_New(8);
    ASSERT_TRUE(a && b && c);
    EXPECT_STREQ(a->ftbl->name, "EventObject");
    EXPECT_EQ(a->ftbl->size, sizeof(EventObject));
    EXPECT_EQ(a->ftbl->Compare, nullptr);
    EXPECT_EQ(a->ftbl->Hash, nullptr);
    EXPECT_EQ(EventObject_Equals(a, b), 1);
    EXPECT_EQ(EventObject_Equals(a, c), 0);
    EXPECT_EQ(a->ftbl->Equals(a, b), 1);

    Vector *v = Vector_NewOwning();
    Vector_Add(v, b);
    EXPECT_EQ(Vector_Contains(v, a), 1);  // through Equals: a and b are different objects
    EXPECT_EQ(Vector_Contains(v, c), 0);
    Vector_Free(v);  // destroys b
    Object_Destroy(a);
    Object_Destroy(c);
    Object_Destroy(nullptr);
}

TEST(Object, ByteComparisonFallbackSeesPointersAndClasses) {
    char one[] = "x", two[] = "x";
    Plain p1 = {&kPlainClass, one}, p2 = {&kPlainClass, one}, p3 = {&kPlainClass, two};
    Vector *v = Vector_New();
    Vector_Add(v, &p1);
    EXPECT_EQ(Vector_Contains(v, &p2), 1);  // same address in the pointer field
    EXPECT_EQ(Vector_Contains(v, &p3), 0);  // equal text, different address
    // An EventObject never matches a Plain, because ftbl differs.
    EventObject *e = EventObject_New(0);
    EXPECT_EQ(Vector_Contains(v, e), 0);
    Object_Destroy(e);
    Vector_Free(v);
}

TEST(Object, AllocationFailuresAreLoggedAndReturnNull) {
    EXPECT_EQ(0, test::InChild([] {
        test::FailAllocation(1);
        EXPECT_EQ(EventObject_New(1), nullptr);
        test::FailAllocation(1);
        EXPECT_EQ(MemBlock_New(16), nullptr);
        test::FailAllocation(2);
        MemBlock *half = MemBlock_New(16);  // record made, buffer not
        ASSERT_NE(half, nullptr);
        EXPECT_EQ(half->data, nullptr);
        MemBlock_Free(half);
        const std::string log = test::ReadFile("vokt.log");
        EXPECT_EQ(test::Count(log, ": Unable to allocate EventObject rval\n"), 1) << log;
        EXPECT_EQ(test::Count(log, ": Unable to allocate MemBlock mem\n"), 1);
        EXPECT_EQ(test::Count(log, ": Failed to allocate block of 16 bytes\n"), 1);
    }));
}

TEST(MemBlock, ResizeIsExactAndKeepsTheOldBufferOnFailure) {
    EXPECT_EQ(0, test::InChild([] {
        Runtime_Init();
        MemBlock *empty = MemBlock_New(0);
        ASSERT_NE(empty, nullptr);
        EXPECT_STREQ(empty->ftbl->name, "MemBlock");
        EXPECT_EQ(MemBlock_Resize(empty, 0), 0);
        Object_Destroy(empty);

        MemBlock *mem = MemBlock_New(4);
        memcpy(mem->data, "abc", 4);
        EXPECT_EQ(MemBlock_Resize(mem, 64), 0);
        EXPECT_STREQ(static_cast<char *>(mem->data), "abc");
        void *before = mem->data;
        test::FailAllocation(1);
        const int32_t ref = MemBlock_Resize(mem, 1000);
        test::FailAllocation(0);
        EXPECT_EQ(mem->data, before);
        ASSERT_TRUE(ErrorStore_IsError(ref));
        ASSERT_NE(ref, -2);
        Error *e = ErrorStore_Take(ref);
        EXPECT_EQ(e->code, 999);
        EXPECT_STREQ(e->message->string, "Memory re-allocation of size 1000 failed");
        Error_Free(e);
        MemBlock_Free(mem);
        EXPECT_NE(test::ReadFile("vokt.log").find(": Failed to re-allocate block of 1000 bytes\n"), std::string::npos);

        // Every later allocation of the failure path may fail too: nothing leaks, and the
        // result is always an error reference.
        MemBlock *m = MemBlock_New(8);
        for (long n = 2; n < 20; n++) {
            test::FailAllocation(1, n);
            const int32_t r = MemBlock_Resize(m, 4096);
            test::FailAllocation(0);
            EXPECT_TRUE(ErrorStore_IsError(r)) << n;
            Error_Free(ErrorStore_Take(r));
        }
        MemBlock_Free(m);
    }));
}

TEST(MemBlock, NullBlockIsReportedNotFollowed) {
    EXPECT_EQ(0, test::InChild([] {
        EXPECT_EQ(MemBlock_Resize(nullptr, 8), -1);
        MemBlock_Free(nullptr);
        const std::string log = test::ReadFile("vokt.log");
        EXPECT_EQ(test::Count(log, "Assertion failed: mem!=NULL in file memblock on line "), 2) << log;
    }));
}

}  // namespace
