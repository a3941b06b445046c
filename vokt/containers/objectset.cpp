// SPDX-License-Identifier: MIT
// ObjectSet: separate chaining keyed by the objects' own Hash and Equals slots. The load
// is measured in occupied buckets, so collisions do not bring a rehash nearer. Each entry
// keeps its object's hash beside the public fields: a chain is walked comparing hashes, Equals
// is called only where they agree, and a rehash never calls Hash again.
#include "vokt/containers/objectset.h"

#include <string.h>

#include "vokt/diag/log.h"
#include "vokt/internal/alloc.h"
#include "vokt/internal/assert.h"
#include "vokt/internal/classes.h"
#include "vokt/internal/equality.h"

namespace {

constexpr char kModule[] = "objectset";
constexpr int32_t kInitialBuckets = 8;
constexpr double kLoadFactor = 0.75;

const ClassDescriptor *ClassOf(const void *object) { return static_cast<const Object *>(object)->ftbl; }

// The set's own entry: the public one first, so that a program walking the chains reads
// entries as it always has. Its hash takes room the allocator gives an entry anyway (a
// 16-byte request is served from the same 32-byte chunk as a 24-byte one).
struct Entry {
    ObjectSetEntry shown;
    int32_t hash;
};
Entry *EntryOf(ObjectSetEntry *e) { return reinterpret_cast<Entry *>(e); }

int32_t HashOf(const void *object) { return ClassOf(object)->Hash(object); }

// Absolute value and remainder in signed 32-bit arithmetic: the most negative hash keeps
// its sign and, bucket counts being powers of two times 8, lands in bucket 0.
int32_t BucketOf(int32_t hash, int32_t bucketCount) {
    const int32_t magnitude = hash < 0 ? static_cast<int32_t>(0u - static_cast<uint32_t>(hash)) : hash;
    if (bucketCount <= 0) return 0;  // only a record written over by hand has no buckets
    // A power of two (as every count the set makes is) divides 2^31, so the remainder is
    // the low bits, the most negative hash's included.
    if ((bucketCount & (bucketCount - 1)) == 0)
        return static_cast<int32_t>(static_cast<uint32_t>(magnitude) & static_cast<uint32_t>(bucketCount - 1));
    const int32_t bucket = magnitude % bucketCount;
    return bucket < 0 ? -bucket : bucket;
}

// The link, in the probe's bucket, that points at the first entry equal to probe (or at
// the chain's end). Equal objects hash alike, so an entry of another hash is passed by.
ObjectSetEntry **FindLink(ObjectSet *set, const void *probe, int32_t hash, int32_t bucket) {
    ObjectSetEntry **link = &set->buckets[bucket];
    const auto *p = static_cast<const Object *>(probe);
    while (*link && (EntryOf(*link)->hash != hash || !vokt::Matches(p, static_cast<const Object *>((*link)->object))))
        link = &(*link)->next;
    return link;
}

void *Unlink(ObjectSet *set, ObjectSetEntry **link, int32_t bucket) {
    ObjectSetEntry *entry = *link;
    *link = entry->next;
    if (!set->buckets[bucket]) set->usedBuckets--;
    void *object = entry->object;
    vokt::Free(entry);
    return object;
}

void Rehash(ObjectSet *set) {
    const int32_t oldCount = set->bucketCount;
    const int32_t newCount = static_cast<int32_t>(static_cast<uint32_t>(oldCount) * 2u);
    if (newCount <= oldCount) {
        Log_Write(0, "Unable to rehash ObjectSet - too many buckets");
        return;
    }
    auto **grown = static_cast<ObjectSetEntry **>(
        vokt::Realloc(set->buckets, static_cast<size_t>(newCount) * sizeof(ObjectSetEntry *)));
    if (!grown) {
        Log_Write(0, "Unable to rehash ObjectSet due to low memory - performance may be compromised.");
        return;
    }
    set->buckets = grown;
    memset(grown + oldCount, 0, static_cast<size_t>(oldCount) * sizeof(ObjectSetEntry *));
    for (int32_t i = 0; i < oldCount; i++) {
        ObjectSetEntry **link = &grown[i];
        while (*link) {
            ObjectSetEntry *entry = *link;
            const int32_t j = BucketOf(EntryOf(entry)->hash, newCount);
            if (j == i) {
                link = &entry->next;
                continue;
            }
            // Moved entries are pushed at the head, so they reach the upper bucket in
            // reverse order.
            *link = entry->next;
            if (!grown[i]) set->usedBuckets--;
            if (!grown[j]) set->usedBuckets++;
            entry->next = grown[j];
            grown[j] = entry;
        }
    }
    set->rehashThreshold = static_cast<int32_t>(newCount * set->loadFactor);
    set->bucketCount = newCount;
}


}  // namespace

