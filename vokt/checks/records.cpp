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

// The low 6 bits of a block's mix choose its stripe, the bits above them its home slot.
constexpr uint32_t kStripes = 64;
uint64_t MixOf(uintptr_t block) { return Mix64(block); }
struct RecordTraits {
    static bool Empty(const Record &r) { return r.block == 0; }
    static uint64_t Hash(const Record &r) { return MixOf(r.block) >> 6; }
};
struct alignas(64) Stripe {
    SpinLock lock;
    checks::Table<Record, RecordTraits> table;
};
Stripe g_stripes[kStripes];

Stripe &StripeOf(uintptr_t block) { return g_stripes[MixOf(block) & (kStripes - 1)]; }

Record *FindLocked(Stripe &s, uintptr_t block) {
    return s.table.Find(MixOf(block) >> 6, [block](const Record &r) { return r.block == block; });
}

void Remember(void *block, size_t size, uint32_t site) {
    const CheckThread *me = Me();
    const uint32_t generation = __atomic_load_n(&g_generation, __ATOMIC_RELAXED) << kGenerationShift;
    Insert(Record{reinterpret_cast<uintptr_t>(block), size, nullptr, site, generation | (me->kept ? kKept : 0u)});
}

void *RecordedMalloc(size_t size) {
    void *block = g_program.Malloc(size);
    if (block && Checking(kCheckLeaks | kCheckObjects)) Remember(block, size, CaptureSite());
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
        Insert(r);
    } else if (Checking(kCheckLeaks | kCheckObjects)) {
        Remember(moved, size, CaptureSite());
    }
    return moved;
}

void RecordedFree(void *block) {
    Record r{};
    if (!Take(reinterpret_cast<uintptr_t>(block), &r)) return g_program.Free(block);
    if (r.flags & kQuarantined) {  // released again: reported, and it stays where it is
        Insert(r);
        ReportUse(block);
        return;
    }
    if (r.cls && Checking(kCheckObjects)) return Quarantine(block, r);
    g_program.Free(block);
}

}  // namespace

void Insert(const Record &r) {
    Stripe &s = StripeOf(r.block);
    SpinGuard guard(s.lock);
    if (!MakeRoom(s.table)) return;  // no room: the block goes unrecorded
    *s.table.Claim(RecordTraits::Hash(r)) = r;
}

bool Take(uintptr_t block, Record *out) {
    Stripe &s = StripeOf(block);
    SpinGuard guard(s.lock);
    Record *found = FindLocked(s, block);
    if (!found) return false;
    *out = *found;
    s.table.Remove(found);
    return true;
}

void EachRecord(void (*visit)(const Record &, void *), void *context) {
    for (auto &s : g_stripes) {
        SpinGuard guard(s.lock);
        s.table.Each([&](const Record &r) { visit(r, context); });
    }
}

bool Reported(const Record &r) {
    const uint32_t generation = __atomic_load_n(&g_generation, __ATOMIC_RELAXED) & (~0u >> kGenerationShift);
    return !(r.flags & (kKept | kQuarantined)) && r.flags >> kGenerationShift == generation;
}

// Once installed the recorders stay: a block recorded must be found again when it goes,
// whatever the checks are by then.
void InstallRecorders() {
    auto &m = g_memory;
    __atomic_store_n(&m.Malloc, &RecordedMalloc, __ATOMIC_RELAXED);
    __atomic_store_n(&m.Realloc, &RecordedRealloc, __ATOMIC_RELAXED);
    __atomic_store_n(&m.Free, &RecordedFree, __ATOMIC_RELAXED);
}

void RecordsFork(bool take, bool inChild) {
    if (inChild) __atomic_add_fetch(&g_generation, 1, __ATOMIC_RELAXED);
    for (auto &s : g_stripes) take ? s.lock.lock() : s.lock.unlock();
}

void NoteClass(void *object, const ClassDescriptor *cls) {
    Stripe &s = StripeOf(reinterpret_cast<uintptr_t>(object));
    SpinGuard guard(s.lock);
    if (Record *found = FindLocked(s, reinterpret_cast<uintptr_t>(object))) found->cls = cls;
}

}  // namespace vokt
