// SPDX-License-Identifier: MIT
// Destroyed objects, while `objects` is on: the record keeps its memory, zeroed but for a
// descriptor that names the class and the site of the destruction and reports every use,
// until the quarantine passes its bound and the oldest go back to the allocator.
#include <string.h>

#include "vokt/checks/internal/common.h"
#include "vokt/internal/alloc.h"

namespace vokt {

namespace {

struct Zombie {
    ClassDescriptor cls;  // first: a destroyed object's descriptor points here
    const ClassDescriptor *original;
    uint32_t destroyedAt;
};

constexpr size_t kQuarantineBytes = 4u << 20;
constexpr size_t kQuarantineSlots = 1u << 16;
void **g_quarantine = nullptr;  // a ring of blocks, oldest first
size_t g_quarantineHead = 0, g_quarantineCount = 0, g_quarantineBytes = 0;
SpinLock g_quarantineLock;

// One descriptor for each class and destruction site, made in an arena of the checks' own
// and kept for the process.
uint64_t ZombieHash(const ClassDescriptor *original, uint32_t site) {
    return Mix(reinterpret_cast<uintptr_t>(original), site);
}
struct ZombieTraits {
    static bool Empty(const Zombie *z) { return z == nullptr; }
    static uint64_t Hash(const Zombie *z) { return ZombieHash(z->original, z->destroyedAt); }
};
checks::Table<Zombie *, ZombieTraits> g_zombies;
char *g_zombieArena = nullptr;
size_t g_zombieArenaLeft = 0;
SpinLock g_zombieLock;

void ZombieDestroy(void *object) { ReportUse(object); }
int32_t ZombieEquals(const void *probe, const void *stored) {
    ReportUse(probe);
    IsDestroyed(stored);
    return 0;
}
int ZombieCompare(const void *pa, const void *pb) {
    IsDestroyed(*static_cast<void *const *>(pa));
    IsDestroyed(*static_cast<void *const *>(pb));
    return 0;
}
int32_t ZombieHashSlot(const void *object) {
    ReportUse(object);
    return 0;
}

const Zombie *ZombieOf(const void *object) {
    const ClassDescriptor *cls = static_cast<const Object *>(object)->ftbl;
    return cls && cls->Destroy == ZombieDestroy ? reinterpret_cast<const Zombie *>(cls) : nullptr;
}

const Zombie *ZombieFor(const ClassDescriptor *original, uint32_t site) {
    SpinGuard guard(g_zombieLock);
    const uint64_t hash = ZombieHash(original, site);
    if (Zombie *const *known = g_zombies.Find(hash, [&](const Zombie *z) { return z->original == original && z->destroyedAt == site; }))
        return *known;
    if (g_zombieArenaLeft < sizeof(Zombie)) {
        constexpr size_t kArena = 1u << 16;
        g_zombieArena = static_cast<char *>(MapZeroed(kArena));
        if (!g_zombieArena) return nullptr;
        g_zombieArenaLeft = kArena;
    }
    if (!MakeRoom(g_zombies)) return nullptr;
    auto *z = reinterpret_cast<Zombie *>(g_zombieArena);
    g_zombieArena += sizeof(Zombie);
    g_zombieArenaLeft -= sizeof(Zombie);
    z->cls = ClassDescriptor{original->size, original->name, ZombieDestroy, ZombieEquals, ZombieCompare, ZombieHashSlot};
    z->original = original;
    z->destroyedAt = site;
    *g_zombies.Claim(hash) = z;
    return z;
}

}  // namespace

void ReportUse(const void *object) {
    const Zombie *z = ZombieOf(object);
    if (!z || Reporting()) return;
    const uint32_t usedAt = CaptureSite();
    if (!FirstTime(kReportUse, z->destroyedAt, usedAt)) return;
    Line line(8400);
    line.Add("%s used after it was destroyed at ", z->original->name).AddSite(z->destroyedAt);
    line.Add("; used at ").AddSite(usedAt).Send();
}

void ReleaseQuarantine(size_t bytes) {
    for (;;) {
        void *block = nullptr;
        {
            SpinGuard guard(g_quarantineLock);
            if (g_quarantineCount == 0 || (g_quarantineBytes <= bytes && g_quarantineCount < kQuarantineSlots)) return;
            block = g_quarantine[g_quarantineHead];
            g_quarantineHead = (g_quarantineHead + 1) % kQuarantineSlots;
            g_quarantineCount--;
        }
        Record r{};
        if (Take(reinterpret_cast<uintptr_t>(block), &r)) {
            {
                SpinGuard guard(g_quarantineLock);
                g_quarantineBytes -= r.size;
            }
            g_program.Free(block);
        }
    }
}

void Quarantine(void *block, Record r) {
    const Zombie *z = ZombieFor(r.cls, CaptureSite());
    if (!z) {
        g_program.Free(block);
        return;
    }
    memset(block, 0, r.size);
    static_cast<Object *>(block)->ftbl = &z->cls;
    r.flags |= kQuarantined;
    Insert(r);
    {
        SpinGuard guard(g_quarantineLock);
        g_quarantine[(g_quarantineHead + g_quarantineCount) % kQuarantineSlots] = block;
        g_quarantineCount++;
        g_quarantineBytes += r.size;
    }
    ReleaseQuarantine(kQuarantineBytes);
}

bool Destroyed(const void *object) {
    if (!ZombieOf(object)) return false;
    ReportUse(object);
    return true;
}

void ReleaseQuarantined() { ReleaseQuarantine(0); }

bool QuarantinePrepare() { return MapArray(g_quarantine, kQuarantineSlots); }

void QuarantineFork(bool take) {
    SpinLock *const locks[] = {&g_zombieLock, &g_quarantineLock};
    ForkLocks(take, locks);
}

}  // namespace vokt