namespace vokt {
const ObjectSetDescriptor kObjectSetClass = {
    {sizeof(ObjectSet), "Set", +[](void *o) { ObjectSet_Free(static_cast<ObjectSet *>(o)); }, nullptr, nullptr,
     nullptr},
    ObjectSet_Add,
    ObjectSet_Remove,
    ObjectSet_Find,
    ObjectSet_AddVector,
    ObjectSet_ToVector,
    ObjectSet_Clear,
    ObjectSet_RemoveAny,
};
}  // namespace vokt

extern "C" {

ObjectSet *ObjectSet_New(void) {
    auto *oset = vokt::New<ObjectSet>(&vokt::kObjectSetClass.base, "ObjectSet oset");
    if (!oset) return nullptr;
    oset->bucketCount = kInitialBuckets;
    oset->usedBuckets = 0;
    oset->rehashThreshold = static_cast<int32_t>(kInitialBuckets * kLoadFactor);
    oset->loadFactor = kLoadFactor;
    oset->buckets = static_cast<ObjectSetEntry **>(vokt::AllocFor(oset, kInitialBuckets * sizeof(ObjectSetEntry *)));
    if (!oset->buckets) {
        vokt::Free(oset);  // no message for the heads, only for the record
        return nullptr;
    }
    memset(oset->buckets, 0, kInitialBuckets * sizeof(ObjectSetEntry *));
    return oset;
}

int32_t ObjectSet_Add(ObjectSet *set, void *obj, int32_t *added) {
    VOKT_ASSERT_OR_RETURN(set != NULL, -1);
    if (vokt::UsedAfterDestroy(set, &vokt::kObjectSetClass.base)) return -1;
    VOKT_ASSERT_OR_RETURN(obj != NULL, -1);
    vokt::OwnedBy mine(set);
    VOKT_ASSERT_OR_RETURN(ClassOf(obj)->Hash != NULL, -1);  // an object that cannot be placed
    int32_t result = 0;
    const int32_t hash = HashOf(obj);
    const int32_t bucket = BucketOf(hash, set->bucketCount);
    ObjectSetEntry **link = FindLink(set, obj, hash, bucket);
    if (*link) {
        if (added) *added = 0;
    } else {
        auto *entry = static_cast<Entry *>(vokt::Alloc(sizeof(Entry)));
        if (!entry) {
            Log_Write(0, "Failed to allocate entry structure");
            result = -2;
        } else {
            const bool wasEmpty = set->buckets[bucket] == nullptr;
            *entry = {{obj, nullptr}, hash};
            *link = &entry->shown;
            if (added) *added = 1;
            if (wasEmpty) set->usedBuckets++;
        }
    }
    // Checked on every call, found or failed alike.
    if (set->usedBuckets >= set->rehashThreshold) Rehash(set);
    return result;
}

void *ObjectSet_Find(ObjectSet *set, void *probe) {
    VOKT_ASSERT_OR_RETURN(set != NULL, nullptr);
    if (vokt::UsedAfterDestroy(set, &vokt::kObjectSetClass.base)) return nullptr;
    if (!probe) return nullptr;
    VOKT_ASSERT_OR_RETURN(ClassOf(probe)->Hash != NULL, nullptr);
    const int32_t hash = HashOf(probe);
    ObjectSetEntry *entry = *FindLink(set, probe, hash, BucketOf(hash, set->bucketCount));
    return entry ? entry->object : nullptr;
}

void *ObjectSet_Remove(ObjectSet *set, void *probe) {
    VOKT_ASSERT_OR_RETURN(set != NULL, nullptr);
    if (vokt::UsedAfterDestroy(set, &vokt::kObjectSetClass.base)) return nullptr;
    if (!probe) return nullptr;
    VOKT_ASSERT_OR_RETURN(ClassOf(probe)->Hash != NULL, nullptr);
    const int32_t hash = HashOf(probe);
    const int32_t bucket = BucketOf(hash, set->bucketCount);
    ObjectSetEntry **link = FindLink(set, probe, hash, bucket);
    return *link ? Unlink(set, link, bucket) : nullptr;
}

void *ObjectSet_RemoveAny(ObjectSet *set) {
    VOKT_ASSERT_OR_RETURN(set != NULL, nullptr);
    if (vokt::UsedAfterDestroy(set, &vokt::kObjectSetClass.base)) return nullptr;
    for (int32_t i = 0; i < set->bucketCount; i++)
        if (set->buckets[i]) return Unlink(set, &set->buckets[i], i);
    return nullptr;
}

int32_t ObjectSet_AddVector(ObjectSet *set, Vector *vector) {
    VOKT_ASSERT_OR_RETURN(set != NULL && vector != NULL, -1);
    if (vokt::UsedAfterDestroy(set, &vokt::kObjectSetClass.base) || vokt::UsedAfterDestroy(vector, &vokt::kVectorClass.base)) return -1;
    const vokt::VectorReader read(vector);
    const int64_t count = read.Length();
    for (int64_t i = 0; i < count; i++) {
        void *element = read.At(i);
        // A failure ends the copy, and the result stays 0: callers have always read it so.
        if (ObjectSet_Add(set, element, nullptr) != 0) break;
    }
    return 0;
}

int32_t ObjectSet_ToVector(ObjectSet *set, Vector *vector) {
    VOKT_ASSERT_OR_RETURN(set != NULL && vector != NULL, -1);
    if (vokt::UsedAfterDestroy(set, &vokt::kObjectSetClass.base) || vokt::UsedAfterDestroy(vector, &vokt::kVectorClass.base)) return -1;
    const auto add = vokt::VectorSlots(vector)->Add;
    for (int32_t i = 0; i < set->bucketCount; i++)
        for (ObjectSetEntry *entry = set->buckets[i]; entry; entry = entry->next)
            if (!add(vector, entry->object)) return -2;
    return 0;
}

void ObjectSet_Clear(ObjectSet *set) {
    VOKT_ASSERT_OR_RETURN(set != NULL);
    if (vokt::UsedAfterDestroy(set, &vokt::kObjectSetClass.base)) return;
    for (int32_t i = 0; i < set->bucketCount; i++) {
        for (ObjectSetEntry *entry = set->buckets[i]; entry;) {
            ObjectSetEntry *next = entry->next;
            vokt::Free(entry);
            entry = next;
        }
        set->buckets[i] = nullptr;
    }
    set->usedBuckets = 0;
}

void ObjectSet_Free(ObjectSet *oset) {
    VOKT_ASSERT_OR_RETURN(oset != NULL);
    if (vokt::DestroyedAgain(oset, &vokt::kObjectSetClass.base)) return;  // destroyed before: reported, nothing released
    ObjectSet_Clear(oset);
    vokt::Free(oset->buckets);
    vokt::Free(oset);
}

}  // extern "C"
