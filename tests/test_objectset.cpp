#include <gtest/gtest.h>

#include <climits>
#include <deque>

#include "support.h"
#include "vokt/vokt.h"

namespace {

// Objects with a chosen hash; equal when their ids are.
struct Keyed {
    const ClassDescriptor *ftbl;
    int32_t hash;
    int32_t id;
};
const ClassDescriptor kKeyedClass = {
    sizeof(Keyed), "Keyed", nullptr,
    [](const void *a, const void *b) {
        return static_cast<int32_t>(static_cast<const Keyed *>(a)->id == static_cast<const Keyed *>(b)->id);
    },
    nullptr, [](const void *o) { return static_cast<const Keyed *>(o)->hash; },
};
// The same without Equals: the byte comparison decides.
const ClassDescriptor kRawClass = {
    sizeof(Keyed), "Raw", nullptr, nullptr, nullptr, [](const void *o) { return static_cast<const Keyed *>(o)->hash; },
};

struct Pool {
    std::deque<Keyed> items;
    Keyed *operator()(int32_t hash, int32_t id, const ClassDescriptor *cls = &kKeyedClass) {
        items.push_back({cls, hash, id});
        return &items.back();
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
    EXPECT_STREQ(set->ftbl->name, "Set");
    EXPECT_EQ(set->bucketCount, 8);
    EXPECT_EQ(set->rehashThreshold, 6);
    EXPECT_DOUBLE_EQ(set->loadFactor, 0.75);
    // Bucket 0 holds hashes 0, 8 and 24; with 16 buckets 8 and 24 move to bucket 8.
    for (auto [hash, id] : {std::pair{0, 100}, {8, 108}, {24, 124}}) ObjectSet_Add(set, make(hash, id), nullptr);
    for (int32_t h = 1; h <= 4; h++) ObjectSet_Add(set, make(h, h), nullptr);
    EXPECT_EQ(set->usedBuckets, 5);
    EXPECT_EQ(set->bucketCount, 8);
    int32_t added = -1;
    EXPECT_EQ(ObjectSet_Add(set, make(5, 5), &added), 0);
    EXPECT_EQ(added, 1);
    EXPECT_EQ(set->bucketCount, 16);
    EXPECT_EQ(set->rehashThreshold, 12);
    EXPECT_EQ(set->usedBuckets, 7);
    EXPECT_EQ(Ids(set), (std::vector<int32_t>{100, 1, 2, 3, 4, 5, 124, 108}));

    // Collisions never bring a rehash nearer.
    ObjectSet *crowded = ObjectSet_New();
    for (int i = 0; i < 100; i++) ObjectSet_Add(crowded, make(3, 1000 + i), nullptr);
    EXPECT_EQ(crowded->bucketCount, 8);
    EXPECT_EQ(crowded->usedBuckets, 1);
    // The most negative hash stays negative under abs and lands in bucket 0.
    ObjectSet_Add(crowded, make(INT_MIN, 7), nullptr);
    EXPECT_EQ(crowded->buckets[0]->object, ObjectSet_Find(crowded, make(INT_MIN, 7)));
    Object_Destroy(crowded);
    ObjectSet_Free(set);
}

TEST(ObjectSet, FindRemoveAndDrain) {
    Pool make;
    ObjectSet *set = ObjectSet_New();
    Keyed *a = make(1, 1), *b = make(9, 2), *c = make(2, 3);
    for (Keyed *k : {a, b, c}) ObjectSet_Add(set, k, nullptr);
    int32_t added = -1;
    EXPECT_EQ(ObjectSet_Add(set, make(9, 2), &added), 0);  // equal to b: not stored
    EXPECT_EQ(added, 0);
    EXPECT_EQ(ObjectSet_Find(set, make(9, 2)), b);
    EXPECT_EQ(ObjectSet_Find(set, make(9, 5)), nullptr);
    EXPECT_EQ(set->usedBuckets, 2);
    EXPECT_EQ(ObjectSet_Remove(set, make(1, 1)), a);  // one of two in bucket 1
    EXPECT_EQ(set->usedBuckets, 2);
    EXPECT_EQ(ObjectSet_Remove(set, make(2, 3)), c);  // the only one in bucket 2
    EXPECT_EQ(set->usedBuckets, 1);
    EXPECT_EQ(ObjectSet_Remove(set, make(2, 3)), nullptr);
    ObjectSet_Add(set, a, nullptr);
    ObjectSet_Add(set, c, nullptr);
    EXPECT_EQ(ObjectSet_RemoveAny(set), b);  // bucket 1: b was first in the chain
    EXPECT_EQ(ObjectSet_RemoveAny(set), a);
    EXPECT_EQ(ObjectSet_RemoveAny(set), c);
    EXPECT_EQ(ObjectSet_RemoveAny(set), nullptr);
    EXPECT_EQ(set->usedBuckets, 0);

    // Without Equals the bytes decide; Strings use their own slots.
    Keyed *raw = make(4, 4, &kRawClass);
    ObjectSet_Add(set, raw, nullptr);
    EXPECT_EQ(ObjectSet_Find(set, make(4, 4, &kRawClass)), raw);
    EXPECT_EQ(ObjectSet_Find(set, make(4, 5, &kRawClass)), nullptr);
    String *s = String_NewFromChars("text"), *probe = String_NewFromChars("text");
    ObjectSet_Add(set, s, nullptr);
    EXPECT_EQ(ObjectSet_Find(set, probe), s);
    ObjectSet_Clear(set);
    EXPECT_EQ(set->usedBuckets, 0);
    EXPECT_EQ(ObjectSet_Find(set, probe), nullptr);
    const auto *slots = reinterpret_cast<const ObjectSetDescriptor *>(set->ftbl);
    EXPECT_EQ(slots->Add(set, s, nullptr), 0);
    EXPECT_EQ(slots->Find(set, probe), s);
    ObjectSet_Free(set);
    String_Destroy(s);
    String_Destroy(probe);
}

TEST(ObjectSet, BulkCopiesWithVectors) {
    Pool make;
    ObjectSet *set = ObjectSet_New();
    Vector *v = Vector_New();
    EXPECT_EQ(ObjectSet_AddVector(set, v), 0);
    for (int i = 0; i < 20; i++) Vector_Add(v, make(i, i));
    Vector_Add(v, make(3, 3));  // a duplicate
    Vector_SetSynchronized(v, 1);
    EXPECT_EQ(ObjectSet_AddVector(set, v), 0);
    EXPECT_EQ(set->bucketCount, 32);
    Vector *out = Vector_New();
    EXPECT_EQ(ObjectSet_ToVector(set, out), 0);
    EXPECT_EQ(Vector_Length(out), 20);
    EXPECT_EQ(static_cast<Keyed *>(Vector_GetAt(out, 19))->id, 19);  // bucket order
    Vector *partial = Vector_New();
    test::FailAllocation(1);  // the output vector's growth beyond 10
    EXPECT_EQ(ObjectSet_ToVector(set, partial), -2);
    EXPECT_EQ(Vector_Length(partial), 10);
    for (Vector *x : {v, out, partial}) Vector_Free(x);
    ObjectSet_Free(set);
}

TEST(ObjectSet, FailuresKeepTheSetWorking) {
    EXPECT_EQ(0, test::InChild([] {
        Pool make;
        test::FailAllocation(1);
        EXPECT_EQ(ObjectSet_New(), nullptr);
        test::FailAllocation(2);
        EXPECT_EQ(ObjectSet_New(), nullptr);  // the heads: no message

        ObjectSet *set = ObjectSet_New();
        int32_t added = -1;
        test::FailAllocation(1);
        EXPECT_EQ(ObjectSet_Add(set, make(1, 1), &added), -2);
        EXPECT_EQ(added, -1);  // untouched
        for (int32_t h = 1; h <= 5; h++) ObjectSet_Add(set, make(h, h), nullptr);
        test::FailAllocation(2);  // the entry succeeds, the rehash does not
        EXPECT_EQ(ObjectSet_Add(set, make(6, 6), &added), 0);
        EXPECT_EQ(set->bucketCount, 8);
        EXPECT_EQ(set->usedBuckets, 6);
        EXPECT_EQ(static_cast<Keyed *>(ObjectSet_Find(set, make(6, 6)))->id, 6);
        ObjectSet_Add(set, make(6, 6), &added);  // a duplicate still retries the rehash
        EXPECT_EQ(added, 0);
        EXPECT_EQ(set->bucketCount, 16);

        Vector *v = Vector_New();
        Vector_Add(v, make(40, 40));
        Vector_Add(v, make(41, 41));
        test::FailAllocation(1);
        EXPECT_EQ(ObjectSet_AddVector(set, v), 0);  // stopped at the failure, still 0
        EXPECT_EQ(ObjectSet_Find(set, make(41, 41)), nullptr);
        Vector_Free(v);

        // The largest count is 2^30: the next doubling overflows and is refused.
        const int32_t count = set->bucketCount, threshold = set->rehashThreshold;
        set->bucketCount = 1 << 30;
        set->rehashThreshold = 1;
        ObjectSet_Add(set, make(2, 2), nullptr);
        EXPECT_EQ(set->bucketCount, 1 << 30);
        set->bucketCount = count;
        set->rehashThreshold = threshold;
        ObjectSet_Free(set);

        const std::string log = test::ReadFile("vokt.log");
        for (const char *text : {": Unable to allocate ObjectSet oset\n", ": Failed to allocate entry structure\n",
                                 ": Unable to rehash ObjectSet due to low memory - performance may be compromised.\n",
                                 ": Unable to rehash ObjectSet - too many buckets\n"})
            EXPECT_NE(log.find(text), std::string::npos) << text;
        EXPECT_EQ(test::Count(log, "Failed to allocate entry structure"), 2);
    }));
}

}  // namespace
