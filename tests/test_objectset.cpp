// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <climits>
#include <deque>

#include "support.h"
#include "vokt/vokt.h"

namespace {

// Objects with a chosen hash; equal when their ids are (Raw: when their bytes are).
struct Keyed {
    const ClassDescriptor *ftbl;
    int32_t hash;
    int32_t id;
};
int32_t HashOf(const void *o) { return static_cast<const Keyed *>(o)->hash; }
int32_t SameId(const void *a, const void *b) {
    return static_cast<const Keyed *>(a)->id == static_cast<const Keyed *>(b)->id;
}
const ClassDescriptor kKeyedClass = {sizeof(Keyed), "Keyed", nullptr, SameId, nullptr, HashOf};
const ClassDescriptor kRawClass = {sizeof(Keyed), "Raw", nullptr, nullptr, nullptr, HashOf};

struct Pool {
    std::deque<Keyed> items;
    Keyed *operator()(int32_t hash, int32_t id, const ClassDescriptor *cls = &kKeyedClass) {
        return &items.emplace_back(Keyed{cls, hash, id});
    }
};

std::vector<int32_t> Ids(ObjectSet *set) {
    Vector *v = Vector_New();
    EXPECT_EQ(ObjectSet_ToVector(set, v), 0);
    std::vector<int32_t> ids;
    for (int64_t i = 0; i < Vector_Length(v); i++) ids.push_back(static_cast<Keyed *>(Vector_GetAt(v, i))->id);
    Vector_Free(v);
    return ids;
}

TEST(ObjectSet, GrowsByOccupiedBucketsAndMovesEntriesInReverse) {
    Pool make;
    ObjectSet *set = ObjectSet_New();
    // Bucket 0 holds hashes 0, 8 and 24; with 16 buckets 8 and 24 move to bucket 8.
    for (auto [hash, id] : {std::pair{0, 100}, {8, 108}, {24, 124}, {1, 1}, {2, 2}, {3, 3}, {4, 4}})
        ObjectSet_Add(set, make(hash, id), nullptr);
    EXPECT_EQ(set->bucketCount, 8);
    int32_t added = -1;
    EXPECT_EQ(ObjectSet_Add(set, make(5, 5), &added), 0);  // the 6th occupied bucket
    EXPECT_EQ(added, 1);
    EXPECT_EQ(set->bucketCount, 16);
    EXPECT_EQ(set->rehashThreshold, 12);
    EXPECT_EQ(set->usedBuckets, 7);
    EXPECT_EQ(Ids(set), (std::vector<int32_t>{100, 1, 2, 3, 4, 5, 124, 108}));
    for (auto [hash, id] : {std::pair{0, 100}, {8, 108}, {24, 124}, {5, 5}})  // found where they went
        EXPECT_NE(ObjectSet_Find(set, make(hash, id)), nullptr) << id;
    ObjectSet_Free(set);
    // Collisions never bring a rehash nearer; the most negative hash lands in bucket 0.
    ObjectSet *crowded = ObjectSet_New();
    for (int i = 0; i < 100; i++) ObjectSet_Add(crowded, make(3, 1000 + i), nullptr);
    EXPECT_EQ(crowded->bucketCount, 8);
    EXPECT_EQ(crowded->usedBuckets, 1);
    Keyed *lowest = make(INT_MIN, 7);
    ObjectSet_Add(crowded, lowest, nullptr);
    EXPECT_EQ(crowded->buckets[0]->object, lowest);
    Object_Destroy(crowded);
}

TEST(ObjectSet, FindRemoveAndDrain) {
    Pool make;
    ObjectSet *set = ObjectSet_New();
    Keyed *a = make(1, 1), *b = make(9, 2), *c = make(2, 3), *raw = make(4, 4, &kRawClass);
    for (Keyed *k : {a, b, c, raw}) ObjectSet_Add(set, k, nullptr);
    int32_t added = -1;
    EXPECT_EQ(ObjectSet_Add(set, make(9, 2), &added), 0);  // equal to b: not stored
    EXPECT_EQ(added, 0);
    EXPECT_EQ(ObjectSet_Find(set, make(9, 2)), b);
    EXPECT_EQ(ObjectSet_Find(set, make(4, 4, &kRawClass)), raw);
    EXPECT_EQ(ObjectSet_Find(set, make(4, 5, &kRawClass)), nullptr);
    EXPECT_EQ(ObjectSet_Remove(set, make(1, 1)), a);  // one of two in bucket 1
    EXPECT_EQ(set->usedBuckets, 3);
    EXPECT_EQ(ObjectSet_Remove(set, make(2, 3)), c);  // the only one in bucket 2
    EXPECT_EQ(set->usedBuckets, 2);
    ObjectSet_Add(set, a, nullptr);
    for (Keyed *expected : {b, a, raw, static_cast<Keyed *>(nullptr)}) EXPECT_EQ(ObjectSet_RemoveAny(set), expected);
    String *s = String_NewFromChars("text"), *probe = String_NewFromChars("text");
    const auto *slots = reinterpret_cast<const ObjectSetDescriptor *>(set->ftbl);
    slots->Add(set, s, nullptr);
    EXPECT_EQ(slots->Find(set, probe), s);
    ObjectSet_Clear(set);
    EXPECT_EQ(ObjectSet_Find(set, probe), nullptr);
    EXPECT_EQ(set->usedBuckets, 0);
    for (void *o : std::initializer_list<void *>{set, s, probe}) Object_Destroy(o);
}

TEST(ObjectSet, BulkCopiesAndFailures) {
    EXPECT_EQ(0, test::InChild([] {
        Pool make;
        ObjectSet *set = ObjectSet_New();
        Vector *v = Vector_New();
        for (int i = 0; i < 20; i++) Vector_Add(v, make(i, i));
        Vector_Add(v, make(3, 3));  // a duplicate
        Vector_SetSynchronized(v, 1);
        EXPECT_EQ(ObjectSet_AddVector(set, v), 0);
        EXPECT_EQ(set->bucketCount, 32);
        Vector_Free(v);
        v = Vector_New();
        test::FailAllocation(1);  // the output vector's growth beyond 10
        EXPECT_EQ(ObjectSet_ToVector(set, v), -2);
        EXPECT_EQ(Vector_Length(v), 10);  // those already appended stay
        Vector_Clear(v);
        Vector_Add(v, make(40, 40));
        test::FailAllocation(1);
        EXPECT_EQ(ObjectSet_AddVector(set, v), 0);  // the entry failed, still 0
        EXPECT_EQ(ObjectSet_Find(set, make(40, 40)), nullptr);
        Vector_Free(v);
        ObjectSet_Free(set);

        test::FailAllocation(2);
        EXPECT_EQ(ObjectSet_New(), nullptr);  // the heads: no message
        set = ObjectSet_New();
        int32_t added = -1;
        for (int32_t h = 1; h <= 5; h++) ObjectSet_Add(set, make(h, h), nullptr);
        test::FailAllocation(2);  // the entry succeeds, the rehash does not
        EXPECT_EQ(ObjectSet_Add(set, make(6, 6), &added), 0);
        EXPECT_EQ(set->bucketCount, 8);
        EXPECT_EQ(set->usedBuckets, 6);
        ObjectSet_Add(set, make(6, 6), &added);  // a duplicate still retries the rehash
        EXPECT_EQ(added, 0);
        EXPECT_EQ(set->bucketCount, 16);
        // The largest count is 2^30: the next doubling overflows and is refused.
        set->bucketCount = 1 << 30;
        set->rehashThreshold = 1;
        ObjectSet_Add(set, make(2, 2), nullptr);
        EXPECT_EQ(set->bucketCount, 1 << 30);
        set->bucketCount = 16;
        ObjectSet_Free(set);
        const std::string log = test::ReadFile("vokt.log");
        EXPECT_EQ(test::Count(log, ": Unable to allocate ObjectSet oset\n"), 0) << "none for the heads";
        for (const char *text : {": Failed to allocate entry structure\n",
                                 ": Unable to rehash ObjectSet due to low memory - performance may be compromised.\n",
                                 ": Unable to rehash ObjectSet - too many buckets\n"})
            EXPECT_EQ(test::Count(log, text), 1) << text;
    }));
}

}  // namespace
