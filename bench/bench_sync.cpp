// The recursive Mutex against raw pthreads and the C++ standard library.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <mutex>

#include "vokt/vokt.h"

namespace {

Mutex g_vokt;
pthread_mutex_t g_plain = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_recursive;
std::recursive_mutex g_std;

void Setup(const benchmark::State &) {
    Mutex_Init(&g_vokt);
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&g_recursive, &attributes);
}

void VoktMutex(benchmark::State &state) {
    for (auto _ : state) {
        Mutex_Lock(&g_vokt);
        Mutex_Unlock(&g_vokt);
    }
}
void PthreadMutex(benchmark::State &state) {
    for (auto _ : state) {
        pthread_mutex_lock(&g_plain);
        pthread_mutex_unlock(&g_plain);
    }
}
void PthreadRecursiveMutex(benchmark::State &state) {
    for (auto _ : state) {
        pthread_mutex_lock(&g_recursive);
        pthread_mutex_unlock(&g_recursive);
    }
}
void StdRecursiveMutex(benchmark::State &state) {
    for (auto _ : state) {
        g_std.lock();
        g_std.unlock();
    }
}
BENCHMARK(VoktMutex)->Setup(Setup)->Threads(1)->Threads(2);
BENCHMARK(PthreadMutex)->Threads(1)->Threads(2);
BENCHMARK(PthreadRecursiveMutex)->Setup(Setup)->Threads(1)->Threads(2);
BENCHMARK(StdRecursiveMutex)->Threads(1)->Threads(2);

}  // namespace

BENCHMARK_MAIN();
