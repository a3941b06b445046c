// SPDX-License-Identifier: MIT
// Vector, ObjectSet, StringMap and StringBag driven by the input, each checked after every
// step against a standard container doing the same.
#include <fuzzer/FuzzedDataProvider.h>
#include <strings.h>

#include <algorithm>
#include <map>
#include <set>
#include <vector>

#include "check.h"

namespace {

struct NoCase {
    bool operator()(const std::string &a, const std::string &b) const { return strcasecmp(a.c_str(), b.c_str()) < 0; }
};

std::string Key(FuzzedDataProvider &in) { return CText(in.ConsumeRandomLengthString(4)); }

const String *At(Vector *v, int64_t i) { return static_cast<const String *>(Vector_GetAt(v, i)); }

void SameAs(Vector *v, const std::vector<std::string> &model) {
    FUZZ_CHECK(Vector_Length(v) == static_cast<int64_t>(model.size()));
    for (size_t i = 0; i < model.size(); i++) FUZZ_CHECK(Text(At(v, static_cast<int64_t>(i))) == model[i]);
}

void SetIsWhole(const ObjectSet *set) {
    int32_t used = 0;
    for (int32_t b = 0; b < set->bucketCount; b++) used += set->buckets[b] != nullptr;
    FUZZ_CHECK(used == set->usedBuckets);
    FUZZ_CHECK(set->rehashThreshold == static_cast<int32_t>(set->bucketCount * set->loadFactor));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    Vector *vector = Vector_NewOwning(), *keep = Vector_NewOwning();  // keep: the set's objects
    std::vector<std::string> vectorModel;
    ObjectSet *set = ObjectSet_New();
    std::set<std::string> setModel;
    StringMap *map = StringMap_New(), *copy = StringMap_New();
    std::map<std::string, std::string> mapModel;
    StringBag *bag = StringBag_New();
    std::map<std::string, uint32_t, NoCase> bagModel;
    String *probe = String_New();

    while (in.remaining_bytes() > 0) {
        const std::string key = Key(in);
        String_Set(probe, key.c_str());
        switch (in.ConsumeIntegralInRange(0, 13)) {
            case 0:
                Vector_Add(vector, String_NewFromChars(key.c_str()));
                vectorModel.push_back(key);
                break;
            case 1: {
                if (vectorModel.empty()) break;
                const size_t i = in.ConsumeIntegralInRange<size_t>(0, vectorModel.size() - 1);
                Object_Destroy(Vector_RemoveAt(vector, static_cast<int64_t>(i)));
                vectorModel.erase(vectorModel.begin() + static_cast<long>(i));
                break;
            }
            case 2: {
                auto found = std::find(vectorModel.begin(), vectorModel.end(), key);
                FUZZ_CHECK(Vector_Contains(vector, probe) == (found != vectorModel.end()));
                void *removed = Vector_Remove(vector, probe);
                FUZZ_CHECK((removed != nullptr) == (found != vectorModel.end()));
                if (removed) vectorModel.erase(found);
                Object_Destroy(removed);
                break;
            }
            case 3:
                Vector_Sort(vector);
                std::sort(vectorModel.begin(), vectorModel.end(), [](const std::string &a, const std::string &b) { return strcmp(a.c_str(), b.c_str()) < 0; });
                break;
            case 4: {
                String *object = String_NewFromChars(key.c_str());
                Vector_Add(keep, object);
                int32_t added = -1;
                FUZZ_CHECK(ObjectSet_Add(set, object, &added) == 0);
                FUZZ_CHECK(added == (setModel.count(key) == 0));
                setModel.insert(key);
                break;
            }
            case 5: {
                const String *found = static_cast<const String *>(ObjectSet_Find(set, probe));
                FUZZ_CHECK((found != nullptr) == (setModel.count(key) == 1));
                if (found) FUZZ_CHECK(Text(found) == key);
                const String *removed = static_cast<const String *>(ObjectSet_Remove(set, probe));
                FUZZ_CHECK(removed == found);
                setModel.erase(key);
                break;
            }
            case 6: {
                const String *any = static_cast<const String *>(ObjectSet_RemoveAny(set));
                FUZZ_CHECK((any != nullptr) == !setModel.empty());
                if (any) FUZZ_CHECK(setModel.erase(Text(any)) == 1);
                break;
            }
            case 7: {
                Vector *all = Vector_New();
                FUZZ_CHECK(ObjectSet_ToVector(set, all) == 0);
                std::set<std::string> seen;
                for (int64_t i = 0; i < Vector_Length(all); i++) seen.insert(Text(At(all, i)));
                FUZZ_CHECK(seen == setModel);
                FUZZ_CHECK(Vector_Length(all) == static_cast<int64_t>(setModel.size()));
                Vector_Free(all);
                break;
            }
            case 8:
            case 9: {
                const bool remove = in.ConsumeBool();
                const std::string value = CText(in.ConsumeRandomLengthString(4));
                FUZZ_CHECK(StringMap_Set(map, key.c_str(), remove ? nullptr : value.c_str()) == 0);
                remove ? (void)mapModel.erase(key) : (void)(mapModel[key] = value);
                break;
            }
            case 10: {
                const char *got = StringMap_Get(map, key.c_str());
                FUZZ_CHECK((got != nullptr) == (mapModel.count(key) == 1));
                if (got) FUZZ_CHECK(got == mapModel[key]);
                break;
            }
            case 11:
                FUZZ_CHECK(StringMap_Assign(copy, map) == 0);
                FUZZ_CHECK(StringMap_Length(copy) == static_cast<int32_t>(mapModel.size()));
                for (const auto &[k, v] : mapModel) FUZZ_CHECK(StringMap_Get(copy, k.c_str()) == v);
                break;
            case 12: {
                const uint32_t count = in.ConsumeIntegral<uint32_t>();
                FUZZ_CHECK(StringBag_Add(bag, key.c_str(), count) == 0);
                bagModel[key] += count;
                break;
            }
            default:
                Vector_Clear(vector);
                vectorModel.clear();
                ObjectSet_Clear(set);
                setModel.clear();
                StringMap_Clear(map);
                mapModel.clear();
                break;
        }
        SameAs(vector, vectorModel);
        SetIsWhole(set);
        FUZZ_CHECK(StringMap_Length(map) == static_cast<int32_t>(mapModel.size()));
        for (int32_t i = 1; i < StringMap_Length(map); i++)  // kept in key-hash order
            FUZZ_CHECK(map->entries[i - 1].hash <= map->entries[i].hash);
    }
    FUZZ_CHECK(StringBag_Length(bag) == static_cast<int64_t>(bagModel.size()));
    for (int64_t i = 0; i < StringBag_Length(bag); i++) {
        const auto *e = static_cast<const StringBagElem *>(Vector_GetAt(bag->elements, i));
        FUZZ_CHECK(bagModel.at(Text(e->string)) == e->count);
    }
    for (void *o : {(void *)vector, (void *)keep, (void *)set, (void *)map, (void *)copy, (void *)bag, (void *)probe})
        Object_Destroy(o);
    return 0;
}
