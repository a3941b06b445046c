// SPDX-License-Identifier: MIT
// Call sites. Taking a backtrace costs a microsecond, far more than the allocation or lock
// it describes, so each site is taken once and then recognised: by the return address and
// frame address of the capture, which a given chain of calls reproduces exactly, confirmed
// by reading each return address of the chain back from the stack slot where it was found
// the first time. A frame of the same function at the same depth places the next return
// slot at the same offset, so a chain that differs anywhere up to the last kept frame fails
// the confirmation and gets a site of its own.
#include <dlfcn.h>
#include <elf.h>
#include <execinfo.h>
#include <link.h>
#include <pthread.h>
#include <string.h>
#include <sys/auxv.h>

#include "vokt/checks/internal/common.h"

#if defined(__SANITIZE_ADDRESS__)
#define VOKT_READS_OTHER_FRAMES __attribute__((no_sanitize_address))
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VOKT_READS_OTHER_FRAMES __attribute__((no_sanitize_address))
#endif
#endif
#ifndef VOKT_READS_OTHER_FRAMES
#define VOKT_READS_OTHER_FRAMES
#endif

namespace vokt {

namespace {

constexpr int kAsked = 32;  // frames asked of backtrace
constexpr int kShown = 8;   // frames of the program kept per site

struct Site {
    uintptr_t ret;  // the key (0: empty), published last
    uintptr_t frame;
    uint32_t confirmed;  // return slots confirmed on a match: the frames up to the last kept one
    uint32_t first;      // the first frame of the program
    uint32_t count;      // frames kept from first
    uint32_t reach;      // the highest slot offset read, checked against the stack's end
    uint32_t same;       // the first site that prints as this one (itself, most often)
    void *pc[kAsked];
    uint32_t slot[kAsked];
};

// Sites are read without the lock (see checks::Table); a site's number is its slot's index
// plus one, so that 0 stands for none.
struct SiteTraits {
    static bool Empty(const Site &s) { return __atomic_load_n(&s.ret, __ATOMIC_ACQUIRE) == 0; }
    static uint64_t Hash(const Site &s) { return Mix(s.ret, s.frame); }
};
Site *g_siteSlots = nullptr;
checks::Table<Site, SiteTraits> g_sites;
SpinLock g_siteLock;
bool g_sitesFull = false;  // then a new chain costs no backtrace: it prints as an unknown site

Site &SiteAt(uint32_t number) { return g_siteSlots[number - 1]; }

uint64_t FramesHash(const Site &site) {
    uint64_t h = site.count;
    for (uint32_t i = 0; i < site.count; i++)
        h = (h ^ reinterpret_cast<uintptr_t>(site.pc[site.first + i])) * 0x100000001B3ull;
    return h ^ h >> 32;
}

bool SameFrames(const Site &a, const Site &b) {
    return a.count == b.count && memcmp(&a.pc[a.first], &b.pc[b.first], a.count * sizeof(void *)) == 0;
}

// Sites by the frames they print, so that chains that differ only beyond them (or in their
// stack depth) count as one site in reports: each entry a site number (0: empty).
struct PrintedAsTraits {
    static bool Empty(uint32_t number) { return number == 0; }
    static uint64_t Hash(uint32_t number) { return FramesHash(SiteAt(number)); }
};
uint32_t *g_printedAsSlots = nullptr;
checks::Table<uint32_t, PrintedAsTraits> g_printedAs;

// The first site that prints as the site with this number (filled in, not yet published),
// under g_siteLock.
uint32_t PrintedAsLocked(uint32_t number) {
    const Site &site = SiteAt(number);
    const uint64_t hash = FramesHash(site);
    if (const uint32_t *same = g_printedAs.Find(hash, [&](uint32_t n) { return SameFrames(SiteAt(n), site); }))
        return *same;
    if (uint32_t *slot = g_printedAs.Claim(hash)) *slot = number;  // room: it has the sites' own bound
    return number;
}

// The executable range of the library itself: its frames are skipped in sites. Linked into
// the program statically, the library has no range of its own, and every frame is kept.
uintptr_t g_ownStart = 0, g_ownEnd = 0;
void *g_cLibrary = nullptr;  // the C library's load address

int FindOwnRange(dl_phdr_info *info, size_t, void *visited) {
    const auto own = reinterpret_cast<uintptr_t>(&FindOwnRange);
    const bool program = (*static_cast<int *>(visited))++ == 0;  // the program comes first
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const auto &ph = info->dlpi_phdr[i];
        const uintptr_t start = info->dlpi_addr + ph.p_vaddr;
        if (ph.p_type != PT_LOAD || !(ph.p_flags & PF_X) || own < start || own >= start + ph.p_memsz) continue;
        if (!program) g_ownStart = start, g_ownEnd = start + ph.p_memsz;
        return 1;
    }
    return 0;
}

void FindOwnCode() {
    int visited = 0;
    dl_iterate_phdr(FindOwnRange, &visited);
    Dl_info info{};
    if (dladdr(reinterpret_cast<void *>(&backtrace), &info)) g_cLibrary = info.dli_fbase;
}

bool InLibrary(void *pc) {
    const auto at = reinterpret_cast<uintptr_t>(pc);
    return at >= g_ownStart && at < g_ownEnd;
}

// The C library's start routines, the library's thread trampoline and the program's _start.
bool StartsThreads(void *pc) {
    Dl_info info{};
    if (InLibrary(pc)) return true;
    // The program's entry routine (_start), named or not: a few instructions from its entry.
    const uintptr_t entry = getauxval(AT_ENTRY), at = reinterpret_cast<uintptr_t>(pc);
    if (at - entry < 128) return true;  // below the entry, the difference wraps past 128
    if (!dladdr(pc, &info)) return false;
    return info.dli_fbase == g_cLibrary || (info.dli_sname && strcmp(info.dli_sname, "_start") == 0);
}

// The end of the calling thread's stack, asked once per thread; 0 when unknown.
[[gnu::noinline]] uintptr_t AskStackEnd(CheckThread *me) {
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        void *low = nullptr;
        size_t size = 0;
        if (pthread_attr_getstack(&attributes, &low, &size) == 0) me->stackEnd = reinterpret_cast<uintptr_t>(low) + size;
        pthread_attr_destroy(&attributes);
    }
    return me->stackEnd;
}
inline uintptr_t StackEnd() {
    CheckThread *me = Me();
    return me->stackEnd ? me->stackEnd : AskStackEnd(me);
}

