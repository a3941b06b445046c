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
struct Held {
    void *block;
    size_t size;
};
Held *g_quarantine = nullptr;  // a ring, oldest first
size_t g_head = 0, g_count = 0, g_bytes = 0;
SpinLock g_quarantineLock;

// The descriptor of a destroyed object of each class: its slots report the use; the record
// tells the rest. Made in an arena of the checks' own and kept for the process.
struct ZombieTraits {
    static bool Empty(const ClassDescriptor *z) { return z == nullptr; }
    static uint64_t Hash(const ClassDescriptor *z) { return Mix64(reinterpret_cast<uintptr_t>(z->name)); }
};
checks::Table<ClassDescriptor *, ZombieTraits> g_zombies;
char *g_zombieArena = nullptr;
size_t g_zombieArenaLeft = 0;
SpinLock g_zombieLock;

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

// Keyed by the class's name, which the zombie shares with it.
const ClassDescriptor *ZombieFor(const ClassDescriptor *original) {
    SpinGuard guard(g_zombieLock);
    const uint64_t hash = Mix64(reinterpret_cast<uintptr_t>(original->name));
    if (ClassDescriptor *const *known = g_zombies.Find(hash, [&](const ClassDescriptor *z) {
            return z->name == original->name && z->size == original->size;
        }))
        return *known;
    if (g_zombieArenaLeft < sizeof(ClassDescriptor)) {
        constexpr size_t kArena = 1u << 16;
        g_zombieArena = static_cast<char *>(MapZeroed(kArena));
        if (!g_zombieArena) return nullptr;
        g_zombieArenaLeft = kArena;
    }
    if (!MakeRoom(g_zombies)) return nullptr;
    auto *z = reinterpret_cast<ClassDescriptor *>(g_zombieArena);
    g_zombieArena += sizeof(ClassDescriptor);
    g_zombieArenaLeft -= sizeof(ClassDescriptor);
    *z = ClassDescriptor{original->size, original->name, ZombieDestroy, ZombieEquals, ZombieCompare, ZombieHash};
    *g_zombies.Claim(hash) = z;
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
    Line line(8400);
    line.Add("%s %s after it was destroyed ", r.cls->name, destroying ? "destroyed again" : "used");
    certain ? line.Add("at ").AddSite(r.site) : line.Add("earlier; its site is no longer kept");
    line.Add(destroying ? "; destroyed again at " : "; used at ").AddSite(at).Send();
}

void ReleaseQuarantine(size_t bytes) {
    for (;;) {
        Held oldest{};
        {
            SpinGuard guard(g_quarantineLock);
            if (g_count == 0 || (g_bytes <= bytes && g_count < kQuarantineSlots)) return;
            oldest = g_quarantine[g_head];
            g_head = (g_head + 1) % kQuarantineSlots;
            g_count--;
            g_bytes -= oldest.size;
        }
        // Its record stays as a tombstone; a block whose record went (a program that resized
        // a destroyed object's memory) is the program's again, and not released here.
        Record r{};
        if (Bury(reinterpret_cast<uintptr_t>(oldest.block), &r)) g_program.Free(oldest.block);
    }
}

void Quarantine(void *block, const Record &r) {
    const ClassDescriptor *zombie = ZombieFor(r.cls);
    SetDestroySite(reinterpret_cast<uintptr_t>(block), CaptureSite());
    if (!zombie) {  // no memory for its descriptor: given back now, a tombstone left
        Record buried{};
        if (Bury(reinterpret_cast<uintptr_t>(block), &buried)) g_program.Free(block);
        return;
    }
    memset(block, 0, r.size);
    static_cast<Object *>(block)->ftbl = zombie;
    {
        SpinGuard guard(g_quarantineLock);
        g_quarantine[(g_head + g_count) % kQuarantineSlots] = Held{block, r.size};
        g_count++;
        g_bytes += r.size;
    }
    ReleaseQuarantine(g_quarantineBytes);
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
