// SPDX-License-Identifier: MIT
// The diagnostics: the switch, the program's call sites and how they print, and the records
// behind `leaks` (what is alive, by class and site) and `objects` (destroyed objects held
// back in quarantine, their descriptor swapped for one that reports every use).
#include "vokt/diag/checks.h"

#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sched.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "vokt/diag/log.h"
#include "vokt/internal/alloc.h"
#include "vokt/internal/checks.h"
#include "vokt/internal/fork.h"


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

uint32_t g_checks = 0;

void SpinLock::lock() {
    while (__atomic_exchange_n(&word_, 1, __ATOMIC_ACQUIRE) != 0)
        while (__atomic_load_n(&word_, __ATOMIC_RELAXED) != 0) sched_yield();
}

void *MapZeroed(size_t bytes) {
    void *block = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return block == MAP_FAILED ? nullptr : block;
}
void Unmap(void *block, size_t bytes) {
    if (block) munmap(block, bytes);
}

}  // namespace vokt

namespace {

using vokt::SpinGuard;
using vokt::SpinLock;

constexpr char kPrefix[] = "vokt: ";

// snprintf that may cut its text short: sites and symbols have no length limit, and a cut
// line is better than none.
// NOLINTNEXTLINE(cert-dcl50-cpp): printf-style, so that the compiler checks each format
[[gnu::format(printf, 3, 4)]] int Put(char *out, size_t room, const char *format, ...) {
    va_list args;
    va_start(args, format);
    out[0] = '\0';
    vsnprintf(out, room, format, args);
    va_end(args);
    return static_cast<int>(strlen(out));
}

// ---------------------------------------------------------------------------------------
// Call sites. Taking a backtrace costs a microsecond, far more than the allocation or lock
// it describes, so each site is taken once and then recognised: by the return address and
// frame address of the capture, which a given chain of calls reproduces exactly, confirmed
// by reading each return address of the chain back from the stack slot where it was found
// the first time. A frame of the same function at the same depth places the next return
// slot at the same offset, so a chain that differs anywhere up to the last kept frame fails
// the confirmation and gets a site of its own.

constexpr int kAsked = 32;    // frames asked of backtrace
constexpr int kShown = 8;     // frames of the program kept per site
constexpr uint32_t kSites = 1u << 15;

struct Site {
    uintptr_t ret;  // the key (0: empty entry), published last
    uintptr_t frame;
    uint32_t confirmed;  // return slots confirmed on a match: the frames up to the last kept one
    uint32_t first;      // the first frame of the program
    uint32_t count;      // frames kept from first
    uint32_t reach;      // the highest slot offset read, checked against the stack's end
    uint32_t same;       // the first site that prints as this one (itself, most often)
    void *pc[kAsked];
    uint32_t slot[kAsked];
};

Site *g_sites = nullptr;  // kSites entries; entry 0 stands for "no site"
SpinLock g_siteLock;
// Sites by the frames they print, so that chains that differ only beyond them (or in their
// stack depth) count as one site in reports: kSites entries, each a site index (0: empty).
uint32_t *g_printedAs = nullptr;

uint32_t FramesHash(const Site &site) {
    uint64_t h = site.count;
    for (uint32_t i = 0; i < site.count; i++)
        h = (h ^ reinterpret_cast<uintptr_t>(site.pc[site.first + i])) * 0x100000001B3ull;
    return static_cast<uint32_t>(h ^ h >> 32);
}

bool SameFrames(const Site &a, const Site &b) {
    return a.count == b.count && memcmp(&a.pc[a.first], &b.pc[b.first], a.count * sizeof(void *)) == 0;
}

// The first site that prints as fresh (to be stored at index), under g_siteLock.
uint32_t PrintedAsLocked(const Site &fresh, uint32_t index) {
    for (uint32_t i = FramesHash(fresh) & (kSites - 1);; i = (i + 1) & (kSites - 1)) {
        if (g_printedAs[i] == 0) return g_printedAs[i] = index;
        if (SameFrames(g_sites[g_printedAs[i]], fresh)) return g_printedAs[i];
    }
}
uint32_t g_siteCount = 0;

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

bool InLibrary(void *pc);

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

bool InLibrary(void *pc) {
    const auto at = reinterpret_cast<uintptr_t>(pc);
    return at >= g_ownStart && at < g_ownEnd;
}

// The end of the calling thread's stack, asked once per thread; 0 when unknown.
[[gnu::noinline]] uintptr_t AskStackEnd(vokt::CheckThread *me) {
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
    vokt::CheckThread *me = vokt::Me();
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

uint32_t Mix(uintptr_t a, uintptr_t b) {
    return static_cast<uint32_t>(vokt::Mix64(static_cast<uint64_t>(a) * 0x9E3779B97F4A7C15ull ^ b));
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

[[gnu::noinline]] uint32_t NewSite(uintptr_t ret, const char *frame, uint32_t hash) {
    void *pcs[kAsked + 2];
    const int got = backtrace(pcs, kAsked + 2);
    int from = 0;
    while (from < got && reinterpret_cast<uintptr_t>(pcs[from]) != ret) from++;
    // A chain the unwinder could not follow (from == got) is kept all the same, with no
    // frames: it prints as an unknown site, and the next capture there costs no backtrace.
    Site fresh{};
    fresh.ret = ret;
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

    SpinGuard guard(g_siteLock);
    if (g_siteCount + 1 >= kSites / 4 * 3) return 0;  // full: later sites print as unknown
    for (uint32_t i = hash & (kSites - 1);; i = (i + 1) & (kSites - 1)) {
        Site &slot = g_sites[i];
        if (__atomic_load_n(&slot.ret, __ATOMIC_RELAXED) != 0) continue;
        const uintptr_t key = fresh.ret;
        fresh.ret = 0;
        fresh.same = PrintedAsLocked(fresh, i);
        slot = fresh;
        __atomic_store_n(&slot.ret, key, __ATOMIC_RELEASE);
        g_siteCount++;
        return slot.same;
    }
}

}  // namespace

namespace vokt {

[[gnu::noinline]] uint32_t CaptureSite() {
    const auto *frame = static_cast<const char *>(__builtin_frame_address(0));
    const auto ret = reinterpret_cast<uintptr_t>(__builtin_return_address(0));
    const uint32_t hash = Mix(ret, reinterpret_cast<uintptr_t>(frame));
    for (uint32_t i = hash & (kSites - 1);; i = (i + 1) & (kSites - 1)) {
        const Site &site = g_sites[i];
        const uintptr_t key = __atomic_load_n(&site.ret, __ATOMIC_ACQUIRE);
        if (key == 0) break;
        if (key == ret && site.frame == reinterpret_cast<uintptr_t>(frame) && Confirmed(site, frame)) return site.same;
    }
    return NewSite(ret, frame, hash);
}

}  // namespace vokt

namespace {

// ---------------------------------------------------------------------------------------
// Printing a site. Symbols come from the dynamic linker; addr2line, when installed, adds the
// file and line (and names functions the dynamic symbol table leaves out).

bool g_hasAddr2line = false;

void FindAddr2line() {
    const char *path = getenv("PATH");  // NOLINT(concurrency-mt-unsafe): read once at load
    if (!path) return;
    char candidate[4096];
    for (const char *p = path; *p;) {
        const char *colon = strchr(p, ':');
        const size_t length = colon ? static_cast<size_t>(colon - p) : strlen(p);
        Put(candidate, sizeof candidate, "%.*s/addr2line", static_cast<int>(length), p);
        if (length > 0 && access(candidate, X_OK) == 0) {
            g_hasAddr2line = true;
            return;
        }
        p += length + (colon ? 1 : 0);
    }
}

// Runs addr2line on one address; function and "file:line" into the two buffers.
bool AskAddr2line(const char *module, uintptr_t address, char *function, size_t functionRoom, char *place,
                  size_t placeRoom) {
    int fds[2];
    if (!g_hasAddr2line || pipe2(fds, O_CLOEXEC) != 0) return false;
    char hex[32];
    Put(hex, sizeof hex, "0x%lx", static_cast<unsigned long>(address));
    char *argv[] = {const_cast<char *>("addr2line"), const_cast<char *>("-f"), const_cast<char *>("-C"),
                    const_cast<char *>("-e"), const_cast<char *>(module), hex, nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    // posix_spawn runs no fork handlers: the log's, which take the runtime's locks, stay out.
    const int rc = posix_spawnp(&pid, "addr2line", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    char text[1024];
    size_t used = 0;
    if (rc == 0) {
        ssize_t n;
        while (used < sizeof text - 1 && (n = read(fds[0], text + used, sizeof text - 1 - used)) > 0)
            used += static_cast<size_t>(n);
        waitpid(pid, nullptr, 0);
    }
    close(fds[0]);
    text[used] = '\0';
    char *second = strchr(text, '\n');
    if (rc != 0 || !second) return false;
    *second++ = '\0';
    second[strcspn(second, " \n")] = '\0';
    Put(function, functionRoom, "%s", text);
    Put(place, placeRoom, "%s", second);
    return true;
}

// Frames already printed, by address: a report names the same frames again and again (the
// program's outer calls), and each one costs a run of addr2line.
constexpr uint32_t kPrinted = 512;
constexpr size_t kPrintedText = 1024;
struct Printed {
    void *pc;
    char text[kPrintedText];
};
Printed *g_printed = nullptr;
SpinLock g_printedLock;

void FormatFrameAnew(void *pc, char *out, size_t room);

void FormatFrame(void *pc, char *out, size_t room) {
    const uint32_t at = Mix(reinterpret_cast<uintptr_t>(pc), 0) & (kPrinted - 1);
    {
        SpinGuard guard(g_printedLock);
        if (g_printed && g_printed[at].pc == pc) {
            Put(out, room, "%s", g_printed[at].text);
            return;
        }
    }
    FormatFrameAnew(pc, out, room);
    SpinGuard guard(g_printedLock);
    if (!g_printed) g_printed = static_cast<Printed *>(vokt::MapZeroed(kPrinted * sizeof(Printed)));
    if (!g_printed) return;
    g_printed[at].pc = pc;
    Put(g_printed[at].text, kPrintedText, "%s", out);
}

void FormatFrameAnew(void *pc, char *out, size_t room) {
    Dl_info info{};
    void *entry = nullptr;
    if (!dladdr1(pc, &info, &entry, RTLD_DL_SYMENT) || !info.dli_fname) {
        Put(out, room, "%p", pc);
        return;
    }
    char path[4096];
    const char *module = info.dli_fname;
    if (module[0] == '\0' || strcmp(module, program_invocation_name) == 0) {  // the program itself
        const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
        path[n > 0 ? n : 0] = '\0';
        module = path;
    }
    const char *base = strrchr(module, '/') ? strrchr(module, '/') + 1 : module;
    const auto at = reinterpret_cast<uintptr_t>(pc);
    const auto load = reinterpret_cast<uintptr_t>(info.dli_fbase);
    // A position-independent module is read at its offset, a fixed one at its address.
    const bool shared = static_cast<const ElfW(Ehdr) *>(info.dli_fbase)->e_type == ET_DYN;
    char function[512] = "", place[512] = "";
    // The return address is just past the call; the line is the call's own.
    const bool asked = AskAddr2line(module, (shared ? at - load : at) - 1, function, sizeof function, place, sizeof place);
    const bool known = asked && strcmp(place, "??:0") != 0 && strcmp(place, "??:?") != 0;
    // The nearest exported symbol below may end before the address (a static function
    // lies between): then it is not the function's name.
    const auto *symbol = static_cast<const ElfW(Sym) *>(entry);
    const bool inside = symbol && info.dli_saddr &&
                        (symbol->st_size == 0 || at < reinterpret_cast<uintptr_t>(info.dli_saddr) + symbol->st_size);
    const char *name = inside ? info.dli_sname : nullptr;
    if (!inside) info.dli_saddr = nullptr;
    uintptr_t offset = info.dli_saddr ? at - reinterpret_cast<uintptr_t>(info.dli_saddr) : at - load;
    if (!name && asked && strcmp(function, "??") != 0) {
        name = function;
        offset = 0;
    }
    char head[640];
    if (name && offset)
        Put(head, sizeof head, "%s+0x%lx", name, static_cast<unsigned long>(offset));
    else if (name)
        Put(head, sizeof head, "%s", name);
    else
        Put(head, sizeof head, "0x%lx", static_cast<unsigned long>(offset));
    if (known)
        Put(out, room, "%s (%s, %s)", head, base, strrchr(place, '/') ? strrchr(place, '/') + 1 : place);
    else
        Put(out, room, "%s (%s)", head, base);
}

// ---------------------------------------------------------------------------------------
// Reports.

constexpr uint32_t kSeenSlots = 1u << 16;
uint64_t *g_seen = nullptr;
SpinLock g_seenLock;

uint32_t g_threadCount = 0;

}  // namespace

namespace vokt {

void FormatSite(uint32_t site, char *out, size_t room) {
    if (g_sites[site].count == 0) {
        Put(out, room, "an unknown site");
        return;
    }
    const Site &at = g_sites[site];
    size_t used = 0;
    out[0] = '\0';
    for (uint32_t i = 0; i < at.count; i++) {  // Put cuts what does not fit
        char frame[1200];
        FormatFrame(at.pc[at.first + i], frame, sizeof frame);
        used += static_cast<size_t>(Put(out + used, room - used, "%s%s", i ? " <- " : "", frame));
    }
}

bool FirstTime(uint32_t kind, uint64_t a, uint64_t b) {
    const uint64_t key = (static_cast<uint64_t>(kind) << 60) ^ (a << 30) ^ b ^ 1;
    SpinGuard guard(g_seenLock);
    for (uint32_t i = Mix(static_cast<uintptr_t>(key), 0) & (kSeenSlots - 1), n = 0; n < kSeenSlots;
         i = (i + 1) & (kSeenSlots - 1), n++) {
        if (g_seen[i] == key) return false;
        if (g_seen[i] == 0) {
            g_seen[i] = key;
            return true;
        }
    }
    return false;  // the table is full: stay quiet rather than repeat
}

__thread CheckThread *t_checkThread __attribute__((tls_model("initial-exec"))) = nullptr;

namespace {
pthread_key_t g_threadKey;
pthread_once_t g_threadKeyOnce = PTHREAD_ONCE_INIT;

void ThreadGone(void *part) {
    auto *me = static_cast<CheckThread *>(part);
    LocksAtThreadEnd(me);
    t_checkThread = nullptr;
    Unmap(me, sizeof(CheckThread));
}
void MakeThreadKey() { pthread_key_create(&g_threadKey, ThreadGone); }
}  // namespace

CheckThread *MakeCheckThread() {
    auto *me = static_cast<CheckThread *>(MapZeroed(sizeof(CheckThread)));
    if (!me) {
        // No memory for a thread's part: such threads share one, and their reports may mix
        // up their holds, which is better than no checks at all.
        static CheckThread shared;
        return t_checkThread = &shared;
    }
    pthread_once(&g_threadKeyOnce, MakeThreadKey);
    pthread_setspecific(g_threadKey, me);
    t_checkThread = me;
    return me;
}

uint32_t ThreadNumber() {
    CheckThread *me = Me();
    if (me->number == 0) me->number = __atomic_add_fetch(&g_threadCount, 1, __ATOMIC_RELAXED);
    return me->number;
}

void Report(const char *line) {
    CheckThread *me = Me();
    me->reporting++;
    fprintf(stderr, "%s\n", line);
    fflush(stderr);
    Log_Write(0, "%s", line);
    me->reporting--;
}

}  // namespace vokt

namespace {

// ---------------------------------------------------------------------------------------
// Records of the blocks the library hands out: one open-addressed table per stripe, each
// with its own lock, so that threads allocating at once seldom meet.

enum : uint32_t { kKept = 1, kQuarantined = 2, kGenerationShift = 8 };
// A forked child inherits its parent's records, but what it inherited is its parent's to
// report: each child starts a new generation, and only the current one is reported.
uint32_t g_generation = 0;

struct Record {
    uintptr_t block;  // 0: empty
    size_t size;
    const ClassDescriptor *cls;  // the class of an object; null for any other block
    uint32_t site;
    uint32_t flags;
};

constexpr uint32_t kStripes = 64;
struct alignas(64) Stripe {
    SpinLock lock;
    Record *slots = nullptr;
    size_t capacity = 0;
    size_t count = 0;
};
Stripe g_stripes[kStripes];

uint64_t HashOf(uintptr_t block) { return vokt::Mix64(block); }
Stripe &StripeOf(uintptr_t block) { return g_stripes[HashOf(block) & (kStripes - 1)]; }
size_t Home(const Stripe &s, uintptr_t block) { return (HashOf(block) >> 6) & (s.capacity - 1); }

void PutLocked(Stripe &s, const Record &r) {
    size_t i = Home(s, r.block);
    while (s.slots[i].block) i = (i + 1) & (s.capacity - 1);
    s.slots[i] = r;
    s.count++;
}

bool GrowLocked(Stripe &s) {
    const size_t capacity = s.capacity ? s.capacity * 2 : 256;
    auto *slots = static_cast<Record *>(vokt::MapZeroed(capacity * sizeof(Record)));
    if (!slots) return false;
    Record *old = s.slots;
    const size_t oldCapacity = s.capacity;
    s.slots = slots;
    s.capacity = capacity;
    s.count = 0;
    for (size_t i = 0; i < oldCapacity; i++)
        if (old[i].block) PutLocked(s, old[i]);
    vokt::Unmap(old, oldCapacity * sizeof(Record));
    return true;
}

void Insert(const Record &r) {
    Stripe &s = StripeOf(r.block);
    SpinGuard guard(s.lock);
    if ((s.count + 1) * 4 > s.capacity * 3 && !GrowLocked(s)) return;  // no room: the block goes unrecorded
    PutLocked(s, r);
}

// Removes the record of block into out (linear probing, entries shifted back over the gap).
bool Take(uintptr_t block, Record *out) {
    Stripe &s = StripeOf(block);
    SpinGuard guard(s.lock);
    if (!s.capacity) return false;
    const size_t mask = s.capacity - 1;
    size_t i = Home(s, block);
    while (s.slots[i].block != block) {
        if (!s.slots[i].block) return false;
        i = (i + 1) & mask;
    }
    *out = s.slots[i];
    for (size_t j = (i + 1) & mask; s.slots[j].block; j = (j + 1) & mask) {
        const size_t home = Home(s, s.slots[j].block);
        const bool stays = i <= j ? (home > i && home <= j) : (home > i || home <= j);
        if (!stays) {
            s.slots[i] = s.slots[j];
            i = j;
        }
    }
    s.slots[i].block = 0;
    s.count--;
    return true;
}

void SetClass(uintptr_t block, const ClassDescriptor *cls) {
    Stripe &s = StripeOf(block);
    SpinGuard guard(s.lock);
    if (!s.capacity) return;
    for (size_t i = Home(s, block); s.slots[i].block; i = (i + 1) & (s.capacity - 1))
        if (s.slots[i].block == block) {
            s.slots[i].cls = cls;
            return;
        }
}

template <typename Visit>
void EachRecord(Visit visit) {
    for (auto &s : g_stripes) {
        SpinGuard guard(s.lock);
        for (size_t i = 0; i < s.capacity; i++)
            if (s.slots[i].block) visit(s.slots[i]);
    }
}

void Remember(void *block, size_t size, uint32_t site) {
    const vokt::CheckThread *me = vokt::Me();
    const uint32_t generation = __atomic_load_n(&g_generation, __ATOMIC_RELAXED) << kGenerationShift;
    Insert(Record{reinterpret_cast<uintptr_t>(block), size, nullptr, site, generation | (me->kept ? kKept : 0u)});
}

// ---------------------------------------------------------------------------------------
// Destroyed objects: the record keeps its memory, zeroed but for a descriptor that names
// the class and the site of the destruction, until the quarantine passes its bound.

struct Zombie {
    ClassDescriptor cls;
    const ClassDescriptor *original;
    uint32_t destroyedAt;
    Zombie *next;
};

constexpr size_t kQuarantineBytes = 4u << 20;
constexpr size_t kQuarantineSlots = 1u << 16;
void **g_quarantine = nullptr;  // a ring of blocks, oldest first
size_t g_quarantineHead = 0, g_quarantineCount = 0, g_quarantineBytes = 0;
SpinLock g_quarantineLock;

constexpr uint32_t kZombieBuckets = 256;
Zombie *g_zombies[kZombieBuckets];
char *g_zombieArena = nullptr;
size_t g_zombieArenaLeft = 0;
SpinLock g_zombieLock;

enum : uint32_t { kReportUse = 1, kReportUnknown = 2 };

void ReportUse(const void *object);

void ZombieDestroy(void *object) { ReportUse(object); }
int32_t ZombieEquals(const void *probe, const void *stored) {
    ReportUse(probe);
    vokt::IsDestroyed(stored);
    return 0;
}
int ZombieCompare(const void *pa, const void *pb) {
    vokt::IsDestroyed(*static_cast<void *const *>(pa));
    vokt::IsDestroyed(*static_cast<void *const *>(pb));
    return 0;
}
int32_t ZombieHash(const void *object) {
    ReportUse(object);
    return 0;
}

const Zombie *ZombieOf(const void *object) {
    const ClassDescriptor *cls = static_cast<const Object *>(object)->ftbl;
    return cls && cls->Destroy == ZombieDestroy ? reinterpret_cast<const Zombie *>(cls) : nullptr;
}

const Zombie *ZombieFor(const ClassDescriptor *original, uint32_t site) {
    SpinGuard guard(g_zombieLock);
    Zombie **bucket = &g_zombies[(reinterpret_cast<uintptr_t>(original) >> 4 ^ site) & (kZombieBuckets - 1)];
    for (Zombie *z = *bucket; z; z = z->next)
        if (z->original == original && z->destroyedAt == site) return z;
    if (g_zombieArenaLeft < sizeof(Zombie)) {
        constexpr size_t kArena = 1u << 16;
        g_zombieArena = static_cast<char *>(vokt::MapZeroed(kArena));
        if (!g_zombieArena) return nullptr;
        g_zombieArenaLeft = kArena;
    }
    auto *z = reinterpret_cast<Zombie *>(g_zombieArena);
    g_zombieArena += sizeof(Zombie);
    g_zombieArenaLeft -= sizeof(Zombie);
    z->cls = ClassDescriptor{original->size, original->name, ZombieDestroy, ZombieEquals, ZombieCompare, ZombieHash};
    z->original = original;
    z->destroyedAt = site;
    z->next = *bucket;
    *bucket = z;
    return z;
}

void ReportUse(const void *object) {
    const Zombie *z = ZombieOf(object);
    if (!z || vokt::Reporting()) return;
    const uint32_t usedAt = vokt::CaptureSite();
    if (!vokt::FirstTime(kReportUse, z->destroyedAt, usedAt)) return;
    char destroyed[4096], used[4096], line[8400];
    vokt::FormatSite(z->destroyedAt, destroyed, sizeof destroyed);
    vokt::FormatSite(usedAt, used, sizeof used);
    Put(line, sizeof line, "%s%s used after it was destroyed at %s; used at %s", kPrefix, z->original->name,
             destroyed, used);
    vokt::Report(line);
}

// Releases the oldest blocks until the quarantine is within bytes.
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
            vokt::g_program.Free(block);
        }
    }
}

void Quarantine(void *block, Record r) {
    const Zombie *z = ZombieFor(r.cls, vokt::CaptureSite());
    if (!z) {
        vokt::g_program.Free(block);
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

// ---------------------------------------------------------------------------------------
// The leak report: live objects and blocks grouped by class and site, most numerous first.

struct Group {
    const ClassDescriptor *cls;  // null for blocks
    uint32_t site;
    uint64_t count;
    uint64_t bytes;
};

struct Tally {
    Group *groups = nullptr;
    size_t count = 0, capacity = 0;
    uint64_t objects = 0, blocks = 0;
    ~Tally() { vokt::Unmap(groups, capacity * sizeof(Group)); }
};

bool Reported(const Record &r) {
    const uint32_t generation = __atomic_load_n(&g_generation, __ATOMIC_RELAXED) & (~0u >> kGenerationShift);
    return !(r.flags & (kKept | kQuarantined)) && r.flags >> kGenerationShift == generation;
}

bool Add(Tally &t, const Record &r) {
    for (size_t i = 0; i < t.count; i++) {
        Group &g = t.groups[i];
        if (g.site == r.site && g.cls == r.cls) {
            g.count++;
            g.bytes += r.size;
            return true;
        }
    }
    if (t.count == t.capacity) {
        const size_t capacity = t.capacity * 2 + 256;
        auto *groups = static_cast<Group *>(vokt::MapZeroed(capacity * sizeof(Group)));
        if (!groups) return false;
        if (t.groups) memcpy(groups, t.groups, t.count * sizeof(Group));
        vokt::Unmap(t.groups, t.capacity * sizeof(Group));
        t.groups = groups;
        t.capacity = capacity;
    }
    t.groups[t.count++] = Group{r.cls, r.site, 1, r.size};
    return true;
}

int64_t WriteLeaks(FILE *out, const char *when) {
    Tally t;
    // Gathered under the stripes' locks into the checks' own memory; printed after.
    EachRecord([&](const Record &r) {
        if (!Reported(r) || !Add(t, r)) return;
        (r.cls ? t.objects : t.blocks)++;
    });
    if (t.count == 0) return 0;
    qsort(t.groups, t.count, sizeof(Group), [](const void *a, const void *b) {
        const auto *x = static_cast<const Group *>(a);
        const auto *y = static_cast<const Group *>(b);
        if (x->count != y->count) return x->count > y->count ? -1 : 1;
        return static_cast<int>(y->cls != nullptr) - static_cast<int>(x->cls != nullptr);  // objects first
    });
    constexpr size_t kShownGroups = 20;
    const size_t room = 4096 * (kShownGroups + 1);
    auto *line = static_cast<char *>(vokt::MapZeroed(room));
    if (!line) return -1;
    size_t used = static_cast<size_t>(Put(line, room, "%s%llu object%s", kPrefix,
                                               static_cast<unsigned long long>(t.objects), t.objects == 1 ? "" : "s"));
    if (t.blocks)
        used += static_cast<size_t>(Put(line + used, room - used, " and %llu block%s",
                                             static_cast<unsigned long long>(t.blocks), t.blocks == 1 ? "" : "s"));
    used += static_cast<size_t>(Put(line + used, room - used, " alive %s:", when));
    for (size_t i = 0; i < t.count && i < kShownGroups; i++) {
        const Group &g = t.groups[i];
        char site[3800];
        vokt::FormatSite(g.site, site, sizeof site);
        const char *name = g.cls ? g.cls->name : (g.count == 1 ? "block" : "blocks");
        used += static_cast<size_t>(Put(line + used, room - used, "%s %llu %s (%llu bytes) from %s", i ? ";" : "",
                                             static_cast<unsigned long long>(g.count), name,
                                             static_cast<unsigned long long>(g.bytes), site));
    }
    if (t.count > kShownGroups)
        Put(line + used, room - used, "; and %zu more groups", t.count - kShownGroups);
    if (out) {
        fprintf(out, "%s\n", line);
        fflush(out);
    } else {
        vokt::Report(line);
    }
    vokt::Unmap(line, room);
    return static_cast<int64_t>(t.objects + t.blocks);
}

// ---------------------------------------------------------------------------------------
// The recorders: the allocation layer's functions while blocks are recorded, in front of the
// program's own.

void *RecordedMalloc(size_t size) {
    void *block = vokt::g_program.Malloc(size);
    if (block && vokt::Checking(vokt::kCheckLeaks | vokt::kCheckObjects)) Remember(block, size, vokt::CaptureSite());
    return block;
}

void *RecordedRealloc(void *block, size_t size) {
    if (!block) return RecordedMalloc(size);
    // The record is taken out first: once the block has moved, its old address may already
    // be another thread's new block.
    Record r{};
    const bool had = Take(reinterpret_cast<uintptr_t>(block), &r);
    void *moved = vokt::g_program.Realloc(block, size);
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
    } else if (vokt::Checking(vokt::kCheckLeaks | vokt::kCheckObjects)) {
        Remember(moved, size, vokt::CaptureSite());
    }
    return moved;
}

void RecordedFree(void *block) {
    Record r{};
    if (!Take(reinterpret_cast<uintptr_t>(block), &r)) return vokt::g_program.Free(block);
    if (r.flags & kQuarantined) {  // released again: reported, and it stays where it is
        Insert(r);
        ReportUse(block);
        return;
    }
    if (r.cls && vokt::Checking(vokt::kCheckObjects)) return Quarantine(block, r);
    vokt::g_program.Free(block);
}

// Once installed the recorders stay: a block recorded must be found again when it goes,
// whatever the checks are by then.
void InstallRecorders() {
    auto &m = vokt::g_memory;
    __atomic_store_n(&m.Malloc, &RecordedMalloc, __ATOMIC_RELAXED);
    __atomic_store_n(&m.Realloc, &RecordedRealloc, __ATOMIC_RELAXED);
    __atomic_store_n(&m.Free, &RecordedFree, __ATOMIC_RELAXED);
}

// ---------------------------------------------------------------------------------------
// The switch.

// A comma-separated list of words; spaces around a word do not count.
uint32_t ParseChecks(const char *text) {
    struct Word {
        const char *word;
        uint32_t flag;
    };
    static constexpr Word kWords[] = {{"leaks", VOKT_CHECK_LEAKS}, {"locks", VOKT_CHECK_LOCKS},
                                      {"objects", VOKT_CHECK_OBJECTS}, {"all", VOKT_CHECK_ALL}};
    uint32_t flags = 0;
    for (const char *p = text; *p;) {
        const size_t span = strcspn(p, ",");
        const char *word = p;
        size_t length = span;
        while (length > 0 && *word == ' ') word++, length--;
        while (length > 0 && word[length - 1] == ' ') length--;
        bool known = length == 0;
        for (const auto &w : kWords)
            if (strlen(w.word) == length && strncmp(word, w.word, length) == 0) flags |= w.flag, known = true;
        if (!known) {
            char line[320];
            Put(line, sizeof line, "%sVOKT_CHECK: unknown check \"%.*s\" ignored", kPrefix,
                static_cast<int>(length > 200 ? 200 : length), word);
            vokt::Report(line);
        }
        p += span + (p[span] == ',' ? 1 : 0);
    }
    return flags;
}

bool PrepareTables() {
    static bool ready = false;
    static SpinLock once;
    SpinGuard guard(once);
    if (ready) return true;
    g_sites = static_cast<Site *>(vokt::MapZeroed(kSites * sizeof(Site)));
    g_seen = static_cast<uint64_t *>(vokt::MapZeroed(kSeenSlots * sizeof(uint64_t)));
    g_printedAs = static_cast<uint32_t *>(vokt::MapZeroed(kSites * sizeof(uint32_t)));
    g_quarantine = static_cast<void **>(vokt::MapZeroed(kQuarantineSlots * sizeof(void *)));
    if (!g_sites || !g_seen || !g_quarantine || !g_printedAs) return false;
    g_sites[0].ret = 1;  // entry 0 stands for no site: a key no return address has, and no frames
    FindOwnCode();
    FindAddr2line();
    ready = true;
    return true;
}

void SetChecks(uint32_t flags) {
    flags &= VOKT_CHECK_ALL;
    if ((flags && !PrepareTables()) || ((flags & VOKT_CHECK_LOCKS) && !vokt::PrepareLockOrder())) {
        fprintf(stderr, "%sthe checks could not map their tables; they stay off\n", kPrefix);
        return;
    }
    const uint32_t before = __atomic_load_n(&vokt::g_checks, __ATOMIC_RELAXED);
    if (flags & (VOKT_CHECK_LEAKS | VOKT_CHECK_OBJECTS)) InstallRecorders();
    if ((flags & VOKT_CHECK_LOCKS) && !(before & VOKT_CHECK_LOCKS)) vokt::LocksSwitchedOn();
    __atomic_store_n(&vokt::g_checks, flags, __ATOMIC_RELAXED);
    if ((before & VOKT_CHECK_OBJECTS) && !(flags & VOKT_CHECK_OBJECTS)) ReleaseQuarantine(0);
}

// Read when the library is loaded, so that objects made before Runtime_Init are seen too.
[[gnu::constructor]] void ReadSwitch() {
    const char *text = getenv("VOKT_CHECK");  // NOLINT(concurrency-mt-unsafe): read once at load
    if (text && text[0] != '\0') SetChecks(ParseChecks(text));
}

// At exit: what is still alive, then the quarantine goes back to the allocator.
[[gnu::destructor]] void AtExit() {
    if (vokt::Checking(vokt::kCheckLeaks)) WriteLeaks(nullptr, "at exit");
    if (vokt::Checking(vokt::kCheckObjects)) ReleaseQuarantine(0);
}

}  // namespace

namespace vokt {

void NoteClass(void *object, const ClassDescriptor *cls) { SetClass(reinterpret_cast<uintptr_t>(object), cls); }

void ReleaseQuarantined() { ReleaseQuarantine(0); }

KeptForProcess::KeptForProcess() {
    if (Checking(kCheckLeaks | kCheckObjects)) (me_ = Me())->kept++;
}
KeptForProcess::~KeptForProcess() {
    if (me_) me_->kept--;
}

bool Destroyed(const void *object) {
    if (!ZombieOf(object)) return false;
    ReportUse(object);
    return true;
}

namespace {
pid_t g_parentPid = 0;
}
void ChecksForkPrepare() {
    g_parentPid = getpid();
    g_siteLock.lock();
    g_seenLock.lock();
    g_printedLock.lock();
    g_zombieLock.lock();
    g_quarantineLock.lock();
    for (auto &s : g_stripes) s.lock.lock();
    LockOrderForkPrepare();
}
void ChecksForkRelease() {
    LockOrderForkRelease();
    if (getpid() != g_parentPid) {  // in the child
        g_parentPid = getpid();
        __atomic_add_fetch(&g_generation, 1, __ATOMIC_RELAXED);
    }
    for (auto &s : g_stripes) s.lock.unlock();
    g_quarantineLock.unlock();
    g_zombieLock.unlock();
    g_printedLock.unlock();
    g_seenLock.unlock();
    g_siteLock.unlock();
}

}  // namespace vokt

extern "C" {

void Runtime_SetChecks(uint32_t flags) { SetChecks(flags); }

uint32_t Runtime_GetChecks(void) { return __atomic_load_n(&vokt::g_checks, __ATOMIC_RELAXED) & VOKT_CHECK_ALL; }

int64_t Runtime_ReportLeaks(FILE *out) {
    if (!vokt::Checking(vokt::kCheckLeaks)) return -1;
    return WriteLeaks(out ? out : stderr, "now");
}

int64_t Runtime_CountLive(const char *className) {
    if (!vokt::Checking(vokt::kCheckLeaks)) return -1;
    int64_t count = 0;
    EachRecord([&](const Record &r) {
        if (r.cls && Reported(r) && (!className || strcmp(r.cls->name, className) == 0)) count++;
    });
    return count;
}

}  // extern "C"
