// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include "vokt/vokt.h"

namespace {

StringBagElem *At(StringBag *bag, int64_t i) { return static_cast<StringBagElem *>(Vector_GetAt(bag->elements, i)); }

TEST(StringBag, CountsTextsWithoutRegardToCase) {
    StringBag *bag = StringBag_New();
    for (auto [text, n] : {std::pair{"Apple", 2u}, {"pear", 1u}, {"APPLE", 3u}, {"banana", 1u}, {"Cherry", 1u}})
        EXPECT_EQ(StringBag_Add(bag, text, n), 0);
    ASSERT_EQ(StringBag_Length(bag), 4);
    EXPECT_STREQ(At(bag, 0)->string->string, "Apple");
    EXPECT_EQ(At(bag, 0)->count, 5u);
    StringBag_Sort(bag);
    const char *sorted[] = {"Apple", "banana", "Cherry", "pear"};
    for (int i = 0; i < 4; i++) EXPECT_STREQ(At(bag, i)->string->string, sorted[i]);
    Object_Destroy(bag);
}

}  // namespace
