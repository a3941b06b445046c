// SPDX-License-Identifier: MIT
// Private to the checks: their one hash table. Open addressing with linear probing over an
// array of a power-of-two number of zeroed slots, which the table's owner maps, hands over
// and unmaps: the checks never go through the allocator they watch.
//
// Traits says which slots are empty and what a filled one hashes to:
//   static bool Empty(const Entry &e);     // a zeroed slot is empty
//   static uint64_t Hash(const Entry &e);  // its low bits choose the entry's home slot
// The owner serialises every change. Find may run beside changes (without the owner's lock)
// only in a table that never removes or moves entries, where a claimed slot is filled and
// then published by storing the field that Empty reads last, with release, and Empty reads
// it with acquire.
#ifndef VOKT_CHECKS_TABLE_H
#define VOKT_CHECKS_TABLE_H

#include <stddef.h>
#include <stdint.h>

namespace vokt::checks {

// The load bound: one more entry may be added while it leaves a quarter of the slots empty,
// so that every probe soon meets an empty slot.
constexpr bool Fits(size_t count, size_t capacity) { return (count + 1) * 4 <= capacity * 3; }
// The most entries a table of capacity slots holds.
constexpr size_t Kept(size_t capacity) { return capacity / 4 * 3; }

template <typename Entry, typename Traits>
class Table {
public:
    using Slot = Entry;
    // Takes slots (capacity zeroed entries, a power of two) as the table's, empty.
    void Attach(Entry *slots, size_t capacity) {
        __atomic_store_n(&slots_, slots, __ATOMIC_RELAXED);  // Prefetch reads these without the owner's lock
        __atomic_store_n(&mask_, capacity - 1, __ATOMIC_RELAXED);
        count_ = 0;
    }
    Entry *Slots() const { return slots_; }
    size_t Capacity() const { return slots_ ? mask_ + 1 : 0; }
    size_t Count() const { return count_; }
    bool Full() const { return !slots_ || !checks::Fits(count_, Capacity()); }

    // The first filled entry on hash's probe path that match accepts; null once the path
    // meets an empty slot.
    template <typename Match>
    Entry *Find(uint64_t hash, Match match) const {
        if (!slots_) return nullptr;
        for (size_t i = hash & mask_;; i = (i + 1) & mask_) {
            if (Traits::Empty(slots_[i])) return nullptr;
            if (match(slots_[i])) return &slots_[i];
        }
    }

    // Asks the processor to bring the home slot of hash into its cache, for a Find soon to
    // come. Callable without the owner's lock: a slot read from an array being replaced is
    // only fetched, never used (and fetching an address never faults).
    void Prefetch(uint64_t hash) const {
        const Entry *slots = __atomic_load_n(&slots_, __ATOMIC_RELAXED);
        if (slots) __builtin_prefetch(&slots[hash & __atomic_load_n(&mask_, __ATOMIC_RELAXED)], 1);
    }

    // The empty slot where an entry with this hash goes, now counted: the caller fills it.
    // Null when the table is full.
    Entry *Claim(uint64_t hash) {
        if (Full()) return nullptr;
        size_t i = hash & mask_;
        while (!Traits::Empty(slots_[i])) i = (i + 1) & mask_;
        count_++;
        return &slots_[i];
    }

    // Find and Claim in one walk: the entry match accepts, or else the empty slot where an
    // entry with this hash goes, now counted (null when the table is full); *found says which.
    template <typename Match>
    Entry *FindOrClaim(uint64_t hash, Match match, bool *found) {
        *found = false;
        if (!slots_) return nullptr;
        size_t i = hash & mask_;
        for (; !Traits::Empty(slots_[i]); i = (i + 1) & mask_)
            if (match(slots_[i])) return *found = true, &slots_[i];
        if (Full()) return nullptr;
        count_++;
        return &slots_[i];
    }

    // Empties a filled slot. The entries after it in its run move back over the gap unless
    // their home lies after the gap, so that none is cut off from its home by an empty slot.
    void Remove(Entry *slot) {
        size_t gap = static_cast<size_t>(slot - slots_);
        for (size_t i = (gap + 1) & mask_; !Traits::Empty(slots_[i]); i = (i + 1) & mask_) {
            const size_t home = Traits::Hash(slots_[i]) & mask_;
            if (((i - home) & mask_) >= ((i - gap) & mask_)) {  // home is not in (gap, i]
                slots_[gap] = slots_[i];
                gap = i;
            }
        }
        slots_[gap] = Entry{};
        count_--;
    }

    // Moves every entry into slots (capacity zeroed entries, a power of two, with room for
    // them all) and returns the old array, for the owner to unmap.
    Entry *MoveTo(Entry *slots, size_t capacity) {
        Entry *const old = slots_;
        const size_t oldCapacity = Capacity();
        Attach(slots, capacity);
        for (size_t i = 0; i < oldCapacity; i++)
            if (!Traits::Empty(old[i])) *Claim(Traits::Hash(old[i])) = old[i];
        return old;
    }

    template <typename Visit>
    void Each(Visit visit) const {
        for (size_t i = 0; i < Capacity(); i++)
            if (!Traits::Empty(slots_[i])) visit(slots_[i]);
    }

    // The invariant: every entry is reached from its home without crossing an empty slot,
    // the count is the number of entries, and the load bound holds (Claim never passes it).
    bool Valid() const {
        size_t filled = 0;
        for (size_t i = 0; i < Capacity(); i++) {
            if (Traits::Empty(slots_[i])) continue;
            filled++;
            for (size_t j = Traits::Hash(slots_[i]) & mask_; j != i; j = (j + 1) & mask_)
                if (Traits::Empty(slots_[j])) return false;
        }
        return filled == count_ && (count_ == 0 || count_ * 4 <= Capacity() * 3);
    }

private:
    Entry *slots_ = nullptr;
    size_t mask_ = 0;
    size_t count_ = 0;
};

}  // namespace vokt::checks

#endif
