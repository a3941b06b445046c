// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include "support.h"
#include "vokt/vokt.h"

namespace {

bool Ordered(const StringMap *map) {
    for (int32_t i = 1; i < map->count; i++)
        if (map->entries[i - 1].hash > map->entries[i].hash) return false;
    return true;
}

TEST(StringMap, SetGetRemoveAndGrowth) {
    StringMap *map = StringMap_New(), *copy = StringMap_New();
    EXPECT_EQ(StringMap_Set(map, "absent", nullptr), 0);
    for (auto [key, value] : {std::pair{"a", "lower"}, {"A", "upper"}, {"a", "again"}})
        EXPECT_EQ(StringMap_Set(map, key, value), 0) << key;
    EXPECT_STREQ(StringMap_Get(map, "a"), "again");
    EXPECT_STREQ(StringMap_Get(map, "A"), "upper");
    EXPECT_EQ(StringMap_Length(map), 2);
    StringMap_Set(map, "", "empty key");
    EXPECT_STREQ(StringMap_ValueAt(map, 0), "empty key");  // it hashes to 0 and comes first
    EXPECT_EQ(StringMap_KeyAt(map, 3), nullptr);
    StringMap_Set(map, "b", "4");
    EXPECT_EQ(map->capacity, 4);
    StringMap_Set(map, "c", "5");
    EXPECT_EQ(map->capacity, 8);
    EXPECT_EQ(StringMap_Set(map, "A", nullptr), 0);
    EXPECT_EQ(StringMap_Get(map, "A"), nullptr);
    for (int i = 0; map->count < 128; i++) StringMap_Set(map, ("k" + std::to_string(i)).c_str(), "v");
    EXPECT_EQ(map->capacity, 128);
    StringMap_Set(map, "one more", "v");
    EXPECT_EQ(map->capacity, 144);
    EXPECT_TRUE(Ordered(map));

    StringMap_Set(copy, "gone", "x");
    EXPECT_EQ(StringMap_Assign(copy, map), 0);
    EXPECT_EQ(copy->count, map->count);
    EXPECT_EQ(StringMap_Get(copy, "gone"), nullptr);
    EXPECT_EQ(StringMap_Assign(copy, copy), 0);
    EXPECT_EQ(copy->count, map->count) << "assigned to itself";
    StringMap_Clear(map);
    EXPECT_EQ(map->count, 0);
    EXPECT_EQ(map->capacity, 128);
    StringMap_Free(map);
    Object_Destroy(copy);
}

}  // namespace
