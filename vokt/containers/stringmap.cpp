// SPDX-License-Identifier: MIT
// StringMap: a sorted array of entries ordered by the one-at-a-time hash of the key and
// searched by halving; equal hashes form adjacent runs that are compared key by key.
#include "vokt/containers/stringmap.h"

#include <string.h>

#include "vokt/internal/alloc.h"
#include "vokt/internal/assert.h"
#include "vokt/internal/hash.h"

namespace {

constexpr char kModule[] = "stringmap";
constexpr int32_t kInitialCapacity = 4;
constexpr int32_t kLinearGrowthFrom = 128;
constexpr int32_t kLinearGrowthStep = 16;

const ClassDescriptor kStringMapClass = {
    sizeof(StringMap), "StringMap", +[](void *o) { StringMap_Free(static_cast<StringMap *>(o)); },
    nullptr,           nullptr,     nullptr,
};

// A copy of text in memory of its own.
char *Duplicate(const char *text) {
    const size_t n = strlen(text) + 1;
    char *copy = static_cast<char *>(vokt::Alloc(n));
    if (copy) memcpy(copy, text, n);
    return copy;
}

uint32_t KeyHash(const char *key) { return vokt::OneAtATime(key, strlen(key)); }

// Index of the first entry whose hash is not below hash.
int32_t LowerBound(const StringMap *map, uint32_t hash) {
    int32_t low = 0, high = map->count;
    while (low < high) {
        const int32_t mid = low + (high - low) / 2;
        if (map->entries[mid].hash < hash)
            low = mid + 1;
        else
            high = mid;
    }
    return low;
}

// Index of key, or -1; *insertAt receives the place a new key of this hash goes.
int32_t Find(const StringMap *map, const char *key, uint32_t hash, int32_t *insertAt) {
    const int32_t first = LowerBound(map, hash);
    if (insertAt) *insertAt = first;
    for (int32_t i = first; i < map->count && map->entries[i].hash == hash; i++)
        if (strcmp(map->entries[i].key, key) == 0) return i;
    return -1;
}

void FreeEntries(StringMap *map) {
    for (int32_t i = 0; i < map->count; i++) {
        vokt::Free(map->entries[i].key);
        vokt::Free(map->entries[i].value);
    }
    map->count = 0;
}

bool Resize(StringMap *map, int32_t capacity) {
    void *entries = vokt::Realloc(map->entries, static_cast<size_t>(capacity) * sizeof(StringMapEntry));
    if (!entries) return false;
    map->entries = static_cast<StringMapEntry *>(entries);
    map->capacity = capacity;
    return true;
}

bool InRange(const StringMap *map, int32_t index) {
    return map && !vokt::UsedAfterDestroy(map, &kStringMapClass) && index >= 0 && index < map->count;
}

}  // namespace

extern "C" {

StringMap *StringMap_New(void) {
    auto *map = vokt::New<StringMap>(&kStringMapClass, "StringMap map");
    if (!map) return nullptr;
    map->entries = static_cast<StringMapEntry *>(vokt::AllocFor(map, kInitialCapacity * sizeof(StringMapEntry)));
    if (!map->entries) {
        vokt::Free(map);
        return nullptr;
    }
    map->capacity = kInitialCapacity;
    return map;
}

void StringMap_Free(StringMap *map) {
    VOKT_ASSERT_OR_RETURN(map != NULL);
    if (vokt::DestroyedAgain(map, &kStringMapClass)) return;  // destroyed before: reported, nothing released
    FreeEntries(map);
    vokt::Free(map->entries);
    vokt::Free(map);
}

int32_t StringMap_Set(StringMap *map, const char *key, const char *value) {
    VOKT_ASSERT_OR_RETURN(map != NULL, -1);
    if (vokt::UsedAfterDestroy(map, &kStringMapClass)) return -1;
    VOKT_ASSERT_OR_RETURN(key != NULL, -1);
    vokt::OwnedBy mine(map);
    const uint32_t hash = KeyHash(key);
    int32_t insertAt = 0;
    const int32_t found = Find(map, key, hash, &insertAt);
    if (found >= 0) {
        StringMapEntry &entry = map->entries[found];
        if (value) {
            char *copy = Duplicate(value);
            if (!copy) return -2;
            vokt::Free(entry.value);
            entry.value = copy;
            return 0;
        }
        vokt::Free(entry.key);
        vokt::Free(entry.value);
        memmove(&map->entries[found], &map->entries[found + 1],
                static_cast<size_t>(map->count - found - 1) * sizeof(StringMapEntry));
        map->count--;
        return 0;
    }
    if (!value) return 0;
    if (map->count == map->capacity) {
        const int32_t capacity = map->capacity == 0                  ? 1
                                 : map->capacity < kLinearGrowthFrom ? map->capacity * 2
                                                                     : map->capacity + kLinearGrowthStep;
        if (!Resize(map, capacity)) return -2;
    }
    // Both copies are made before anything moves, so a failure leaves the map as it was.
    char *keyCopy = Duplicate(key);
    char *valueCopy = keyCopy ? Duplicate(value) : nullptr;
    if (!valueCopy) {
        vokt::Free(keyCopy);
        return -2;
    }
    memmove(&map->entries[insertAt + 1], &map->entries[insertAt],
            static_cast<size_t>(map->count - insertAt) * sizeof(StringMapEntry));
    map->entries[insertAt] = {hash, keyCopy, valueCopy};
    map->count++;
    return 0;
}

const char *StringMap_Get(const StringMap *map, const char *key) {
    VOKT_ASSERT_OR_RETURN(map != NULL, nullptr);
    if (vokt::UsedAfterDestroy(map, &kStringMapClass)) return nullptr;
    if (!key || map->count == 0) return nullptr;
    const int32_t found = Find(map, key, KeyHash(key), nullptr);
    return found >= 0 ? map->entries[found].value : nullptr;
}

const char *StringMap_KeyAt(const StringMap *map, int32_t index) {
    return InRange(map, index) ? map->entries[index].key : nullptr;
}

const char *StringMap_ValueAt(const StringMap *map, int32_t index) {
    return InRange(map, index) ? map->entries[index].value : nullptr;
}

int32_t StringMap_Length(const StringMap *map) { return map && !vokt::UsedAfterDestroy(map, &kStringMapClass) ? map->count : 0; }

void StringMap_Clear(StringMap *map) {
    VOKT_ASSERT_OR_RETURN(map != NULL);
    if (vokt::UsedAfterDestroy(map, &kStringMapClass)) return;
    FreeEntries(map);
    if (map->capacity > kLinearGrowthFrom) Resize(map, kLinearGrowthFrom);  // kept as is when that fails
}

int32_t StringMap_Assign(StringMap *dst, const StringMap *src) {
    VOKT_ASSERT_OR_RETURN(dst != NULL && src != NULL, -1);
    if (vokt::UsedAfterDestroy(dst, &kStringMapClass) || vokt::UsedAfterDestroy(src, &kStringMapClass)) return -1;
    vokt::OwnedBy mine(dst);
    if (dst == src) return 0;
    StringMap_Clear(dst);
    if (src->count > dst->capacity && !Resize(dst, src->capacity)) return -2;
    for (int32_t i = 0; i < src->count; i++) {
        char *key = Duplicate(src->entries[i].key);
        char *value = key ? Duplicate(src->entries[i].value) : nullptr;
        if (!value) {
            vokt::Free(key);
            return -2;
        }
        dst->entries[dst->count++] = {src->entries[i].hash, key, value};
    }
    return 0;
}

}  // extern "C"
