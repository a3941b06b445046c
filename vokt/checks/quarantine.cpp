// SPDX-License-Identifier: MIT
// Destroyed objects, while `objects` is on: the memory is held back, zeroed but for a
// descriptor that reports every use, until the quarantine passes its bound and the oldest go
// back to the allocator. What an address holds (a live object, one held back, one given back)
// is told by the records alone, never by reading the memory.
#include <stdlib.h>
#include <string.h>

#include "vokt/checks/internal/common.h"
#include "vokt/internal/alloc.h"

namespace vokt {

namespace {

size_t g_quarantineBytes = 4u << 20;  // the bound, set by VOKT_CHECK_QUARANTINE
constexpr size_t kQuarantineSlots = 1u << 16;
constexpr size_t kAhead = 8;  // how many destructions ahead the next to be given back are fetched
struct Held {
    void *block;
    size_t size;
};
Held *g_quarantine = nullptr;  // a ring, oldest first
size_t g_head = 0, g_count = 0, g_bytes = 0;
SpinLock g_quarantineLock;

// The descriptor of a destroyed object of each class: its slots report the use; the record
// tells the rest.
void Report(const void *object, bool destroying) {
    Record r{};
    const Known known = Examine(reinterpret_cast<uintptr_t>(object), &r);
    if (known == Known::kHeld || known == Known::kGone) ReportDestroyed(r, destroying);
}
void ZombieDestroy(void *object) { Report(object, true); }
int32_t ZombieEquals(const void *probe, const void *stored) {
    Report(probe, false);
    IsDestroyed(stored);
    return 0;
}
int ZombieCompare(const void *pa, const void *pb) {
    IsDestroyed(*static_cast<void *const *>(pa));
    IsDestroyed(*static_cast<void *const *>(pb));
    return 0;
}
int32_t ZombieHash(const void *object) {
    Report(object, false);
    return 0;
}

// Keyed by the class's name, which the zombie shares with it. Found without the lock (see
// checks::Table): a zombie is made once and never moves.
struct ZombieTraits {
    static bool Empty(const ClassDescriptor *const &z) { return __atomic_load_n(&z, __ATOMIC_ACQUIRE) == nullptr; }
    static uint64_t Hash(const ClassDescriptor *z) { return Mix64(reinterpret_cast<uintptr_t>(z->name)); }
};
constexpr size_t kZombieSlots = 1u << 12;
const ClassDescriptor **g_zombieSlots = nullptr;
checks::Table<const ClassDescriptor *, ZombieTraits> g_zombies;
ClassDescriptor *g_zombieArena = nullptr;  // kZombieSlots descriptors, in the order made
SpinLock g_zombieLock;

const ClassDescriptor *ZombieFor(const ClassDescriptor *original) {
    const uint64_t hash = Mix64(reinterpret_cast<uintptr_t>(original->name));
    const auto same = [original](const ClassDescriptor *z) { return z->name == original->name && z->size == original->size; };
    if (const ClassDescriptor *const *known = g_zombies.Find(hash, same)) return *known;
    SpinGuard guard(g_zombieLock);
    if (const ClassDescriptor *const *known = g_zombies.Find(hash, same)) return *known;  // another thread's
    const ClassDescriptor **slot = g_zombies.Claim(hash);
    if (!slot) return nullptr;  // more classes than zombies: such objects are given back at once
    ClassDescriptor *z = &g_zombieArena[g_zombies.Count() - 1];
    *z = ClassDescriptor{original->size, original->name, ZombieDestroy, ZombieEquals, ZombieCompare, ZombieHash};
    __atomic_store_n(slot, z, __ATOMIC_RELEASE);
    return z;
}

}  // namespace

void ReportDestroyed(const Record &r, bool destroying) {
    if (Reporting() || !r.cls) return;
    const uint32_t at = CaptureSite();
    // An address that held an earlier destroyed object may be reached through that object's
    // pointer: which one was destroyed where cannot be told, and no site is named.
    const bool certain = !(r.flags & kReused);
    if (!FirstTime(destroying ? kReportDestroy : kReportUse, certain ? r.site : 0, at)) return;
    Line line(destroying ? "destroyed-again" : "destroyed-object-used", 8400);
    line.Add("%s %s after it was destroyed ", ShownName(r.cls), destroying ? "destroyed again" : "used");
    line.Note(Field::kClasses, ShownName(r.cls));
    certain ? line.Add("at ").AddSite(r.site) : line.Add("earlier; its site is no longer kept").NoSite();
    line.Add(destroying ? "; destroyed again at " : "; used at ").AddSite(at).Send();
}

namespace {

// Takes the oldest objects out of the ring until it is within bytes, at most room of them,
// under its lock; how many were taken.
size_t TakeOldest(size_t bytes, Held *out, size_t room) {
    size_t n = 0;
    while (n < room && g_count > 0 && (g_bytes > bytes || g_count >= kQuarantineSlots)) {
        out[n++] = g_quarantine[g_head];
        g_bytes -= g_quarantine[g_head].size;
        g_head = (g_head + 1) % kQuarantineSlots;
        g_count--;
    }
    return n;
}

// Gives the objects back to the allocator. Each record stays as a tombstone; a block whose
// record went (a program that resized a destroyed object's memory) is the program's again,
// and not released here.
void GiveBack(const Held *held, size_t n) {
    for (size_t i = 0; i < n; i++) {
        Record r{};
        if (Bury(reinterpret_cast<uintptr_t>(held[i].block), &r)) g_program.Free(held[i].block);
    }
}

}  // namespace

void ReleaseQuarantine(size_t bytes) {
    for (;;) {
        Held oldest[16];
        size_t n = 0;
        {
            SpinGuard guard(g_quarantineLock);
            n = TakeOldest(bytes, oldest, 16);
        }
        if (n == 0) return;
        GiveBack(oldest, n);
    }
}

void Quarantine(void *block, const Record &r) {
    const ClassDescriptor *zombie = ZombieFor(r.cls);
    if (!zombie) {  // no descriptor for its class: given back now, a tombstone left
        Record buried{};
        if (Bury(reinterpret_cast<uintptr_t>(block), &buried)) g_program.Free(block);
        return;
    }
    memset(block, 0, r.size);
    static_cast<Object *>(block)->ftbl = zombie;
    Held oldest[4];
    size_t n = 0;
    bool more = false;
    const void *ahead = nullptr;
    {
        SpinGuard guard(g_quarantineLock);  // in, and the oldest out, under one lock
        g_quarantine[(g_head + g_count) % kQuarantineSlots] = Held{block, r.size};
        g_count++;
        g_bytes += r.size;
        n = TakeOldest(g_quarantineBytes, oldest, 4);
        more = g_bytes > g_quarantineBytes;
        // What is given back a few destructions from now, long unread, starts coming into the
        // cache: its record, which is then buried, and its memory, which the allocator writes.
        if (g_count > kAhead) ahead = g_quarantine[(g_head + kAhead) % kQuarantineSlots].block;
    }
    if (ahead) {
        PrefetchRecord(reinterpret_cast<uintptr_t>(ahead));
        __builtin_prefetch(ahead, 1);
    }
    GiveBack(oldest, n);
    if (more) ReleaseQuarantine(g_quarantineBytes);
}

bool Destroyed(const void *object, bool destroying) {
    Record r{};
    const Known known = Examine(reinterpret_cast<uintptr_t>(object), &r);
    if (known != Known::kHeld && known != Known::kGone) return false;
    ReportDestroyed(r, destroying);
    return true;
}

void ReleaseQuarantined() { ReleaseQuarantine(0); }

bool QuarantinePrepare() {
    if (!MapArray(g_zombieSlots, kZombieSlots) || !MapArray(g_zombieArena, kZombieSlots)) return false;
    if (!g_zombies.Slots()) g_zombies.Attach(g_zombieSlots, kZombieSlots);
    if (!g_quarantine) {
        const char *megabytes = getenv("VOKT_CHECK_QUARANTINE");  // NOLINT(concurrency-mt-unsafe): read once, when the checks are first switched on
        if (megabytes && megabytes[0]) g_quarantineBytes = static_cast<size_t>(strtoul(megabytes, nullptr, 10)) << 20;
    }
    return MapArray(g_quarantine, kQuarantineSlots);
}

void QuarantineFork(bool take) {
    SpinLock *const locks[] = {&g_zombieLock, &g_quarantineLock};
    ForkLocks(take, locks);
}

}  // namespace vokt
