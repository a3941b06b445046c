// String building and the cost of a log call below and above the threshold.
#include <benchmark/benchmark.h>
#include <stdio.h>

#include <string>

#include "vokt/vokt.h"
#ifdef VOKT_BENCH_GLIB
#include <glib.h>
#endif

namespace {

void VoktStringAppend(benchmark::State &state) {
    for (auto _ : state) {
        String *s = String_New();
        for (int i = 0; i < 100; i++) String_AppendChars(s, "word ");
        benchmark::DoNotOptimize(s->string);
        String_Destroy(s);
    }
}
void StdStringAppend(benchmark::State &state) {
    for (auto _ : state) {
        std::string s;
        for (int i = 0; i < 100; i++) s += "word ";
        benchmark::DoNotOptimize(s.data());
    }
}
BENCHMARK(VoktStringAppend);
BENCHMARK(StdStringAppend);
#ifdef VOKT_BENCH_GLIB
void GlibStringAppend(benchmark::State &state) {
    for (auto _ : state) {
        GString *s = g_string_new(nullptr);
        for (int i = 0; i < 100; i++) g_string_append(s, "word ");
        benchmark::DoNotOptimize(s->str);
        g_string_free(s, TRUE);
    }
}
BENCHMARK(GlibStringAppend);
#endif

void VoktFormat(benchmark::State &state) {
    String *s = String_New();
    for (auto _ : state) String_Format(s, "%s=%d (%0.2f)", "key", 42, 3.5);
    String_Destroy(s);
}
void SnprintfFormat(benchmark::State &state) {
    char buffer[64];
    for (auto _ : state) benchmark::DoNotOptimize(snprintf(buffer, sizeof buffer, "%s=%d (%0.2f)", "key", 42, 3.5));
}
BENCHMARK(VoktFormat);
BENCHMARK(SnprintfFormat);

// A call above the threshold: one scratch string, one lock, one comparison.
void VoktLogFiltered(benchmark::State &state) {
    for (auto _ : state) Log_Write(50, "filtered %d", 1);
}
BENCHMARK(VoktLogFiltered);

void VoktLogWritten(benchmark::State &state) {
    Log_SetFile("/tmp/vokt-bench.log");
    for (auto _ : state) Log_Write(0, "written %d", 1);
    remove("/tmp/vokt-bench.log");
}
void FopenFprintfFclose(benchmark::State &state) {
    for (auto _ : state) {
        FILE *f = fopen("/tmp/vokt-bench-peer.log", "a");
        fprintf(f, "%s: written %d\n", "22/11/2026 10:00:00", 1);
        fclose(f);
    }
    remove("/tmp/vokt-bench-peer.log");
}
BENCHMARK(VoktLogWritten);
BENCHMARK(FopenFprintfFclose);

}  // namespace

BENCHMARK_MAIN();
