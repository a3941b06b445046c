#include <gtest/gtest.h>

#include "support.h"
#include "vokt/vokt.h"

namespace {

StringBagElem *At(StringBag *bag, int64_t i) { return static_cast<StringBagElem *>(Vector_GetAt(bag->elements, i)); }

TEST(StringBag, CountsTextsWithoutRegardToCase) {
    StringBag *bag = StringBag_New();
    EXPECT_STREQ(bag->ftbl->name, "StringBag");
    EXPECT_EQ(StringBag_Add(bag, "Apple", 2), 0);
    EXPECT_EQ(StringBag_Add(bag, "pear", 1), 0);
    EXPECT_EQ(StringBag_Add(bag, "APPLE", 3), 0);
    ASSERT_EQ(StringBag_Length(bag), 2);
    EXPECT_STREQ(At(bag, 0)->string->string, "Apple");
    EXPECT_EQ(At(bag, 0)->count, 5u);
    EXPECT_STREQ(At(bag, 0)->ftbl->name, "StringBagElem");
    StringBag_Add(bag, "banana", 1);
    StringBag_Add(bag, "Cherry", 1);
    StringBag_Sort(bag);
    const char *sorted[] = {"Apple", "banana", "Cherry", "pear"};
    for (int i = 0; i < 4; i++) EXPECT_STREQ(At(bag, i)->string->string, sorted[i]);
    Vector_SetSynchronized(bag->elements, 1);
    StringBag_Add(bag, "CHERRY", 4);
    EXPECT_EQ(At(bag, 2)->count, 5u);
    Object_Destroy(bag);
}

TEST(StringBag, FailuresLeaveTheBagAsItWas) {
    StringBag *bag = StringBag_New();
    for (int i = 0; i < 10; i++) StringBag_Add(bag, std::to_string(i).c_str(), 1);
    test::SweepAllocations([&](long) {
        const int32_t code = StringBag_Add(bag, "new", 1);
        if (code == 0) return;
        EXPECT_EQ(code, -2);
        EXPECT_EQ(StringBag_Length(bag), 10);
    });
    EXPECT_EQ(StringBag_Length(bag), 11);
    StringBag_Free(bag);
    test::SweepAllocations([](long) {
        StringBagElem *e = StringBagElem_New("x", 3);
        EXPECT_TRUE(!e || e->count == 3u);
        Object_Destroy(e);
    });
}

}  // namespace
