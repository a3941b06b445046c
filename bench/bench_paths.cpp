// SPDX-License-Identifier: MIT
// The paths that code built on vokt calls millions of times, each run three ways side by
// side: vokt, the same algorithm written bare in C here (no library boundary), and the peer
// a user would otherwise pick (GLib, or pthreads where GLib is not installed). The run ends
// with one table of ratios, vokt / bare and vokt / peer, written as markdown and CSV (and
// as a chart when gnuplot is there), and the bytes each container holds per element.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <linux/futex.h>
#include <sys/single_threaded.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "vokt/vokt.h"
#ifdef VOKT_BENCH_GLIB
#include <glib.h>
#endif

namespace {

// ---- The bare algorithms: what vokt does, without the library around it. ----
namespace bare {

struct RecursiveMutex {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_t owner = 0;
    int depth = 0;
};
// The try and unlock steps as vokt takes them on the C library's default mutex: the lock
// word and the two fields that library's own trylock and unlock write.
thread_local pid_t t_tid = gettid();
inline bool Try(pthread_mutex_t *m) {
    if (m->__data.__lock != 0) return false;
    int expected = 0;
    if (!__atomic_compare_exchange_n(&m->__data.__lock, &expected, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
        return false;
    m->__data.__owner = t_tid;
    ++m->__data.__nusers;
    return true;
}
inline void Lock(RecursiveMutex *m) {
    if (!Try(&m->mutex) && m->owner != pthread_self()) pthread_mutex_lock(&m->mutex);
    if (m->depth++ == 0) m->owner = pthread_self();
}
inline void Unlock(RecursiveMutex *m) {
    if (--m->depth == 0) {
        m->owner = 0;
        m->mutex.__data.__owner = 0;
        --m->mutex.__data.__nusers;
        if (__atomic_exchange_n(&m->mutex.__data.__lock, 0, __ATOMIC_RELEASE) > 1)
            syscall(SYS_futex, &m->mutex.__data.__lock, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
}

// The records are laid out as vokt's, so that both members ask the allocator for the same
// sizes: that is part of the algorithm (the allocator's cost depends on it).
struct Array {  // like Vector: grows by 10 slots, which sit behind one word holding their number
    const void *ftbl = nullptr;
    int64_t size = 0, capacity = 10, growBy = 10;
    int32_t synchronised = 0;
    void *mutex = nullptr;
    int32_t owns = 0;
    void **data = Slots(nullptr, 10);
    static void **Slots(void **old, int64_t count) {
        auto **block = static_cast<void **>(realloc(old ? old - 1 : nullptr, (count + 1) * sizeof(void *)));
        block[0] = reinterpret_cast<void *>(count);
        return block + 1;
    }
};
static_assert(sizeof(Array) == sizeof(Vector));
inline void Add(Array *a, void *p) {
    if (a->size == a->capacity) a->data = Array::Slots(a->data, a->capacity += a->growBy);
    a->data[a->size++] = p;
}
inline void Free(Array *a) {
    free(a->data - 1);
    free(a);
}
inline void *At(const Array *a, int64_t i) { return i >= 0 && i < a->size ? a->data[i] : nullptr; }

inline uint32_t Hash(const char *s, size_t n) {
    uint32_t h = 0;
    for (size_t i = 0; i < n; i++) h += static_cast<unsigned char>(s[i]), h += h << 10, h ^= h >> 6;
    h += h << 3;
    h ^= h >> 11;
    return h + (h << 15);
}

struct Entry {
    const char *key;
    Entry *next;
};
struct Set {  // separate chaining, grown when 3/4 of the buckets are occupied, like ObjectSet
    int32_t count = 8, used = 0;
    Entry **heads = static_cast<Entry **>(calloc(8, sizeof(Entry *)));
};
inline int32_t Bucket(const char *key, int32_t count) {
    const int32_t h = static_cast<int32_t>(Hash(key, strlen(key)));
    return (h < 0 ? -h : h) % count;
}
inline const char *Find(const Set *s, const char *key) {
    for (Entry *e = s->heads[Bucket(key, s->count)]; e; e = e->next)
        if (strcmp(e->key, key) == 0) return e->key;
    return nullptr;
}
inline void Insert(Set *s, const char *key) {
    Entry **link = &s->heads[Bucket(key, s->count)];
    const bool empty = *link == nullptr;
    while (*link && strcmp((*link)->key, key) != 0) link = &(*link)->next;
    if (!*link) *link = new (malloc(sizeof(Entry))) Entry{key, nullptr}, s->used += empty;
    if (s->used < s->count * 3 / 4) return;
    const int32_t old = s->count;
    s->heads = static_cast<Entry **>(realloc(s->heads, 2 * old * sizeof(Entry *)));
    memset(s->heads + old, 0, old * sizeof(Entry *));
    s->count = 2 * old;
    s->used = 0;
    for (int32_t i = 0; i < old; i++) {
        for (Entry **l = &s->heads[i]; *l;) {
            Entry *e = *l;
            const int32_t j = Bucket(e->key, s->count);
            if (j == i) {
                l = &e->next;
                continue;
            }
            *l = e->next;
            e->next = s->heads[j];
            s->heads[j] = e;
        }
    }
    for (int32_t i = 0; i < s->count; i++) s->used += s->heads[i] != nullptr;
}
void Free(Set *s) {
    for (int32_t i = 0; i < s->count; i++)
        for (Entry *e = s->heads[i]; e;) {
            Entry *next = e->next;
            free(e);
            e = next;
        }
    free(s->heads);
}

struct MapEntry {  // ascending key hash, found by halving, like StringMap
    uint32_t hash;
    const char *key, *value;
};
inline const char *Get(const std::vector<MapEntry> &m, const char *key) {
    const uint32_t h = Hash(key, strlen(key));
    size_t low = 0, high = m.size();
    while (low < high) {
        const size_t mid = (low + high) / 2;
        if (m[mid].hash < h)
            low = mid + 1;
        else
            high = mid;
    }
    for (; low < m.size() && m[low].hash == h; low++)
        if (strcmp(m[low].key, key) == 0) return m[low].value;
    return nullptr;
}

struct Text {  // like String: exact fit
    const void *ftbl = nullptr;
    int32_t set = 0;
    char *text = nullptr;
    size_t length = 0;
};
static_assert(sizeof(Text) == sizeof(String));
// Replaces the text with an exact copy, made before the old one goes, as a String is set.
// A stream keeps each line twice: in the caller's String and as its own last line.
inline void Keep(Text *t, const char *text, size_t n) {
    auto *copy = static_cast<char *>(malloc(n + 1));
    memcpy(copy, text, n);
    copy[n] = '\0';
    free(t->text);
    t->text = copy;
    t->length = n;
}
inline void Append(Text *t, const char *piece) {
    const size_t n = strlen(piece);
    t->text = static_cast<char *>(realloc(t->text, t->length + n + 1));
    memcpy(t->text + t->length, piece, n + 1);
    t->length += n;
}

}  // namespace bare

// ---- Shared inputs. ----
std::vector<std::string> Keys(size_t n) {
    std::vector<std::string> keys;
    for (size_t i = 0; i < n; i++) keys.push_back("key-" + std::to_string(i * 7919));
    return keys;
}
const std::vector<std::string> &KeysOf(size_t n) {
    static std::map<size_t, std::vector<std::string>> cache;
    auto &k = cache[n];
    if (k.empty()) k = Keys(n);
    return k;
}
std::string g_file;  // a 1 MB file of text lines

// Large inputs are built once and kept for the whole run: the benchmark library calls each
// body several times while it settles on an iteration count.
template <typename T, typename Build>
T &Once(size_t n, Build build) {
    static std::map<size_t, T> cache;
    auto found = cache.find(n);
    if (found == cache.end()) found = cache.emplace(n, build()).first;
    return found->second;
}

int g_item;

// An allocation loop: what the leaks and objects checks cost most on. Its first rounds run
// untimed, more than the quarantine holds (65536 objects): what a long-running program pays
// is the checks' steady state, the quarantine full and giving back one object a round, not
// its filling.
void MakeDestroy(benchmark::State &state) {
    const auto round = [] {
        String *s = String_NewFromChars("some text");
        String_AppendChars(s, " more");
        String_Destroy(s);
    };
    for (int i = 0; i < 70000; i++) round();
    for (auto _ : state) round();
}

// ---- The paths, three members each. ----
using Body = std::function<void(benchmark::State &)>;
struct Path {
    std::string name;
    Body vokt, bare, peer;
    std::string peerName;  // what the peer member is, for the table and the chart
    int threads = 1;       // the benchmark's threads running each member at once
};

// A member run with the given checks on (and all of them off afterwards).
Body WithChecks(uint32_t checks, Body body) {
    return [checks, body](benchmark::State &state) {
        Runtime_SetChecks(checks);
        body(state);
        Runtime_SetChecks(0);
    };
}

Body LockUnlock(int depth) {
    return [depth](benchmark::State &state) {
        Mutex m;
        Mutex_Init(&m);
        for (auto _ : state) {
            for (int i = 0; i < depth; i++) Mutex_Lock(&m);
            for (int i = 0; i < depth; i++) Mutex_Unlock(&m);
        }
    };
}
#ifdef VOKT_BENCH_GLIB
Body PeerLockUnlock(int depth) {
    return [depth](benchmark::State &state) {
        GRecMutex m;
        g_rec_mutex_init(&m);
        for (auto _ : state) {
            for (int i = 0; i < depth; i++) g_rec_mutex_lock(&m);
            for (int i = 0; i < depth; i++) g_rec_mutex_unlock(&m);
        }
        g_rec_mutex_clear(&m);
    };
}
#endif

// The C library's own mutex, default or recursive, as the baseline of a vokt Mutex.
Body PosixLockUnlock(int depth) {
    return [depth](benchmark::State &state) {
        pthread_mutexattr_t a;
        pthread_mutexattr_init(&a);
        if (depth > 1) pthread_mutexattr_settype(&a, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_t m;
        pthread_mutex_init(&m, &a);
        for (auto _ : state) {
            for (int i = 0; i < depth; i++) pthread_mutex_lock(&m);
            for (int i = 0; i < depth; i++) pthread_mutex_unlock(&m);
        }
        pthread_mutex_destroy(&m);
    };
}

// Two threads (the benchmark's own) taking one lock in turn, a count under it.
Mutex g_contended;
pthread_mutex_t g_posixContended = PTHREAD_MUTEX_INITIALIZER;
long g_turns = 0;
void VoktContended(benchmark::State &state) {
    for (auto _ : state) {
        Mutex_Lock(&g_contended);
        benchmark::DoNotOptimize(++g_turns);
        Mutex_Unlock(&g_contended);
    }
}
void PosixContended(benchmark::State &state) {
    for (auto _ : state) {
        pthread_mutex_lock(&g_posixContended);
        benchmark::DoNotOptimize(++g_turns);
        pthread_mutex_unlock(&g_posixContended);
    }
}

// True while the process has never had a second thread: the C library takes other steps
// until then, and keeps taking them once a thread has started, even after it has ended
// (which the number of threads alone does not show).
bool OneThread() {
    int n = 0;
    if (DIR *tasks = opendir("/proc/self/task")) {
        while (const dirent *entry = readdir(tasks)) n += entry->d_name[0] != '.';
        closedir(tasks);
    }
    return n == 1 && __libc_single_threaded;
}
// A member measured while the process has one thread (its rows come first), or once it
// has had several (a thread is started and joined first).
Body Alone(Body body) {
    return [body](benchmark::State &state) {
        if (!OneThread()) return state.SkipWithError("the process has started a thread already");
        body(state);
    };
}
Body Several(Body body) {
    return [body](benchmark::State &state) {
        static const bool started = [] {
            pthread_t t;
            pthread_create(&t, nullptr, [](void *) -> void * { return nullptr; }, nullptr);
            return pthread_join(t, nullptr) == 0;
        }();
        if (!started) return state.SkipWithError("no thread could be started");
        body(state);
    };
}

Body GetAt(bool synchronised) {
    return [synchronised](benchmark::State &state) {
        Vector *v = Vector_New();
        if (synchronised) Vector_SetSynchronized(v, 1);
        for (int i = 0; i < 64; i++) Vector_Add(v, &g_item);
        int64_t i = 0;
        for (auto _ : state) benchmark::DoNotOptimize(Vector_GetAt(v, i++ & 63));
        Vector_Free(v);
    };
}
Body BareGetAt(bool synchronised) {
    return [synchronised](benchmark::State &state) {
        // The record lives on the heap, as a Vector does, so both are read from memory.
        auto *a = new (malloc(sizeof(bare::Array))) bare::Array;
        bare::RecursiveMutex m;
        for (int i = 0; i < 64; i++) bare::Add(a, &g_item);
        int64_t i = 0;
        for (auto _ : state) {
            if (synchronised) bare::Lock(&m);
            benchmark::DoNotOptimize(bare::At(a, i++ & 63));
            if (synchronised) bare::Unlock(&m);
        }
        bare::Free(a);
    };
}
// An array under the C library's default mutex: what a synchronised Vector_GetAt is held to.
Body PosixGetAt() {
    return [](benchmark::State &state) {
        auto *a = new (malloc(sizeof(bare::Array))) bare::Array;
        pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
        for (int i = 0; i < 64; i++) bare::Add(a, &g_item);
        int64_t i = 0;
        for (auto _ : state) {
            pthread_mutex_lock(&m);
            benchmark::DoNotOptimize(bare::At(a, i++ & 63));
            pthread_mutex_unlock(&m);
        }
        bare::Free(a);
    };
}

#ifdef VOKT_BENCH_GLIB
Body PeerGetAt(bool synchronised) {
    return [synchronised](benchmark::State &state) {
        GPtrArray *a = g_ptr_array_new();
        GRecMutex m;
        g_rec_mutex_init(&m);
        for (int i = 0; i < 64; i++) g_ptr_array_add(a, &g_item);
        guint i = 0;
        for (auto _ : state) {
            if (synchronised) g_rec_mutex_lock(&m);
            benchmark::DoNotOptimize(g_ptr_array_index(a, i++ & 63));
            if (synchronised) g_rec_mutex_unlock(&m);
        }
        g_rec_mutex_clear(&m);
        g_ptr_array_free(a, TRUE);
    };
}
#endif

void VoktAdd64(benchmark::State &state) {
    for (auto _ : state) {
        Vector *v = Vector_New();
        for (int i = 0; i < 64; i++) Vector_Add(v, &g_item);
        benchmark::DoNotOptimize(v->data);
        Vector_Free(v);
    }
}
void BareAdd64(benchmark::State &state) {
    for (auto _ : state) {  // a record and its array, as Vector_New makes them
        auto *a = new (malloc(sizeof(bare::Array))) bare::Array;
        for (int i = 0; i < 64; i++) bare::Add(a, &g_item);
        benchmark::DoNotOptimize(a->data);
        bare::Free(a);
    }
}

#ifdef VOKT_BENCH_GLIB
void PeerAdd64(benchmark::State &state) {
    for (auto _ : state) {
        GPtrArray *a = g_ptr_array_new();
        for (int i = 0; i < 64; i++) g_ptr_array_add(a, &g_item);
        benchmark::DoNotOptimize(a->pdata);
        g_ptr_array_free(a, TRUE);
    }
}
#endif

// A set of n String keys, and the same keys probed in turn.
Body SetFind(size_t n) {
    return [n](benchmark::State &state) {
        struct Built {
            ObjectSet *set;
            std::vector<String *> probes;
        };
        const Built &built = Once<Built>(n, [n] {
            Built b{ObjectSet_New(), {}};
            for (const auto &k : KeysOf(n)) ObjectSet_Add(b.set, String_NewFromChars(k.c_str()), nullptr);
            for (size_t i = 0; i < 1024; i++) b.probes.push_back(String_NewFromChars(KeysOf(n)[(i * 7) % n].c_str()));
            return b;
        });
        size_t i = 0;
        for (auto _ : state) benchmark::DoNotOptimize(ObjectSet_Find(built.set, built.probes[i++ & 1023]));
    };
}
Body BareSetFind(size_t n) {
    return [n](benchmark::State &state) {
        const auto &keys = KeysOf(n);
        const bare::Set &set = Once<bare::Set>(n, [&] {
            bare::Set s;
            for (const auto &k : keys) bare::Insert(&s, k.c_str());
            return s;
        });
        size_t i = 0;
        for (auto _ : state) benchmark::DoNotOptimize(bare::Find(&set, keys[((i++ & 1023) * 7) % n].c_str()));
    };
}
#ifdef VOKT_BENCH_GLIB
Body PeerSetFind(size_t n) {
    return [n](benchmark::State &state) {
        const auto &keys = KeysOf(n);
        GHashTable *table = Once<GHashTable *>(n, [&] {
            GHashTable *t = g_hash_table_new(g_str_hash, g_str_equal);
            for (const auto &k : keys) g_hash_table_add(t, const_cast<char *>(k.c_str()));
            return t;
        });
        size_t i = 0;
        for (auto _ : state) benchmark::DoNotOptimize(g_hash_table_lookup(table, keys[((i++ & 1023) * 7) % n].c_str()));
    };
}
#endif

// Filling a container with n keys, from empty, so that its growth shows.
Body SetFill(size_t n) {
    return [n](benchmark::State &state) {
        std::vector<String *> strings;
        for (const auto &k : KeysOf(n)) strings.push_back(String_NewFromChars(k.c_str()));
        for (auto _ : state) {
            ObjectSet *set = ObjectSet_New();
            for (String *s : strings) ObjectSet_Add(set, s, nullptr);
            ObjectSet_Free(set);
        }
        for (String *s : strings) String_Destroy(s);
    };
}
Body BareSetFill(size_t n) {
    return [n](benchmark::State &state) {
        const auto &keys = KeysOf(n);
        for (auto _ : state) {
            bare::Set set;
            for (const auto &k : keys) bare::Insert(&set, k.c_str());
            bare::Free(&set);
        }
    };
}
Body MapFill(size_t n) {
    return [n](benchmark::State &state) {
        const auto &keys = KeysOf(n);
        for (auto _ : state) {
            StringMap *map = StringMap_New();
            for (const auto &k : keys) StringMap_Set(map, k.c_str(), "value");
            StringMap_Free(map);
        }
    };
}
Body BareMapFill(size_t n) {  // the same sorted array of copies, each insertion moving the later entries
    return [n](benchmark::State &state) {
        const auto &keys = KeysOf(n);
        for (auto _ : state) {
            std::vector<bare::MapEntry> map;
            for (const auto &k : keys) {
                const uint32_t h = bare::Hash(k.c_str(), k.size());
                auto at = std::lower_bound(map.begin(), map.end(), h, [](const bare::MapEntry &e, uint32_t v) { return e.hash < v; });
                map.insert(at, {h, strdup(k.c_str()), strdup("value")});
            }
            for (auto &e : map) free(const_cast<char *>(e.key)), free(const_cast<char *>(e.value));
        }
    };
}
#ifdef VOKT_BENCH_GLIB
Body PeerSetFill(size_t n, bool copies) {
    return [n, copies](benchmark::State &state) {
        const auto &keys = KeysOf(n);
        for (auto _ : state) {
            GHashTable *t = copies ? g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free)
                                   : g_hash_table_new(g_str_hash, g_str_equal);
            for (const auto &k : keys) {
                if (copies)
                    g_hash_table_insert(t, g_strdup(k.c_str()), g_strdup("value"));
                else
                    g_hash_table_add(t, const_cast<char *>(k.c_str()));
            }
            g_hash_table_destroy(t);
        }
    };
}
#endif

Body MapGet(size_t n) {
    return [n](benchmark::State &state) {
        const auto &keys = KeysOf(n);
        StringMap *map = Once<StringMap *>(n, [&] {
            StringMap *m = StringMap_New();
            for (const auto &k : keys) StringMap_Set(m, k.c_str(), "value");
            return m;
        });
        size_t i = 0;
        for (auto _ : state) benchmark::DoNotOptimize(StringMap_Get(map, keys[((i++ & 1023) * 7) % n].c_str()));
    };
}
Body BareMapGet(size_t n) {
    return [n](benchmark::State &state) {
        const auto &keys = KeysOf(n);
        const auto &map = Once<std::vector<bare::MapEntry>>(n, [&] {
            std::vector<bare::MapEntry> m;
            for (const auto &k : keys) m.push_back({bare::Hash(k.c_str(), k.size()), k.c_str(), "value"});
            std::sort(m.begin(), m.end(), [](const bare::MapEntry &a, const bare::MapEntry &b) { return a.hash < b.hash; });
            return m;
        });
        size_t i = 0;
        for (auto _ : state) benchmark::DoNotOptimize(bare::Get(map, keys[((i++ & 1023) * 7) % n].c_str()));
    };
}

void VoktAppend(benchmark::State &state) {
    for (auto _ : state) {
        String *s = String_New();
        for (int i = 0; i < 16; i++) String_AppendChars(s, "word ");
        benchmark::DoNotOptimize(s->string);
        String_Destroy(s);
    }
}
void BareAppend(benchmark::State &state) {
    for (auto _ : state) {  // a record and its text, as String_New makes them
        auto *t = new (malloc(sizeof(bare::Text))) bare::Text;
        // The piece is measured and copied at run time, as the library must: a literal seen
        // through would let the compiler drop the measuring and inline the copy.
        for (int i = 0; i < 16; i++) {
            const char *piece = "word ";
            benchmark::DoNotOptimize(piece);
            bare::Append(t, piece);
        }
        benchmark::DoNotOptimize(t->text);
        free(t->text);
        free(t);
    }
}
#ifdef VOKT_BENCH_GLIB
void PeerAppend(benchmark::State &state) {
    for (auto _ : state) {
        GString *s = g_string_new(nullptr);
        for (int i = 0; i < 16; i++) g_string_append(s, "word ");
        benchmark::DoNotOptimize(s->str);
        g_string_free(s, TRUE);
    }
}
#endif

// Every line of the 1 MB file, through a stdio file or a descriptor.
void ReadEveryLine(Stream *stream) {
    String *line = String_New();
    while (Stream_ReadLine(stream, line) == 0 && !Stream_IsEOF(stream)) benchmark::DoNotOptimize(line->string);
    String_Destroy(line);
    Stream_Destroy(stream);
}
void VoktFileLines(benchmark::State &state) {
    for (auto _ : state) {
        FILE *f = fopen(g_file.c_str(), "r");
        ReadEveryLine(Stream_NewFromFile(f));
        fclose(f);
    }
}
void BareFileLines(benchmark::State &state) {
    for (auto _ : state) {
        FILE *f = fopen(g_file.c_str(), "r");
        char buffer[1024];
        bare::Text line, last;
        while (fgets(buffer, sizeof buffer, f)) {
            size_t n = strlen(buffer);
            if (n && buffer[n - 1] == '\n') buffer[--n] = '\0';
            bare::Keep(&line, buffer, n);
            bare::Keep(&last, line.text, n);
            benchmark::DoNotOptimize(line.text);
        }
        free(line.text);
        free(last.text);
        fclose(f);
    }
}
// What a C programmer writes: getline into one growing buffer, on the file, or on a stdio
// file opened over the descriptor.
void GetlineEvery(FILE *f) {
    char *line = nullptr;
    size_t room = 0;
    ssize_t n;
    while ((n = getline(&line, &room, f)) >= 0) {
        if (n && line[n - 1] == '\n') line[--n] = '\0';
        benchmark::DoNotOptimize(line);
    }
    free(line);
}
void PeerFileLines(benchmark::State &state) {
    for (auto _ : state) {
        FILE *f = fopen(g_file.c_str(), "r");
        GetlineEvery(f);
        fclose(f);
    }
}
void PeerHandleLines(benchmark::State &state) {
    for (auto _ : state) {
        FILE *f = fdopen(open(g_file.c_str(), O_RDONLY), "r");
        GetlineEvery(f);
        fclose(f);
    }
}
void VoktHandleLines(benchmark::State &state) {
    for (auto _ : state) {
        const int fd = open(g_file.c_str(), O_RDONLY);
        ReadEveryLine(Stream_NewFromHandle(fd));
        close(fd);
    }
}
void BareHandleLines(benchmark::State &state) {
    for (auto _ : state) {
        const int fd = open(g_file.c_str(), O_RDONLY);
        char buffer[128];
        bare::Text line, last;
        ssize_t got;
        while ((got = read(fd, buffer, sizeof buffer)) > 0) {
            for (ssize_t start = 0, i = 0; i < got; i++) {
                if (buffer[i] != '\n' && i + 1 < got) continue;
                const size_t n = static_cast<size_t>(i - start + (buffer[i] == '\n' ? 0 : 1));
                line.text = static_cast<char *>(realloc(line.text, line.length + n + 1));
                memcpy(line.text + line.length, buffer + start, n);
                line.text[line.length += n] = '\0';
                if (buffer[i] == '\n') {
                    bare::Keep(&last, line.text, line.length);
                    benchmark::DoNotOptimize(line.text);
                    free(line.text);  // each line starts from an empty String
                    line.text = nullptr;
                    line.length = 0;
                }
                start = i + 1;
            }
        }
        free(line.text);
        free(last.text);
        close(fd);
    }
}

// A thousand short detached threads, each started, run and ended; the iteration waits
// until the last has run.
constexpr int kThreads = 1000;
std::atomic<int> g_running{0};
void *Finish(void *) {
    g_running.fetch_sub(1, std::memory_order_release);
    return nullptr;
}
template <typename Start>
void StartThreads(benchmark::State &state, Start start) {
    for (auto _ : state) {
        g_running.store(kThreads);
        for (int i = 0; i < kThreads; i++) start();
        while (g_running.load(std::memory_order_acquire) != 0) sched_yield();
    }
}
void VoktThreads(benchmark::State &state) {
    StartThreads(state, [] {
        Thread t;
        Thread_Create(&t, Finish, nullptr);
    });
}
void BareThreads(benchmark::State &state) {  // the same steps: attributes made, thread started detached
    StartThreads(state, [] {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
        pthread_t t;
        pthread_create(&t, &attributes, Finish, nullptr);
        pthread_attr_destroy(&attributes);
    });
}
#ifdef VOKT_BENCH_GLIB
void PeerThreads(benchmark::State &state) {
    StartThreads(state, [] { g_thread_unref(g_thread_new(nullptr, Finish, nullptr)); });
}
#endif

// ---- The table. ----
[[maybe_unused]] Body Nothing() { return nullptr; }  // a peer that is not installed

std::vector<Path> Paths() {
#ifdef VOKT_BENCH_GLIB
#define PEER(x) x
#define PEER_NAME(glib, other) glib
#else
#define PEER(x) Nothing()
#define PEER_NAME(glib, other) other
#endif
    // The C library locks with plain steps while the process has one thread: the lock rows
    // are measured both ways, those with one thread first, against the C library's mutex.
    const std::string posix = " (bare: pthread mutex)", recursive = " (bare: recursive pthread mutex)";
    const std::string array = " (bare: array under a pthread mutex)";
    return {
        {"Mutex lock+unlock, one thread" + posix, Alone(LockUnlock(1)), Alone(PosixLockUnlock(1)), PEER(Alone(PeerLockUnlock(1))), PEER_NAME("GRecMutex", "")},
        {"Mutex twice (recursion), one thread" + recursive, Alone(LockUnlock(2)), Alone(PosixLockUnlock(2)), PEER(Alone(PeerLockUnlock(2))), PEER_NAME("GRecMutex", "")},
        {"Vector_GetAt, synchronised, one thread" + array, Alone(GetAt(true)), Alone(PosixGetAt()), PEER(Alone(PeerGetAt(true))), PEER_NAME("GPtrArray + GRecMutex", "")},
        {"Mutex lock+unlock, several threads" + posix, Several(LockUnlock(1)), Several(PosixLockUnlock(1)), PEER(Several(PeerLockUnlock(1))), PEER_NAME("GRecMutex", "")},
        {"Mutex twice (recursion), several threads" + recursive, Several(LockUnlock(2)), Several(PosixLockUnlock(2)), PEER(Several(PeerLockUnlock(2))), PEER_NAME("GRecMutex", "")},
        {"Vector_GetAt, synchronised, several threads" + array, Several(GetAt(true)), Several(PosixGetAt()), PEER(Several(PeerGetAt(true))), PEER_NAME("GPtrArray + GRecMutex", "")},
        {"Mutex lock+unlock, two threads contending" + posix, VoktContended, PosixContended, {}, "", 2},
        {"Vector_GetAt", GetAt(false), BareGetAt(false), PEER(PeerGetAt(false)), PEER_NAME("GPtrArray", "")},
        {"64 x Vector_Add", VoktAdd64, BareAdd64, PEER(PeerAdd64), PEER_NAME("GPtrArray", "")},
        {"ObjectSet_Find 1k", SetFind(1000), BareSetFind(1000), PEER(PeerSetFind(1000)), PEER_NAME("GHashTable", "")},
        {"ObjectSet_Find 100k", SetFind(100000), BareSetFind(100000), PEER(PeerSetFind(100000)), PEER_NAME("GHashTable", "")},
        {"ObjectSet_Find 1M", SetFind(1000000), BareSetFind(1000000), PEER(PeerSetFind(1000000)), PEER_NAME("GHashTable", "")},
        {"ObjectSet_Add, filling 1k", SetFill(1000), BareSetFill(1000), PEER(PeerSetFill(1000, false)), PEER_NAME("GHashTable", "")},
        {"ObjectSet_Add, filling 100k", SetFill(100000), BareSetFill(100000), PEER(PeerSetFill(100000, false)), PEER_NAME("GHashTable", "")},
        {"ObjectSet_Add, filling 1M", SetFill(1000000), BareSetFill(1000000), PEER(PeerSetFill(1000000, false)), PEER_NAME("GHashTable", "")},
        {"StringMap_Get 1k", MapGet(1000), BareMapGet(1000), PEER(PeerSetFind(1000)), PEER_NAME("GHashTable", "")},
        {"StringMap_Get 100k", MapGet(100000), BareMapGet(100000), PEER(PeerSetFind(100000)), PEER_NAME("GHashTable", "")},
        {"StringMap_Get 1M", MapGet(1000000), BareMapGet(1000000), PEER(PeerSetFind(1000000)), PEER_NAME("GHashTable", "")},
        // Sorted insertion is quadratic: 1M keys would take minutes a run, so 10k is the middle row.
        {"StringMap_Set, filling 1k", MapFill(1000), BareMapFill(1000), PEER(PeerSetFill(1000, true)), PEER_NAME("GHashTable, copies", "")},
        {"StringMap_Set, filling 10k", MapFill(10000), BareMapFill(10000), PEER(PeerSetFill(10000, true)), PEER_NAME("GHashTable, copies", "")},
        {"StringMap_Set, filling 100k", MapFill(100000), BareMapFill(100000), PEER(PeerSetFill(100000, true)), PEER_NAME("GHashTable, copies", "")},
        {"String append (16 pieces)", VoktAppend, BareAppend, PEER(PeerAppend), PEER_NAME("GString", "")},
        {"file Stream, a 1 MB file of short lines", VoktFileLines, BareFileLines, PeerFileLines, "getline"},
        {"descriptor Stream, a 1 MB file of short lines", VoktHandleLines, BareHandleLines, PeerHandleLines, "fdopen + getline"},
        {"1000 detached threads", VoktThreads, BareThreads, PEER(PeerThreads), PEER_NAME("GThread", "")},
        // What a check costs where it costs most: the same vokt member with the check on,
        // against itself with every check off (the "bare" column).
        {"64 x Vector_Add, leaks on (bare: checks off)", WithChecks(VOKT_CHECK_LEAKS, VoktAdd64), WithChecks(0, VoktAdd64), {}, ""},
        {"String append (16 pieces), leaks on (bare: checks off)", WithChecks(VOKT_CHECK_LEAKS, VoktAppend), WithChecks(0, VoktAppend), {}, ""},
        {"Mutex lock+unlock, locks on (bare: checks off)", WithChecks(VOKT_CHECK_LOCKS, LockUnlock(1)), WithChecks(0, LockUnlock(1)), {}, ""},
        {"String made, grown, destroyed, leaks on (bare: checks off)", WithChecks(VOKT_CHECK_LEAKS, MakeDestroy), WithChecks(0, MakeDestroy), {}, ""},
        {"String made, grown, destroyed, objects on (bare: checks off)", WithChecks(VOKT_CHECK_OBJECTS, MakeDestroy), WithChecks(0, MakeDestroy), {}, ""},
    };
#undef PEER
#undef PEER_NAME
}

// Nanoseconds per iteration of every run, by name.
class Collector : public benchmark::ConsoleReporter {
public:
    std::map<std::string, double> ns;
    std::map<std::string, std::string> failed;  // members that stopped with an error, and why
    // One time per member: the run itself, or the fastest of its repetitions. A shared
    // machine's noise only ever adds time, and a member's repetitions meet it at different
    // moments, so the fastest is the one it disturbed least.
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const auto &run : runs) {
            if (run.error_occurred) failed[run.run_name.function_name] = run.error_message;
            if (run.run_type == Run::RT_Iteration && run.repetitions <= 1)
                ns[run.run_name.function_name] = run.GetAdjustedRealTime();
            else if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "min")
                ns[run.run_name.function_name] = run.GetAdjustedRealTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

// Heap bytes held per element by a container of n elements (glibc's own count, so that
// every member is measured the same way).
size_t HeapInUse() { return mallinfo2().uordblks; }
template <typename Build>
double BytesPer(size_t n, Build build) {
    const size_t before = HeapInUse();
    auto release = build();
    const double bytes = static_cast<double>(HeapInUse() - before) / static_cast<double>(n);
    release();
    return bytes;
}

std::vector<std::pair<std::string, double>> Footprints() {
    const size_t n = 100000;
    const auto &keys = KeysOf(n);
    std::vector<String *> strings;
    for (const auto &k : keys) strings.push_back(String_NewFromChars(k.c_str()));
    std::vector<std::pair<std::string, double>> rows;
    rows.push_back({"Vector", BytesPer(n, [&] {
                        Vector *v = Vector_New();
                        for (size_t i = 0; i < n; i++) Vector_Add(v, &g_item);
                        return [v] { Vector_Free(v); };
                    })});
    rows.push_back({"ObjectSet (String keys made before)", BytesPer(n, [&] {
                        ObjectSet *set = ObjectSet_New();
                        for (String *s : strings) ObjectSet_Add(set, s, nullptr);
                        return [set] { ObjectSet_Free(set); };
                    })});
    rows.push_back({"StringMap (copies of keys and values)", BytesPer(n, [&] {
                        StringMap *map = StringMap_New();
                        for (const auto &k : keys) StringMap_Set(map, k.c_str(), "value");
                        return [map] { StringMap_Free(map); };
                    })});
#ifdef VOKT_BENCH_GLIB
    rows.push_back({"GPtrArray", BytesPer(n, [&] {
                        GPtrArray *a = g_ptr_array_new();
                        for (size_t i = 0; i < n; i++) g_ptr_array_add(a, &g_item);
                        return [a] { g_ptr_array_free(a, TRUE); };
                    })});
    rows.push_back({"GHashTable (keys made before)", BytesPer(n, [&] {
                        GHashTable *t = g_hash_table_new(g_str_hash, g_str_equal);
                        for (const auto &k : keys) g_hash_table_add(t, const_cast<char *>(k.c_str()));
                        return [t] { g_hash_table_destroy(t); };
                    })});
    rows.push_back({"GHashTable (copies of keys and values)", BytesPer(n, [&] {
                        GHashTable *t = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
                        for (const auto &k : keys) g_hash_table_insert(t, g_strdup(k.c_str()), g_strdup("value"));
                        return [t] { g_hash_table_destroy(t); };
                    })});
#endif
    for (String *s : strings) String_Destroy(s);
    return rows;
}

std::string Ratio(double a, double b) {
    if (a <= 0 || b <= 0) return "";
    char text[32];
    snprintf(text, sizeof text, "%.2f", a / b);
    return text;
}

// Writes the tables of the rows that were run (all, unless a filter was given); false, with
// what is missing said, when a member of such a row has no time (it stopped with an error):
// a row without a measurement is not a result.
bool WriteTables(const std::string &dir, std::vector<Path> paths, const Collector &collector) {
    const auto &ns = collector.ns;
    auto at = [&](const std::string &key) {
        const auto found = ns.find(key);
        return found == ns.end() ? 0.0 : found->second;
    };
    bool whole = true;
    std::vector<Path> run;
    for (const auto &p : paths) {
        bool measured = false, missing = false;
        for (const auto &[member, body] : {std::pair{"vokt", p.vokt}, {"bare", p.bare}, {"peer", p.peer}}) {
            if (!body) continue;
            const std::string name = p.name + "/" + member;
            const auto failed = collector.failed.find(name);
            if (failed != collector.failed.end())
                fprintf(stderr, "no measurement for \"%s\": %s\n", name.c_str(), failed->second.c_str()), whole = false;
            (at(name) > 0 ? measured : missing) = true;
        }
        if (measured && missing) fprintf(stderr, "no measurement for a member of \"%s\"\n", p.name.c_str()), whole = false;
        if (measured) run.push_back(p);
    }
    if (!whole || run.empty()) return fprintf(stderr, "%s\n", run.empty() ? "nothing was measured" : "the tables are not written"), false;
    paths = run;
    std::ofstream csv(dir + "/ratios.csv"), dat(dir + "/ratios.dat");
    std::string md = "| path | peer | vokt ns | bare ns | peer ns | vokt / bare | vokt / peer |\n"
                     "|---|---|---|---|---|---|---|\n";
    csv << "path,peer,vokt_ns,bare_ns,peer_ns,vokt_over_bare,vokt_over_peer\n";
    for (const auto &p : paths) {
        const double v = at(p.name + "/vokt"), b = at(p.name + "/bare"), q = at(p.name + "/peer");
        char line[256], peer[32] = "";
        if (q > 0) snprintf(peer, sizeof peer, "%.1f", q);
        snprintf(line, sizeof line, "| %s | %s | %.1f | %.1f | %s | %s | %s |\n", p.name.c_str(), p.peerName.c_str(), v, b,
                 peer, Ratio(v, b).c_str(), Ratio(v, q).c_str());
        md += line;
        csv << '"' << p.name << "\",\"" << p.peerName << "\"," << v << ',' << b << ',' << q << ',' << Ratio(v, b) << ','
            << Ratio(v, q) << '\n';
        const std::string label = p.peerName.empty() ? p.name : p.name + " (peer: " + p.peerName + ")";
        dat << '"' << label << "\" " << (b > 0 ? v / b : 0) << ' ' << (q > 0 ? v / q : 0) << '\n';
    }
    md += "\n| container, 100k elements | heap bytes per element |\n|---|---|\n";
    csv << "\ncontainer,bytes_per_element\n";
    for (const auto &[name, bytes] : Footprints()) {
        char line[160];
        snprintf(line, sizeof line, "| %s | %.1f |\n", name.c_str(), bytes);
        md += line;
        csv << '"' << name << "\"," << bytes << '\n';
    }
    std::ofstream(dir + "/ratios.md") << md;
    printf("\n%s", md.c_str());
    printf("\nwritten: %s/ratios.md, %s/ratios.csv", dir.c_str(), dir.c_str());
    dat.close();
    // Ratios on a log scale (twice as slow and twice as fast look alike); labels slant down to
    // the left of their bars, with margins wide and deep enough for the longest.
    const std::string plot = "gnuplot -e \"set terminal png size 1500,900 noenhanced; set bmargin 24; set lmargin 44; "
                             "set output '" + dir + "/ratios.png'; set title 'time of vokt against the bare algorithm "
                             "and the peer (lower is better; 1 is parity)'; set style data histograms; "
                             "set style fill solid; set xtics rotate by 40 right scale 0; set ylabel 'time ratio (log scale)'; "
                             "set logscale y 2; set yrange [0.25:64]; "
                             "set key top right; set grid ytics; plot '" + dir + "/ratios.dat' using 2:xtic(1) title "
                             "'vokt / bare', '' using 3 title 'vokt / peer', 1 notitle lc rgb 'black'\" 2>/dev/null";
    if (system("command -v gnuplot >/dev/null 2>&1") == 0 && system(plot.c_str()) == 0) printf(", %s/ratios.png", dir.c_str());
    printf("\n");
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    // A steady heap for every member: glibc otherwise trims the heap back to the system
    // and moves its threshold for mapped blocks as large blocks come and go, and whichever
    // member runs next pays for that.
    mallopt(M_TRIM_THRESHOLD, 256 << 20);
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    Runtime_Init();
    Mutex_Init(&g_contended);
    std::string dir = ".";
    for (int i = 1; i < argc; i++)
        if (strncmp(argv[i], "--out-dir=", 10) == 0) dir = argv[i] + 10;
    char path[] = "/tmp/vokt-bench-XXXXXX";
    const int fd = mkstemp(path);
    g_file = path;
    {
        std::string text;
        for (int i = 0; text.size() < 1024 * 1024; i++) text += "line " + std::to_string(i) + " of the benchmark file, some words\n";
        if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) return 1;
        close(fd);
    }
    const auto paths = Paths();
    for (const auto &p : paths) {
        for (const auto &[member, body] : {std::pair{"vokt", p.vokt}, {"bare", p.bare}, {"peer", p.peer}})
            if (body)
                benchmark::RegisterBenchmark((p.name + "/" + member).c_str(), body)
                    ->Threads(p.threads)
                    ->UseRealTime()
                    ->ComputeStatistics("min", [](const std::vector<double> &v) { return *std::min_element(v.begin(), v.end()); });
    }
    benchmark::Initialize(&argc, argv);
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    const bool written = WriteTables(dir, paths, collector);
    unlink(path);
    return written ? 0 : 1;
}
