// SPDX-License-Identifier: MIT
// The checks' hash table, driven directly.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "vokt/checks/internal/common.h"

namespace {

struct Entry {
    uint64_t key;   // 0: empty
    uint64_t hash;  // chosen by the test, to make runs and wrap them past the end
};
struct Traits {
    static bool Empty(const Entry &e) { return e.key == 0; }
    static uint64_t Hash(const Entry &e) { return e.hash; }
};
using Table = vokt::checks::Table<Entry, Traits>;

Entry *Find(const Table &t, uint64_t key, uint64_t hash) {
    return t.Find(hash, [key](const Entry &e) { return e.key == key; });
}

// A full table refuses more, and a search for what it lacks still ends. Removing from a run
// that wraps past the last slot moves the rest of the run back across the end.
TEST(ChecksTable, RemovalsCloseRunsAcrossTheEndOfAFullTable) {
    Entry slots[8] = {};
    Table t;
    t.Attach(slots, 8);
    const Entry run[] = {{1, 6}, {2, 7}, {3, 6}, {4, 7}, {5, 0}, {6, 5}};  // in slots 6, 7, 0, 1, 2, 5
    for (const Entry &e : run) *t.Claim(e.hash) = e;
    ASSERT_TRUE(t.Full());  // a quarter of the slots stays empty, so that searches end
    ASSERT_EQ(t.Claim(3), nullptr);
    EXPECT_EQ(Find(t, 99, 3), nullptr);
    t.Remove(Find(t, 1, 6));
    EXPECT_TRUE(t.Valid());
    EXPECT_EQ(t.Count(), 5u);
    EXPECT_EQ(Find(t, 1, 6), nullptr);
    for (const Entry &e : run) EXPECT_EQ(Find(t, e.key, e.hash) != nullptr, e.key != 1) << e.key;
    EXPECT_EQ(slots[2].key, 0u) << "the run's end is emptied";
}

// Random puts and removals, with homes crowded at the end of the array, against a plain map;
// the table grows as the checks grow theirs.
TEST(ChecksTable, FollowsAPlainModelThroughGrowthAndRemoval) {
    Table t;
    std::map<uint64_t, uint64_t> model;
    std::mt19937_64 random(24);
    for (int step = 0; step < 20000; step++) {
        const uint64_t key = random() % 700 + 1, hash = ~(key % 45);
        Entry *found = Find(t, key, hash);
        ASSERT_EQ(found != nullptr, model.count(key) == 1) << "step " << step << " key " << key;
        if (found && random() % 2) {
            t.Remove(found);
            model.erase(key);
        } else if (!found) {
            ASSERT_TRUE(vokt::MakeRoom(t));
            *t.Claim(hash) = Entry{key, hash};
            model[key] = hash;
            ASSERT_LE(t.Count(), vokt::checks::Kept(t.Capacity())) << "step " << step;  // the load bound
        }
        ASSERT_EQ(t.Count(), model.size());
        ASSERT_TRUE(step % 500 != 0 || t.Valid()) << "step " << step;
    }
    EXPECT_TRUE(t.Valid());
    EXPECT_GE(t.Capacity(), 512u);
    for (const auto &[key, hash] : model) EXPECT_NE(Find(t, key, hash), nullptr) << key;
    vokt::Unmap(t.Slots(), t.Capacity() * sizeof(Entry));
}

}  // namespace
