#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

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
    EXPECT_EQ(copy->count * (StringMap_Get(copy, "gone") == nullptr), map->count);
    StringMap_Clear(map);
    EXPECT_EQ(map->count, 0);
    EXPECT_EQ(map->capacity, 128);
    StringMap_Free(map);
    Object_Destroy(copy);
}

TEST(StringMap, FailuresLeaveTheMapConsistent) {
    StringMap *map = StringMap_New(), *dst = StringMap_New();
    for (const char *k : {"one", "two", "three", "four"}) StringMap_Set(map, k, k);
    test::SweepAllocations([&](long) {
        const int32_t code = StringMap_Set(map, "five", "5");  // growth, key, value
        if (code != 0) {  // refused: the map is as it was
            EXPECT_EQ(code, -2);
            EXPECT_EQ(map->count, 4);
            EXPECT_EQ(StringMap_Get(map, "five"), nullptr);
        }
        EXPECT_TRUE(Ordered(map));
    });
    test::FailAllocation(1);
    EXPECT_EQ(StringMap_Set(map, "one", "replaced"), -2);
    EXPECT_STREQ(StringMap_Get(map, "one"), "one");
    test::SweepAllocations([&](long) {
        const int32_t code = StringMap_Assign(dst, map);
        EXPECT_TRUE(code == 0 || code == -2);
        for (int32_t i = 0; i < dst->count; i++) EXPECT_STREQ(StringMap_KeyAt(dst, i), StringMap_KeyAt(map, i));
    });
    EXPECT_EQ(dst->count, 5);
    StringMap_Free(dst);
    StringMap_Free(map);
}

TEST(StringMap, LooksUpAHundredThousandKeysQuickly) {
    std::vector<std::pair<uint32_t, std::string>> keys;
    for (int i = 0; i < 100000; i++) {
        String *key = String_NewFormatted("key-%d", i);
        keys.emplace_back(static_cast<uint32_t>(String_Hash(key)), key->string);
        String_Destroy(key);
    }
    std::sort(keys.begin(), keys.end());  // inserted in hash order, each insertion appends
    StringMap *map = StringMap_New();
    for (const auto &[hash, key] : keys) ASSERT_EQ(StringMap_Set(map, key.c_str(), key.c_str()), 0);
    const auto start = std::chrono::steady_clock::now();
    for (const auto &[hash, key] : keys) ASSERT_STREQ(StringMap_Get(map, key.c_str()), key.c_str());
    EXPECT_EQ(StringMap_Get(map, "key-100000"), nullptr);
    // A linear scan would take tens of seconds here; halving takes milliseconds.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    StringMap_Free(map);
}

}  // namespace
