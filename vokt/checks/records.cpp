// SPDX-License-Identifier: MIT
// Records of the blocks the library hands out, while `leaks` or `objects` is on: one table
// per stripe, each with its own lock, so that threads allocating at once seldom meet. The
// recorders take the allocation layer's place in front of the program's allocator.
#include "vokt/checks/internal/common.h"
#include "vokt/internal/alloc.h"

namespace vokt {

namespace {

// A forked child inherits its parent's records, but what it inherited is its parent's to
// report: each child starts a new generation, and only the current one is reported.
uint32_t g_generation = 0;

// A block's mix: the address times an odd constant, halves swapped. Each bit of the high
// half of the product depends on every address bit below it, and the allocator's addresses
// differ in the bits above the 16-byte alignment, so the low 6 bits of the mix choose the
// stripe and the bits above them the home slot. Cheap, as it is computed once or more for
// every block the program allocates.
constexpr uint32_t kStripes = 64;
uint64_t MixOf(uintptr_t block) {
    const uint64_t h = static_cast<uint64_t>(block) * 0x9E3779B97F4A7C15ull;
    return h >> 32 | h << 32;
}
uint64_t HomeOf(uint64_t mix) { return mix >> 6; }
struct RecordTraits {
    static bool Empty(const Record &r) { return r.block == 0; }
    static uint64_t Hash(const Record &r) { return HomeOf(MixOf(r.block)); }
};
using Records = checks::Table<Record, RecordTraits>;
struct alignas(64) Stripe {
    SpinLock lock;
    Records table;
};
Stripe g_stripes[kStripes];
Stripe &StripeOf(uint64_t mix) { return g_stripes[mix & (kStripes - 1)]; }

// A block's stripe, locked while this lives, with the block's record there.
class Locked {
public:
    explicit Locked(uintptr_t block)
        : block_(block), mix_(MixOf(block)), stripe_(StripeOf(mix_)), guard_(stripe_.lock) {}
    Records &Table() { return stripe_.table; }
    uint64_t Home() const { return HomeOf(mix_); }
    Record *Find() {
        return stripe_.table.Find(Home(), [block = block_](const Record &r) { return r.block == block; });
    }

private:
    uintptr_t block_;
    uint64_t mix_;
    Stripe &stripe_;
    SpinGuard guard_;
};

// An object's class and its owner come through the thread's part (NewObjectRecorded,
// OwnedBy); memory made for an owner needs no call site: it is reported with the owner.
[[gnu::noinline]] void Remember(void *block, size_t size) {
    CheckThread *me = Me();
    const uint32_t generation = __atomic_load_n(&g_generation, __ATOMIC_RELAXED) << kGenerationShift;
    const uint32_t site = me->owner ? 0 : CaptureSite();
    Insert(Record{reinterpret_cast<uintptr_t>(block), size, me->making, site, generation | (me->kept ? kKept : 0u),
                  reinterpret_cast<uintptr_t>(me->owner)});
    me->making = nullptr;
}

void *RecordedMalloc(size_t size) {
    void *block = g_program.Malloc(size);
    if (block && Checking(kCheckLeaks | kCheckObjects)) Remember(block, size);
    return block;
}

void *RecordedRealloc(void *block, size_t size) {
    if (!block) return RecordedMalloc(size);
    // The record is taken out first: once the block has moved, its old address may already
    // be another thread's new block.
    Record r{};
    const bool had = Take(reinterpret_cast<uintptr_t>(block), &r);
    void *moved = g_program.Realloc(block, size);
    if (!moved) {
        // A resize to 0 that gives nothing back has released the block (as the C library's
        // does, and as the runtime's callers assume); any other failure leaves it as it was.
        if (had && size != 0) Insert(r);
        return nullptr;
    }
    if (had) {
        r.block = reinterpret_cast<uintptr_t>(moved);
        r.size = size;
        if (const void *owner = Me()->owner) r.owner = reinterpret_cast<uintptr_t>(owner);
        Insert(r);
    } else if (Checking(kCheckLeaks | kCheckObjects)) {
        Remember(moved, size);
    }
    return moved;
}

// What a release finds, decided under the record's lock so that two threads releasing one
// block cannot both give it back: a destroyed object found again stays as it is, an object
// being destroyed is marked held back at once, any other record goes.
Known Retire(uintptr_t block, Record *out) {
    Locked at(block);
    Record *found = at.Find();
    if (!found) return Known::kNothing;
    if (found->flags & (kQuarantined | kGone)) {
        *out = *found;
        return found->flags & kGone ? Known::kGone : Known::kHeld;
    }
    if (found->cls && Checking(kCheckObjects)) {
        *out = *found;
        found->flags |= kQuarantined;
        // Where it is destroyed. A new site takes the sites' lock inside this one, which is
        // never taken the other way round.
        found->site = CaptureSite();
        return Known::kLive;
    }
    at.Table().Remove(found);
    out->cls = nullptr;  // a block, or an object the quarantine is off for: simply released
    return Known::kLive;
}

void RecordedFree(void *block) {
    Record r{};
    switch (Retire(reinterpret_cast<uintptr_t>(block), &r)) {
        case Known::kNothing:
            return g_program.Free(block);
        case Known::kLive:
            return r.cls ? Quarantine(block, r) : g_program.Free(block);
        case Known::kHeld:  // destroyed again: reported, and it stays where it is
            return ReportDestroyed(r, true);
        case Known::kGone:  // its memory went back already: releasing it again would break the heap
            if (Checking(kCheckObjects)) return ReportDestroyed(r, true);
            Take(reinterpret_cast<uintptr_t>(block), &r);
            return g_program.Free(block);
    }
}

}  // namespace

void Insert(const Record &r) {
    {
        Locked at(r.block);
        MakeRoom(at.Table());  // without memory, an earlier record of the address is still replaced
        bool found = false;
        const uintptr_t block = r.block;
        if (Record *slot = at.Table().FindOrClaim(at.Home(), [block](const Record &x) { return x.block == block; }, &found)) {
            const bool tombstone = found && (slot->flags & kGone);
            *slot = r;
            if (tombstone) slot->flags |= kReused;  // the address held a destroyed object: it is used again
            return;
        }
    }
    LimitReached(Limit::kRecords);  // no memory: the block goes unrecorded
}

Known Examine(uintptr_t block, Record *out) {
    Locked at(block);
    const Record *found = at.Find();
    if (!found) return Known::kNothing;
    *out = *found;
    return found->flags & kGone ? Known::kGone : found->flags & kQuarantined ? Known::kHeld : Known::kLive;
}

bool Bury(uintptr_t block, Record *out) {
    Locked at(block);
    Record *found = at.Find();
    if (!found || !(found->flags & kQuarantined)) return false;
    *out = *found;
    found->flags = (found->flags & ~kQuarantined) | kGone;
    return true;
}

void PrefetchRecord(uintptr_t block) {
    const uint64_t mix = MixOf(block);
    StripeOf(mix).table.Prefetch(HomeOf(mix));
}

bool Take(uintptr_t block, Record *out) {
    Locked at(block);
    Record *found = at.Find();
    if (!found) return false;
    *out = *found;
    at.Table().Remove(found);
    return true;
}

void EachRecord(void (*visit)(const Record &, void *), void *context) {
    for (auto &s : g_stripes) {
        SpinGuard guard(s.lock);
        s.table.Each([&](const Record &r) { visit(r, context); });
    }
}

bool Alive(const Record &r) {
    const uint32_t generation = __atomic_load_n(&g_generation, __ATOMIC_RELAXED) & (~0u >> kGenerationShift);
    return !(r.flags & (kQuarantined | kGone)) && r.flags >> kGenerationShift == generation;
}

bool Reported(const Record &r) { return Alive(r) && !(r.flags & (kKept | kKeptAlive)); }

bool KeepAlive(const void *object) {
    Locked at(reinterpret_cast<uintptr_t>(object));
    Record *found = at.Find();
    if (!found || !found->cls) return false;
    found->flags |= kKeptAlive;
    return true;
}

// Once installed the recorders stay: a block recorded must be found again when it goes,
// whatever the checks are by then.
void InstallRecorders() {
    auto &m = g_memory;
    __atomic_store_n(&m.Malloc, &RecordedMalloc, __ATOMIC_RELAXED);
    __atomic_store_n(&m.Realloc, &RecordedRealloc, __ATOMIC_RELAXED);
    __atomic_store_n(&m.Free, &RecordedFree, __ATOMIC_RELAXED);
}

bool InForkedChild() { return __atomic_load_n(&g_generation, __ATOMIC_RELAXED) != 0; }

void RecordsFork(bool take, bool inChild) {
    if (inChild) __atomic_add_fetch(&g_generation, 1, __ATOMIC_RELAXED);
    for (auto &s : g_stripes) take ? s.lock.lock() : s.lock.unlock();
}

const void *EnterOwner(const void *owner) {
    CheckThread *me = Me();
    const void *before = me->owner;
    me->owner = owner;
    return before;
}

void LeaveOwner(const void *before) { Me()->owner = before; }

void *ReallocOwned(const void *owner, void *block, size_t size) {
    const OwnedBy mine(owner);
    return block ? Realloc(block, size) : Alloc(size);
}

void Reown(const void *block, const void *owner) {
    Locked at(reinterpret_cast<uintptr_t>(block));
    if (Record *found = at.Find()) found->owner = reinterpret_cast<uintptr_t>(owner);
}

void *NewObjectRecorded(const ClassDescriptor *cls, const char *what) {
    CheckThread *me = Me();
    me->making = cls;
    void *object = Alloc(cls->size);
    me->making = nullptr;  // also when nothing was recorded
    if (!object) return NoObject(what);
    memset(object, 0, cls->size);
    static_cast<Object *>(object)->ftbl = cls;
    return object;
}

}  // namespace vokt
