// Vector and StringMap against the containers a C++ or GLib user would otherwise pick.
#include <benchmark/benchmark.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "vokt/vokt.h"
#ifdef VOKT_BENCH_GLIB
#include <glib.h>
#endif

namespace {

void VoktVectorAdd(benchmark::State &state) {
    static int item;
    for (auto _ : state) {
        Vector *v = Vector_New();
        for (int64_t i = 0; i < state.range(0); i++) Vector_Add(v, &item);
        benchmark::DoNotOptimize(v->data);
        Vector_Free(v);
    }
}
void StdVectorPushBack(benchmark::State &state) {
    static int item;
    for (auto _ : state) {
        std::vector<void *> v;
        for (int64_t i = 0; i < state.range(0); i++) v.push_back(&item);
        benchmark::DoNotOptimize(v.data());
    }
}
BENCHMARK(VoktVectorAdd)->Arg(100)->Arg(10000);
BENCHMARK(StdVectorPushBack)->Arg(100)->Arg(10000);

std::vector<std::string> Keys(int64_t n) {
    std::vector<std::string> keys;
    for (int64_t i = 0; i < n; i++) keys.push_back("key-" + std::to_string(i));
    return keys;
}

void VoktStringMapGet(benchmark::State &state) {
    const auto keys = Keys(state.range(0));
    StringMap *map = StringMap_New();
    for (const auto &k : keys) StringMap_Set(map, k.c_str(), "value");
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(StringMap_Get(map, keys[i++ % keys.size()].c_str()));
    StringMap_Free(map);
}
void StdUnorderedMapFind(benchmark::State &state) {
    const auto keys = Keys(state.range(0));
    std::unordered_map<std::string, std::string> map;
    for (const auto &k : keys) map[k] = "value";
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(map.find(keys[i++ % keys.size()]));
}
BENCHMARK(VoktStringMapGet)->Arg(1000)->Arg(100000);
BENCHMARK(StdUnorderedMapFind)->Arg(1000)->Arg(100000);

#ifdef VOKT_BENCH_GLIB
void GlibHashTableLookup(benchmark::State &state) {
    const auto keys = Keys(state.range(0));
    GHashTable *table = g_hash_table_new(g_str_hash, g_str_equal);
    for (const auto &k : keys) g_hash_table_insert(table, const_cast<char *>(k.c_str()), const_cast<char *>("value"));
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(g_hash_table_lookup(table, keys[i++ % keys.size()].c_str()));
    g_hash_table_destroy(table);
}
BENCHMARK(GlibHashTableLookup)->Arg(1000)->Arg(100000);
#endif

}  // namespace

BENCHMARK_MAIN();