// The word at offset bytes above a frame of the calling thread's stack.
VOKT_READS_OTHER_FRAMES inline uintptr_t WordAt(const char *frame, size_t offset) {
    uintptr_t word;
    memcpy(&word, frame + offset, sizeof word);
    return word;
}

VOKT_READS_OTHER_FRAMES bool Confirmed(const Site &site, const char *frame) {
    if (site.reach && reinterpret_cast<uintptr_t>(frame) + site.reach >= StackEnd()) return false;
    for (uint32_t i = 0; i < site.confirmed; i++)
        if (WordAt(frame, site.slot[i]) != reinterpret_cast<uintptr_t>(site.pc[i])) return false;
    return true;
}

// Finds the stack slot of each return address, each above the one before.
VOKT_READS_OTHER_FRAMES void FindSlots(Site &site, const char *frame, uint32_t wanted) {
    const uintptr_t end = StackEnd();
    const uintptr_t start = reinterpret_cast<uintptr_t>(frame);
    size_t at = 0;
    site.confirmed = 0;
    for (uint32_t i = 0; i < wanted && end; i++) {
        while (start + at + sizeof(uintptr_t) <= end && WordAt(frame, at) != reinterpret_cast<uintptr_t>(site.pc[i]))
            at += sizeof(uintptr_t);
        if (start + at + sizeof(uintptr_t) > end) break;
        site.slot[i] = static_cast<uint32_t>(at);
        site.reach = site.slot[i] + sizeof(uintptr_t);
        site.confirmed = i + 1;
        at += sizeof(uintptr_t);
    }
}

[[gnu::noinline]] uint32_t NewSite(uintptr_t ret, const char *frame, uint64_t hash) {
    if (__atomic_load_n(&g_sitesFull, __ATOMIC_RELAXED)) return 0;
    void *pcs[kAsked + 2];
    const int got = backtrace(pcs, kAsked + 2);
    int from = 0;
    while (from < got && reinterpret_cast<uintptr_t>(pcs[from]) != ret) from++;
    // A chain the unwinder could not follow (from == got) is kept all the same, with no
    // frames: it prints as an unknown site, and the next capture there costs no backtrace.
    Site fresh{};
    fresh.frame = reinterpret_cast<uintptr_t>(frame);
    const int count = got - from < kAsked ? got - from : kAsked;
    for (int i = 0; i < count; i++) fresh.pc[i] = pcs[from + i];
    uint32_t first = 0;
    while (first < static_cast<uint32_t>(count) && InLibrary(fresh.pc[first])) first++;
    if (first == static_cast<uint32_t>(count)) first = 0;  // all the library's own (a thread of its own)
    // The frames that start every thread and the process are the same for all sites.
    uint32_t last = static_cast<uint32_t>(count);
    while (last > first + 1 && StartsThreads(fresh.pc[last - 1])) last--;
    fresh.first = first;
    fresh.count = last - first < kShown ? last - first : kShown;
    FindSlots(fresh, frame, first + fresh.count);

    {
        SpinGuard guard(g_siteLock);
        if (Site *slot = g_sites.Claim(hash)) {
            *slot = fresh;  // its key still 0: not yet found by readers
            slot->same = PrintedAsLocked(static_cast<uint32_t>(slot - g_siteSlots) + 1);
            __atomic_store_n(&slot->ret, ret, __ATOMIC_RELEASE);
            return slot->same;
        }
        __atomic_store_n(&g_sitesFull, true, __ATOMIC_RELAXED);
    }
    LimitReached(Limit::kSites);
    return 0;
}

}  // namespace

[[gnu::noinline]] uint32_t CaptureSite() {
    const auto *frame = static_cast<const char *>(__builtin_frame_address(0));
    const auto ret = reinterpret_cast<uintptr_t>(__builtin_return_address(0));
    const uint64_t hash = Mix(ret, reinterpret_cast<uintptr_t>(frame));
    const Site *known = g_sites.Find(hash, [&](const Site &s) {
        return __atomic_load_n(&s.ret, __ATOMIC_RELAXED) == ret && s.frame == reinterpret_cast<uintptr_t>(frame) &&
               Confirmed(s, frame);
    });
    return known ? known->same : NewSite(ret, frame, hash);
}

Frames FramesOf(uint32_t site) {
    if (site == 0) return {nullptr, 0};
    const Site &at = SiteAt(site);
    return {&at.pc[at.first], at.count};
}

bool SitesPrepare() {
    if (!MapArray(g_siteSlots, kSiteSlots) || !MapArray(g_printedAsSlots, kSiteSlots)) return false;
    if (!g_sites.Slots()) {
        g_sites.Attach(g_siteSlots, kSiteSlots);
        g_printedAs.Attach(g_printedAsSlots, kSiteSlots);
        FindOwnCode();
    }
    return true;
}

void SitesFork(bool take) { take ? g_siteLock.lock() : g_siteLock.unlock(); }

}  // namespace vokt
