// SPDX-License-Identifier: MIT
// Private to the checks: what their parts share. The checks keep their own memory (mapped
// straight from the system) and their own short lock, so that they never pass through the
// allocator or the Mutexes they watch.
#ifndef VOKT_CHECKS_COMMON_H
#define VOKT_CHECKS_COMMON_H

#include <sched.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/mman.h>

#include "vokt/checks/internal/table.h"
#include "vokt/internal/classes.h"
#include "vokt/internal/hooks.h"
#include "vokt/internal/lock.h"

namespace vokt {

// ---- Memory and locking

// Zeroed memory straight from the system: the checks change nothing that the program's
// allocator sees.
inline void *MapZeroed(size_t bytes) {
    void *block = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return block == MAP_FAILED ? nullptr : block;
}
inline void Unmap(void *block, size_t bytes) {
    if (block) munmap(block, bytes);
}
// A table's array, mapped the first time a check that needs it is switched on (under the
// switch's lock, before any hook can reach it); true once it is there.
template <typename T>
bool MapArray(T *&array, size_t count) {
    const size_t bytes = count * sizeof(T);  // NOLINT(bugprone-sizeof-expression): an array's elements may be pointers
    if (!array) array = static_cast<T *>(MapZeroed(bytes));
    return array != nullptr;
}
// Doubles a table that has no room for one more entry (its first array has 256 slots);
// false when no memory could be had.
template <typename T>
bool MakeRoom(T &table) {
    if (!table.Full()) return true;
    using Slot = typename T::Slot;
    const size_t slotBytes = sizeof(Slot);  // NOLINT(bugprone-sizeof-expression): a table's slots may be pointers
    const size_t capacity = table.Capacity() ? table.Capacity() * 2 : 256;
    auto *slots = static_cast<Slot *>(MapZeroed(capacity * slotBytes));
    if (!slots) return false;
    const size_t old = table.Capacity();
    Unmap(table.MoveTo(slots, capacity), old * slotBytes);
    return true;
}

// The one mixing function of the checks' tables (a 64-bit finaliser: every output bit
// depends on every input bit, so that any slice of it serves as an index).
inline uint64_t Mix64(uint64_t h) {
    h ^= h >> 33;
    h *= 0xFF51AFD7ED558CCDull;
    h ^= h >> 33;
    h *= 0xC4CEB9FE1A85EC53ull;
    h ^= h >> 33;
    return h;
}
inline uint64_t Mix(uint64_t a, uint64_t b) { return Mix64(a * 0x9E3779B97F4A7C15ull ^ b); }

class SpinLock {
public:
    void lock() {
        // With one thread in the process nobody races for the word, and it is simply taken,
        // as the C library takes its own locks then: the recorders take several of these
        // locks for each allocation, and an atomic exchange costs as much as the rest of one.
        if (Alone()) return __atomic_store_n(&word_, 1, __ATOMIC_RELAXED);
        while (__atomic_exchange_n(&word_, 1, __ATOMIC_ACQUIRE) != 0)
            while (__atomic_load_n(&word_, __ATOMIC_RELAXED) != 0) sched_yield();
    }
    void unlock() { __atomic_store_n(&word_, 0, __ATOMIC_RELEASE); }

private:
    int word_ = 0;
};
// Takes a part's locks in order before fork(), or releases them in the opposite order
// after it.
template <size_t N>
void ForkLocks(bool take, SpinLock *const (&locks)[N]) {
    for (size_t i = 0; i < N; i++) take ? locks[i]->lock() : locks[N - 1 - i]->unlock();
}
class SpinGuard {
public:
    explicit SpinGuard(SpinLock &lock) : lock_(lock) { lock_.lock(); }
    ~SpinGuard() { lock_.unlock(); }
    SpinGuard(const SpinGuard &) = delete;
    SpinGuard &operator=(const SpinGuard &) = delete;

private:
    SpinLock &lock_;
};

// ---- Each thread's part (thread.cpp)

// Reached through one initial-exec pointer (a variable of its own per field would cost a
// call into the dynamic loader each, in a library that may be loaded late). Made on the
// thread's first need, released when it ends.
struct Taken {  // a Mutex the thread holds
    Mutex *mutex;
    uint32_t node;
    uint32_t site;
    uint32_t depth;
};
constexpr int kHeldKept = 32;  // Mutexes a thread holds that it keeps, in the order taken
struct CheckThread {
    int reporting;       // inside a report: the hooks stand aside
    int kept;            // depth of KeptForProcess scopes
    const ClassDescriptor *making;  // the class of the object being allocated
    const void *owner;              // the object the thread allocates for (OwnedBy)
    uint32_t number;     // the thread's number in reports
    uintptr_t stackEnd;  // 0 until asked
    uint32_t lockEpoch;  // the switching-on of `locks` that heldCount belongs to
    int heldCount;       // kept in held
    int unkept;          // held beyond those: only counted
    Taken held[kHeldKept];
};
extern __thread CheckThread *t_checkThread __attribute__((tls_model("initial-exec")));
CheckThread *MakeCheckThread();
// The calling thread's part.
inline CheckThread *Me() { return t_checkThread ? t_checkThread : MakeCheckThread(); }
inline bool Reporting() { return Me()->reporting != 0; }
// Small numbers for threads, in the order the checks first meet them.
uint32_t ThreadNumber();
// Notes the calling thread's system identifier and name (pthread_setname_np), for reports
// that name it, perhaps after it has ended.
void NoteThread();

// ---- Call sites (sites.cpp, frames.cpp)

// The program's call site of the calling library function, as a site number (0: none known).
uint32_t CaptureSite();
// The frames a site prints, outermost last (none for site 0 or a chain that could not be read).
struct Frames {
    void *const *pc;
    uint32_t count;
};
Frames FramesOf(uint32_t site);
// One frame as text: "f+0x2f (app, app.c:12)".
void FormatFrame(void *pc, char *out, size_t room);
// Finds the text of many frames at once (one run of addr2line a module), for the reports
// that print them next.
void ResolveFrames(void *const *pcs, size_t n);
// The name of the variable (data) or the function that holds an address, from its module's
// symbol table, and the address's offset in it; false when no table names it.
bool SymbolAt(const void *address, bool data, char *out, size_t room, uintptr_t *offset);
// The program's own file, read from /proc/self/exe once.
const char *ProgramPath();
// True when address lies in the program's own file, with what the file was moved by.
bool ProgramBias(const void *address, uintptr_t *bias);
bool SitesPrepare();
bool FramesPrepare();
void SitesFork(bool take);
void FramesFork(bool take);

// ---- Reports (report.cpp)

// One report line, made in the checks' own memory: "vokt: " and then what is added. A line
// longer than its room is cut; without memory for it, the first kSmall bytes still go out.
// With VOKT_CHECK_OUTPUT set, each report is also written to that file as one JSON object:
// its kind, its text, and what Note, AddSite and AddThread gave it as arrays of values.
enum class Field : uint32_t { kClasses, kCounts, kBytes, kMutexes, kThreads, kSites };
constexpr uint32_t kFields = 6;
class Line {
public:
    Line(const char *kind, size_t room);
    ~Line();
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;
    // NOLINTNEXTLINE(cert-dcl50-cpp): printf-style, so that the compiler checks each format
    [[gnu::format(printf, 2, 3)]] Line &Add(const char *format, ...);
    // A site: "f+0x2f (app) <- main+0x11 (app)", or "an unknown site" (null in JSON).
    Line &AddSite(uint32_t site);
    // No site, in the JSON form only (where the text says why none is named).
    Line &NoSite();
    // A thread: "thread 2 (12345 \"worker\")", its number, system identifier and name.
    Line &AddThread(uint32_t number);
    // A value of the JSON form only, at the end of one of its arrays.
    Line &Note(Field field, const char *text);
    Line &Note(Field field, uint64_t number);
    // On standard error and in the log at level 0; the calling thread's hooks stand aside
    // meanwhile (the log locks and allocates). A line that only informs does not count
    // among the reports made (VOKT_CHECK_EXITCODE).
    void Send(bool counts = true);
    // To out only (and to the JSON output).
    void Print(FILE *out);

private:
    // NOLINTNEXTLINE(cert-dcl50-cpp): printf-style, so that the compiler checks each format
    [[gnu::format(printf, 3, 4)]] void Put(Field field, const char *format, ...);
    void PutFrames(const char *text);
    void WriteJson();
    static constexpr size_t kSmall = 512;
    const char *kind_;
    char *text_;
    size_t room_, used_;
    bool mapped_;
    char *json_ = nullptr;  // kFields arrays of jsonRoom_ bytes each, when JSON is written
    size_t jsonRoom_ = 0;
    size_t jsonUsed_[kFields] = {};
    char small_[kSmall];
};
// Opens VOKT_CHECK_OUTPUT's file for the JSON form of every report (appended to); true while
// it is open.
void OpenOutput(const char *path);
bool WritingJson();
// True the first time a report of this kind is asked for this pair of values.
enum ReportKind : uint32_t {
    kReportUse = 1,
    kReportDestroy = 2,
    kInversion = 3,
    kForeignUnlock = 4,
    kEndedHolding = 5,
    kHoldAndWait = 6,
};
bool FirstTime(ReportKind kind, uint64_t a, uint64_t b);
// Reports made by this process so far.
uint64_t ReportsMade();
// A class as reports name it and Runtime_CountLive finds it: the library's set by the name of
// its type, ObjectSet (its descriptor says "Set").
inline const char *ShownName(const ClassDescriptor *cls) {
    return cls == &kObjectSetClass.base ? "ObjectSet" : cls->name;
}
// The bounds of the checks. Reaching one is reported once for the process, with what may be
// missed from then on. The fixed tables (read without a lock, so that they cannot move):
constexpr size_t kSiteSlots = 1u << 15;
constexpr size_t kSeenSlots = 1u << 16;
constexpr size_t kMutexSlots = 1u << 20;
constexpr size_t kOrderSlots = 1u << 18;
enum class Limit : uint32_t { kSites, kReports, kRecords, kMutexes, kOrders, kHeld };
void LimitReached(Limit limit);
bool ReportPrepare();
void ReportFork(bool take);

// ---- Block records (records.cpp) and the leak report (leaks.cpp)

enum : uint32_t {
    kKept = 1,         // the runtime's own, kept for the process
    kQuarantined = 2,  // a destroyed object held back
    kGone = 4,         // a destroyed object given back to the allocator: its tombstone
    kReused = 8,       // the address held a destroyed object before this one
    kKeptAlive = 16,   // kept by the program (Runtime_KeepAlive), with what it reaches
    kGenerationShift = 8,
};
struct Record {
    uintptr_t block;  // 0: empty
    size_t size;
    const ClassDescriptor *cls;  // the class of an object; null for any other block
    uint32_t site;   // where it was allocated; for a destroyed object, where it was destroyed
    uint32_t flags;  // the flags above, and the generation above kGenerationShift
    uintptr_t owner;  // the object it was allocated for; 0: none (its site says where it comes from)
};
// What the records say of an address.
enum class Known { kNothing, kLive, kHeld, kGone };
// Records a block, in place of the tombstone its address may have (it is then kReused).
void Insert(const Record &r);
// Takes the record of a block out into out; false when there is none.
bool Take(uintptr_t block, Record *out);
// The record of an address, into out.
Known Examine(uintptr_t block, Record *out);
// A quarantined object's record becomes its tombstone (out: the record); false when block is
// not held back.
bool Bury(uintptr_t block, Record *out);
// Brings the record of block into the cache, for one of the above soon to come.
void PrefetchRecord(uintptr_t block);
// Calls visit on every record, each under its table's lock.
void EachRecord(void (*visit)(const Record &, void *), void *context);
// True for a record of something alive that this process made (not a forked child's
// inheritance, nor a destroyed object).
bool Alive(const Record &r);
// True for a record that the leak report counts: alive, and not kept for the process.
bool Reported(const Record &r);
// Marks a recorded object as kept for the process; false when there is none.
bool KeepAlive(const void *object);
// Puts the recorders in front of the program's allocator, for good.
void InstallRecorders();
void RecordsFork(bool take, bool inChild);
// True in a child of fork(): its report at exit names its process.
bool InForkedChild();
// Writes the leak report (when is "at exit" or "now"): to out, or through Line::Send when
// out is null; every group, or the 20 most numerous. The number of objects and blocks
// reported, or -1.
int64_t WriteLeaks(FILE *out, const char *when, bool every);
// Reads the suppressions of VOKT_CHECK_SUPPRESS: lines "leak:NAME", NAME a function or a file
// whose leaks are known (# starts a comment).
void LoadSuppressions(const char *path);

// ---- Destroyed objects (quarantine.cpp)

// Holds a destroyed object back instead of releasing it; its record r is marked held already.
void Quarantine(void *block, const Record &r);
// Reports a use (or a destruction, when destroying) of the destroyed object that r records,
// once per pair of sites.
void ReportDestroyed(const Record &r, bool destroying);
// Releases the oldest objects held back until the quarantine is within bytes.
void ReleaseQuarantine(size_t bytes);
bool QuarantinePrepare();
void QuarantineFork(bool take);

// ---- Lock order (lockorder.cpp)

// A thread that ends with Mutexes held is reported (called as its part is released).
void LocksAtThreadEnd(CheckThread *me);
// Holds recorded before `locks` was last switched on are forgotten: the unlocks made while it
// was off were never seen.
void LocksSwitchedOn();
bool LockOrderPrepare();
void LockOrderFork(bool take);

}  // namespace vokt

#endif
