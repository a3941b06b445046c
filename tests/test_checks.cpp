// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <utility>

#include "support.h"
#include "vokt/vokt.h"

namespace {

struct Output {
    std::string out, err, log;
};

// Runs the program of planted mistakes in the current (temporary) directory with the given
// checks; the sanitizers' own reports of these mistakes are kept out of its output.
Output Planted(const char *mistakes, const char *checks, int status = 0, const char *program = VOKT_PLANTED) {
    // The emulator of a cross build is found before the checks' own PATH (if any) is set.
    const std::string emulator = getenv("VOKT_TEST_EMULATOR") ? getenv("VOKT_TEST_EMULATOR") : "";
    const size_t space = std::min(emulator.find(' '), emulator.size());
    const std::string run = emulator.empty() ? "" : "$(command -v " + emulator.substr(0, space) + ")" + emulator.substr(space);
    const std::string command = std::string("env ASAN_OPTIONS=detect_leaks=0 TSAN_OPTIONS=detect_deadlocks=0:report_mutex_bugs=0 VOKT_CHECK=") +
                                checks + " " + run + " '" + program + "' " + mistakes + " >out 2>err";
    const int ran = system(command.c_str());
    EXPECT_TRUE(WIFEXITED(ran)) << command;
    EXPECT_EQ(WEXITSTATUS(ran), status) << command;
    return {test::ReadFile("out"), test::ReadFile("err"), test::ReadFile("vokt.log")};
}

std::string Line(const std::string &text, const std::string &start) {
    const size_t at = text.find(start);
    return at == std::string::npos ? "" : text.substr(at, text.find('\n', at) - at);
}

TEST(Checks, LeaksAreReportedByClassAndSite) {
    EXPECT_EQ(0, test::InChild([] {
        const Output off = Planted("leaks", "");
        EXPECT_EQ(off.out, "String -1 Vector -1\nreported -1\n");
        EXPECT_EQ(off.err, "");
        const Output on = Planted("leaks", "' LEAKS ; bogus'");
        // Each String with its text "key=value", the Vector with its slots.
        const std::string strings = "2 String (" + std::to_string(2 * (sizeof(String) + 10)) + " bytes) from load_config+0x";
        // The Vector is made in an inlined function: its line and its caller's are named.
        const std::string vector = " bytes) from new_list (planted, planted.c:";
        EXPECT_EQ(on.out.substr(0, on.out.find("vokt: ")), "String 2 Vector 1\n");
        const std::string now = Line(on.out, "vokt: ");
        EXPECT_EQ(now.find("vokt: 3 objects alive now: " + strings), 0u) << now;
        EXPECT_NE(now.find(vector), std::string::npos) << now;
        EXPECT_NE(on.out.find("\nreported 3\n"), std::string::npos) << on.out;
        EXPECT_EQ(Line(on.err, "vokt: VOKT_CHECK"), "vokt: VOKT_CHECK: unknown check \"bogus\" ignored");
        const std::string exit = Line(on.err, "vokt: 3 objects");
        EXPECT_EQ(exit.find("vokt: 3 objects alive at exit: " + strings), 0u) << on.err;
        EXPECT_NE(exit.find(vector), std::string::npos) << exit;
        EXPECT_NE(exit.find(") <- main+0x"), std::string::npos) << exit;
        EXPECT_EQ(test::Count(on.err, "vokt: "), 2) << on.err;
        EXPECT_NE(on.log.find(exit), std::string::npos) << on.log;
        // Without addr2line, sites have no file and line, and the dynamic symbols still name
        // the functions.
        const std::string bare = Line(Planted("leaks", "leaks PATH=/nowhere VOKT_CHECK_EXITCODE=23", 23).err, "vokt: 3 objects");
        EXPECT_EQ(bare.find("vokt: 3 objects alive at exit: " + strings), 0u) << bare;
        EXPECT_EQ(bare.find(".c:"), std::string::npos) << bare;
        // Known leaks are counted apart; a report of known leaks alone fails nothing.
        test::WriteFile("known", "# the configuration lives as long as the program\n leak:load_config \nbogus\n");
        const std::string known = Planted("leaks", "leaks VOKT_CHECK_SUPPRESS=known").err;
        EXPECT_EQ(Line(known, "vokt: VOKT_CHECK_SUPPRESS"), "vokt: VOKT_CHECK_SUPPRESS: \"bogus\" is not leak:NAME; ignored");
        EXPECT_EQ(Line(known, "vokt: 1 object").find("vokt: 1 object alive at exit: 1 Vector ("), 0u) << known;
        EXPECT_NE(known.find("; 2 objects and 0 blocks known (VOKT_CHECK_SUPPRESS)\n"), std::string::npos) << known;
        test::WriteFile("known", "leak:load_config\nleak:main\n");
        EXPECT_EQ(Planted("leaks", "leaks VOKT_CHECK_SUPPRESS=known VOKT_CHECK_EXITCODE=23").err,
                  "vokt: 0 objects alive at exit, 3 objects and 0 blocks known (VOKT_CHECK_SUPPRESS)\n");
    }));
}

TEST(Checks, LockOrderInversionsAndHoldsAreReportedWithoutADeadlock) {
    EXPECT_EQ(0, test::InChild([] {
        EXPECT_EQ(Planted("locks", "").err, "");
        const Output on = Planted("locks", "locks");  // its Mutexes are the file's a and b
        const std::string inversion = Line(on.err, "vokt: lock order");
        EXPECT_EQ(inversion.find("vokt: lock order inversion: Mutex b then Mutex a in thread "), 0u)
            << on.out << on.err;
        EXPECT_NE(inversion.find(" \"backwards\"), locked at backwards+0x"), std::string::npos) << inversion;
        EXPECT_NE(inversion.find("; the opposite order was taken in thread "), std::string::npos) << inversion;
        EXPECT_NE(inversion.find(" \"forwards\"), locked at forwards+0x"), std::string::npos) << inversion;
        EXPECT_NE(inversion.find(", locked at forwards+0x"), std::string::npos) << inversion;
        EXPECT_EQ(Line(on.err, "vokt: wait").find("vokt: wait on a Condition at plant_locks+0x"), 0u) << on.err;
        EXPECT_NE(Line(on.err, "vokt: wait").find(" while holding Mutex a, locked at plant_locks+0x"),
                  std::string::npos);
        EXPECT_EQ(Line(on.err, "vokt: thread").find("vokt: thread 4 ("), 0u) << on.err;
        EXPECT_NE(Line(on.err, "vokt: thread").find(" \"keeps a\") ended holding Mutex a, locked at keeps_a+0x"),
                  std::string::npos) << on.err;
        EXPECT_EQ(Line(on.err, "vokt: Mutex").find("vokt: Mutex a unlocked by a thread that does not hold it, at plant_locks+0x"), 0u)
            << on.err;
        EXPECT_NE(Line(on.err, "vokt: Mutex").find(" \"keeps a\") ended holding it, locked at keeps_a+0x"), std::string::npos);
        EXPECT_EQ(test::Count(on.err, "vokt: "), 4) << on.err;
    }));
}

// VOKT_CHECK_OUTPUT: each report is also one JSON object on a line of its own, with its
// values as arrays (classes, counts, bytes, Mutexes, threads, sites as frames).
TEST(Checks, ReportsAreWrittenAsJsonLines) {
    EXPECT_EQ(0, test::InChild([] {
        Planted("leaks", "'leaks;bo\"g\tus' VOKT_CHECK_OUTPUT=reports.json");
        Planted("locks", "locks VOKT_CHECK_OUTPUT=reports.json");
        const std::string json = test::ReadFile("reports.json");
        EXPECT_EQ(test::Count(json, "\n"), 7) << json;
        EXPECT_EQ(test::Count(json, "{\"kind\":"), 7) << json;
        const std::string setting = Line(json, "{\"kind\":\"setting\",\"pid\":");
        EXPECT_NE(setting.find(",\"text\":\"VOKT_CHECK: unknown check \\\"bo\\\"g\\u0009us\\\" ignored\"}"), std::string::npos) << json;
        const std::string leaks = Line(json, "{\"kind\":\"leaks\"");
        EXPECT_NE(leaks.find(",\"text\":\"3 objects alive now: 2 String ("), std::string::npos) << leaks;
        EXPECT_NE(leaks.find(",\"classes\":[\"String\",\"Vector\"],\"counts\":[2,1],\"bytes\":["), std::string::npos) << leaks;
        EXPECT_NE(leaks.find(",\"sites\":[[{\"function\":\"load_config\",\"offset\":\"0x"), std::string::npos) << leaks;
        EXPECT_NE(leaks.find("\"module\":\"planted\",\"file\":\"planted.c\",\"line\":"), std::string::npos) << leaks;
        EXPECT_NE(leaks.find("[{\"function\":\"new_list\",\"module\":\"planted\",\"file\":\"planted.c\",\"line\":"),
                  std::string::npos) << leaks;
        const std::string inversion = Line(json, "{\"kind\":\"lock-order-inversion\"");
        EXPECT_NE(inversion.find(",\"mutexes\":[\"b\",\"a\"],\"threads\":[{\"number\":2,\"tid\":"), std::string::npos) << inversion;
        EXPECT_NE(inversion.find(",\"name\":\"backwards\"}"), std::string::npos) << inversion;
        for (const char *kind : {"wait-while-holding", "ended-holding", "unlock-not-held"})
            EXPECT_EQ(test::Count(json, std::string("{\"kind\":\"") + kind + "\""), 1) << kind;
        // Without addr2line a frame has no file and line.
        Planted("leaks", "leaks PATH=/nowhere VOKT_CHECK_OUTPUT=bare.json");
        const std::string bare = Line(test::ReadFile("bare.json"), "{\"kind\":\"leaks\"");
        EXPECT_NE(bare.find("[[{\"function\":\"load_config\",\"offset\":\"0x"), std::string::npos) << bare;
        EXPECT_NE(bare.find("\"module\":\"planted\"},{\"function\":\"main\""), std::string::npos) << bare;
        // A file that cannot be opened is said once, and the reports still go to standard error.
        const std::string unopened = Planted("leaks", "leaks VOKT_CHECK_OUTPUT=/nowhere/reports.json").err;
        EXPECT_EQ(Line(unopened, "vokt: VOKT_CHECK_OUTPUT"),
                  "vokt: VOKT_CHECK_OUTPUT: cannot open \"/nowhere/reports.json\" (No such file or directory); reports are not written to it");
        EXPECT_NE(unopened.find("vokt: 3 objects alive at exit: "), std::string::npos) << unopened;
    }));
}

#ifdef VOKT_PLANTED_STATIC
// In a fully static program the dynamic linker names nothing: the program's own symbol table
// names its functions and its Mutexes, with addr2line or without it.
TEST(Checks, AStaticProgramIsNamedFromItsSymbolTable) {
    EXPECT_EQ(0, test::InChild([] {
        const std::string locks = Planted("locks", "locks PATH=/nowhere", 0, VOKT_PLANTED_STATIC).err;
        EXPECT_NE(locks.find("vokt: lock order inversion: Mutex b then Mutex a in thread "), std::string::npos) << locks;
        EXPECT_NE(locks.find(" <- backwards+0x"), std::string::npos) << locks;
        const std::string leaks = Planted("leaks", "leaks", 0, VOKT_PLANTED_STATIC).err;
        EXPECT_NE(leaks.find(" <- load_config (planted_static, planted.c:"), std::string::npos) << leaks;
    }));
}
#endif

// A race checker learns lock orders from blocking locks only: watched, vokt takes its locks
// blocking, so that ThreadSanitizer (here with the library built for it) finds the inversion.
TEST(Checks, ThreadSanitizerSeesTheOrderOfLocks) {
    if (!test::kThreadSanitizer) GTEST_SKIP() << "a build for ThreadSanitizer shows this";
    EXPECT_EQ(0, test::InChild([] {
        const std::string err = Planted("locks", " TSAN_OPTIONS=detect_deadlocks=1:report_mutex_bugs=0", 66).err;
        EXPECT_EQ(test::Count(err, "WARNING: ThreadSanitizer: lock-order-inversion"), 1) << err;
    }));
}

// Used with the check off, these mistakes would corrupt the heap; with it on, each use and
// each second destruction is reported once per pair of sites and nothing is released twice.
TEST(Checks, DestroyedObjectsAreHeldBackAndEveryUseReported) {
    EXPECT_EQ(0, test::InChild([] {
        const Output on = Planted("objects", "objects");
        EXPECT_EQ(on.out, "found 0 equal 0\ndone\n");
        EXPECT_EQ(test::Count(on.err, "vokt: String used after it was destroyed at discard+0x"), 3) << on.err;
        EXPECT_EQ(test::Count(on.err, "; used at plant_objects+0x"), 3) << on.err;
        EXPECT_EQ(test::Count(on.err, "vokt: String destroyed again after it was destroyed at discard+0x"), 2) << on.err;
        EXPECT_EQ(test::Count(on.err, "; destroyed again at plant_objects+0x"), 2) << on.err;
        EXPECT_EQ(test::Count(on.err, "vokt: "), 5) << on.err;
    }));
}

TEST(Checks, SwitchedFromCodeHeldBackWithinBoundsAndReleased) {
    EXPECT_EQ(0, test::InChild([] {
        test::FailAllocation(0);  // the counting allocator, failing nothing
        Runtime_SetChecks(0);     // whatever VOKT_CHECK said
        const long blocks = test::LiveBlocks();
        String *early = String_NewFromChars("made before the checks");
        Runtime_SetChecks(VOKT_CHECK_LEAKS | VOKT_CHECK_OBJECTS | 0x100);
        EXPECT_EQ(Runtime_GetChecks(), VOKT_CHECK_LEAKS | VOKT_CHECK_OBJECTS);
        const int64_t strings = Runtime_CountLive("String");
        String_Set(early, "set after them");  // its new text is recorded, for an object that is not
        String *s = String_NewFromChars("x");
        EXPECT_EQ(Runtime_CountLive("String"), strings + 1);
        EXPECT_EQ(Runtime_CountLive(nullptr), Runtime_CountLive("String"));  // the only class alive
        MemBlock *kept = MemBlock_New(16);
        test::FailAllocation(1);
        const int32_t failed = MemBlock_Resize(kept, 1000);  // its buffer stays, and stays recorded
        test::FailAllocation(0);
        Error_Free(ErrorStore_Take(failed));
        // s with its text, kept with its buffer, and the text of early, made before the checks.
        const std::string now = test::Stderr([] { EXPECT_EQ(Runtime_ReportLeaks(nullptr), 3); });
        EXPECT_EQ(now.find("vokt: 2 objects and 1 block alive now: 1 "), 0u) << now;
        EXPECT_NE(now.find(" 1 MemBlock (" + std::to_string(sizeof(MemBlock) + 16) + " bytes) from "), std::string::npos) << now;
        EXPECT_NE(now.find("; 1 block (15 bytes) held by objects this report does not list"), std::string::npos) << now;
        MemBlock_Free(kept);
        String_Destroy(early);
        const long held = test::LiveBlocks();
        String_Destroy(s);
        EXPECT_EQ(Runtime_CountLive("String"), strings);
        EXPECT_EQ(test::LiveBlocks(), held - 1);  // its text went back, its record is held back
        const std::string use = test::Stderr([s] {
            volatile int uses = 2;  // a loop the compiler keeps: one call site, one report
            for (int i = 0; i < uses; i++) EXPECT_EQ(String_Length(s), 0);
        });
        EXPECT_EQ(use.find("vokt: String used after it was destroyed at "), 0u) << use;
        EXPECT_EQ(test::Count(use, "vokt: "), 1) << use;
        for (int i = 0; i < 100000; i++) String_Destroy(String_New());
        EXPECT_LE(test::LiveBlocks(), blocks + 65536);  // the quarantine keeps the newest only
        // ... and 4 MiB of them at the most, here a Stream and its String each time; the
        // newest stays held back, and its use reported.
        for (int i = 0; i < 30000; i++) Stream_Destroy(Stream_NewFromHandle(0));
        EXPECT_LE(test::LiveBlocks(), blocks + 2 * (4 << 20) / (sizeof(Stream) + sizeof(String)) + 2);
        EXPECT_GE(test::LiveBlocks(), blocks + (4 << 20) / (sizeof(Stream) + sizeof(String)));  // and holds them
        Stream *newest = Stream_NewFromHandle(0);
        Stream_Destroy(newest);
        EXPECT_EQ(test::Stderr([newest] { Stream_Destroy(newest); }).find("vokt: Stream destroyed again after it was destroyed "), 0u);
        Runtime_SetChecks(0);
        EXPECT_EQ(test::LiveBlocks(), blocks);
        EXPECT_EQ(Runtime_CountLive(nullptr), -1);
        EXPECT_EQ(Runtime_ReportLeaks(nullptr), -1);
    }));
}

// A program's own class, made and released through the library.
struct Thing {
    const ClassDescriptor *ftbl;
    String *label;
};
const ClassDescriptor kThing = {
    sizeof(Thing), "Thing", +[](void *t) { String_Destroy(static_cast<Thing *>(t)->label), Object_Free(t); }, nullptr,
    nullptr, nullptr};

// Objects of a program's own classes are counted, reported and held back as the library's are.
TEST(Checks, AProgramsOwnClassesTakePartInTheChecks) {
    EXPECT_EQ(0, test::InChild([] {
        Runtime_SetChecks(VOKT_CHECK_LEAKS | VOKT_CHECK_OBJECTS);
        auto *thing = static_cast<Thing *>(Object_New(&kThing));
        ASSERT_NE(thing, nullptr);
        EXPECT_EQ(thing->ftbl, &kThing);
        EXPECT_EQ(thing->label, nullptr);
        thing->label = String_NewFromChars("mine");
        EXPECT_EQ(Runtime_CountLive("Thing"), 1);
        ObjectSet *set = ObjectSet_New();  // counted by its type's name
        EXPECT_EQ(Runtime_CountLive("ObjectSet"), 1);
        ObjectSet_Free(set);
        auto *kept = static_cast<Thing *>(Object_New(&kThing));  // kept on purpose, with its label
        kept->label = String_NewFromChars("kept");
        EXPECT_EQ(Runtime_KeepAlive(kept), 1);
        EXPECT_EQ(Runtime_KeepAlive(nullptr), 0);
        const std::string leaks = test::Stderr([] { Runtime_ReportLeaks(nullptr); });
        EXPECT_NE(leaks.find(" 1 Thing (" + std::to_string(sizeof(Thing)) + " bytes) from "), std::string::npos) << leaks;
        Object_Destroy(thing);
        EXPECT_EQ(Runtime_CountLive("Thing"), 0);  // the kept one left out
        EXPECT_EQ(test::Stderr([] { EXPECT_EQ(Runtime_ReportLeaks(nullptr), 0); }), "");  // with what it holds
        Object_Destroy(kept);
        EXPECT_EQ(test::Stderr([thing] { Object_Destroy(thing); }).find("vokt: Thing destroyed again after it was destroyed at "), 0u);
        EXPECT_EQ(Object_New(nullptr), nullptr);
        Runtime_SetChecks(0);
    }));
}

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
constexpr bool kAddressSanitizer = __has_feature(address_sanitizer);
#else
constexpr bool kAddressSanitizer = false;
#endif

// Past the quarantine, whether an address held a destroyed object is told by the checks' own
// records, not by memory that is the allocator's again. An address used again since names
// no site: the destroyed object reached there may be an earlier one.
TEST(Checks, ObjectsPastTheQuarantineAreToldFromTheRecords) {
    if (kAddressSanitizer || test::kThreadSanitizer) return;  // they report this program's reads of freed memory themselves
    EXPECT_EQ(0, test::InChild([] {
        Runtime_SetChecks(VOKT_CHECK_OBJECTS);
        String *gone = String_New(), *reused = String_New();
        String_Destroy(gone);
        String_Destroy(reused);
        for (int i = 0; i < 70000; i++) Vector_Free(Vector_New());  // another size: gone's memory stays free
        EXPECT_EQ(test::Stderr([gone] { String_Destroy(gone); }).find("vokt: String destroyed again after it was destroyed at "), 0u);
        bool again = false;  // the C library's allocator gives the address out again at once
        for (int i = 0; i < 70000; i++) {
            String *filler = String_New();
            again = again || filler == reused;
            String_Destroy(filler);
        }
        const std::string report = test::Stderr([reused] { EXPECT_EQ(String_Length(reused), 0); });
        EXPECT_EQ(report.find(again ? "vokt: String used after it was destroyed earlier; its site is no longer kept; used at "
                                    : "vokt: String used after it was destroyed at "), 0u) << report;
        Runtime_SetChecks(0);
    }));
}

// The quarantine's size is the program's to set, before the checks first need it.
TEST(Checks, TheQuarantineHoldsWhatItIsToldTo) {
    setenv("VOKT_CHECK_QUARANTINE", "1", 1);
    if (!test::InFreshProcess()) return unsetenv("VOKT_CHECK_QUARANTINE"), void();  // with it, before any check was on
    test::FailAllocation(0);  // the counting allocator, failing nothing
    Runtime_SetChecks(VOKT_CHECK_OBJECTS);
    const long blocks = test::LiveBlocks();
    for (int i = 0; i < 60000; i++) String_Destroy(String_New());
    EXPECT_LE(test::LiveBlocks() - blocks, (1 << 20) / static_cast<long>(sizeof(String)));
    EXPECT_GE(test::LiveBlocks() - blocks, (1 << 20) / static_cast<long>(sizeof(String)) - 1);
    Runtime_SetChecks(0);
}

// Not a tail call: each level keeps its frame.
[[gnu::noinline]] String *Nest(int depth) {
    String *made = depth == 0 ? String_New() : Nest(depth - 1);
    asm volatile("" ::: "memory");
    return made;
}

// Chains of calls that differ only beyond the frames a site keeps print alike, and count as
// one site.
TEST(Checks, SitesThatPrintAlikeAreOne) {
    EXPECT_EQ(0, test::InChild([] {
        Runtime_SetChecks(VOKT_CHECK_LEAKS);
        String *deep = Nest(12), *deeper = Nest(13);
        const std::string report = test::Stderr([] { EXPECT_EQ(Runtime_ReportLeaks(nullptr), 2); });
        EXPECT_EQ(report.find("vokt: 2 objects alive now: 2 String ("), 0u) << report;
        String_Destroy(deep);
        String_Set(deeper, "text");
        String_AppendChars(deeper, "+more");  // a block that grew counts at its new size
        const std::string one = test::Stderr([] { EXPECT_EQ(Runtime_ReportLeaks(nullptr), 1); });  // with its text
        EXPECT_EQ(one.find("vokt: 1 object alive now: 1 String (" + std::to_string(sizeof(String) + 10) + " bytes) from "), 0u) << one;
        String_Destroy(deeper);
        Runtime_SetChecks(0);
    }));
}

[[gnu::noinline]] String *Leak() {
    String *made = String_New();
    asm volatile("" ::: "memory");
    return made;
}
// 2000 call sites of Leak, in 20 functions of 100 (a fold expression of 2000 is too deep for
// some compilers).
template <size_t From, size_t... N>
void LeakFrom(String **out, std::index_sequence<N...>) {
    ((out[From + N] = Leak()), ...);
}
template <size_t... N>
void LeakFromEach(String **out, std::index_sequence<N...>) {
    (LeakFrom<N * 100>(out, std::make_index_sequence<100>()), ...);
}

// One helper's leaks are told apart by the whole chain of its callers.
TEST(Checks, LeaksThroughOneHelperAreGroupedByCaller) {
    EXPECT_EQ(0, test::InChild([] {
        Runtime_SetChecks(VOKT_CHECK_LEAKS);
        static String *made[2000];
        LeakFromEach(made, std::make_index_sequence<20>());
        const std::string report = test::Stderr([] { EXPECT_EQ(Runtime_ReportLeaks(nullptr), 2000); });
        EXPECT_EQ(report.find("vokt: 2000 objects alive now: 1 String ("), 0u) << report.substr(0, 400);  // most first
        EXPECT_EQ(test::Count(report, " 1 String ("), 2000);  // every group, asked for now
        for (String *s : made) String_Destroy(s);
        Runtime_SetChecks(0);
    }));
}

void *LockOnce(void *m) {
    Mutex_Lock(static_cast<Mutex *>(m));
    Mutex_Unlock(static_cast<Mutex *>(m));
    return nullptr;
}

// The process's mappings, from the maps (an emulator shows its guest's there): their lines,
// and their bytes in all.
struct Maps {
    std::set<std::string> lines;
    long long bytes = 0;
};
Maps ReadMaps() {
    Maps now;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        unsigned long long start = 0, end = 0;
        if (sscanf(line.c_str(), "%llx-%llx", &start, &end) == 2) now.bytes += static_cast<long long>(end - start);
        now.lines.insert(line);
    }
    return now;
}

// What the checks keep for a thread goes with it. Three rounds of 1000 threads: a part kept
// for each thread would grow all three by far more than the bound, while something the
// process maps once, late (say, what the C library keeps for its next threads), grows one.
TEST(Checks, EndedThreadsLeaveNothingMapped) {
    EXPECT_EQ(0, test::InChild([] {
        Runtime_SetChecks(VOKT_CHECK_LOCKS);
        static Mutex m;
        Mutex_Init(&m);
        const auto rounds = [](int n) {
            for (int i = 0; i < n; i++) {
                Thread t;
                Thread_CreateJoinable(&t, LockOnce, &m);
                Thread_Join(t);
            }
        };
        rounds(100);  // what is made once for threads is made
        Maps before = ReadMaps();
        long long leastGrowth = 0;
        std::string added;  // what the round that grew least mapped, should it fail
        for (int round = 0; round < 3; round++) {
            rounds(1000);
            Maps after = ReadMaps();
            if (round == 0 || after.bytes - before.bytes < leastGrowth) {
                leastGrowth = after.bytes - before.bytes;
                added.clear();
                for (const std::string &line : after.lines)
                    if (!before.lines.count(line)) added += line + "\n";
            }
            before = std::move(after);
        }
        EXPECT_LT(leastGrowth, 100 * 4096) << "bytes mapped by 1000 threads gone, in the round that grew least; now mapped:\n" << added;
        Runtime_SetChecks(0);
    }));
}

// Makes and destroys Strings, keeping every 100th in kept.
void *Churn(void *kept) {
    for (int i = 0; i < 10000; i++) {
        String *s = String_NewFromChars("some text");
        String_AppendChars(s, " more");
        if (i % 100 == 0)
            static_cast<String **>(kept)[i / 100] = s;
        else
            String_Destroy(s);
    }
    return nullptr;
}

// Threads that allocate and destroy at once share the records and the quarantine: nothing
// reported, nothing lost.
TEST(Checks, ThreadsAllocatingAtOnceKeepTheRecordsExact) {
    EXPECT_EQ(0, test::InChild([] {
        Runtime_SetChecks(VOKT_CHECK_LEAKS | VOKT_CHECK_OBJECTS);
        const int64_t before = Runtime_CountLive("String");
        static String *kept[4][100];
        EXPECT_EQ(test::Stderr([] {
            test::Finishes("four threads making and destroying Strings", [] {
                Thread threads[4];
                for (int i = 0; i < 4; i++) Thread_CreateJoinable(&threads[i], Churn, kept[i]);
                for (Thread &t : threads) Thread_Join(t);
            });
        }), "");
        EXPECT_EQ(Runtime_CountLive("String"), before + 400);
        for (auto &row : kept)
            for (String *s : row) String_Destroy(s);
        EXPECT_EQ(Runtime_CountLive("String"), before);
        Runtime_SetChecks(0);
    }));
}

[[gnu::noinline]] void Deep(int depth, Vector *kept) {
    Vector_Add(kept, String_New());
    if (depth > 0) Deep(depth - 1, kept);
    asm volatile("" ::: "memory");
}

// A bound reached is said once, with what it costs: here the call sites, one a level of a
// deep recursion.
TEST(Checks, ABoundReachedIsSaidOnce) {
    EXPECT_EQ(0, test::InChild([] {
        Runtime_SetChecks(VOKT_CHECK_LEAKS);
        Vector *kept = Vector_NewOwning();
        EXPECT_EQ(test::Stderr([kept] { Deep(26000, kept), Deep(100, kept); }),
                  "vokt: the checks keep 24576 call sites at the most; later ones print as an unknown site\n");
        EXPECT_NE(test::Stderr([] { Runtime_ReportLeaks(nullptr); }).find(" bytes) from an unknown site"), std::string::npos);
        Vector_Free(kept);
        Runtime_SetChecks(0);
    }));
}

// A child that exits reports what it made itself, not what it inherited.
TEST(Checks, AForkedChildLeavesItsParentsObjectsToItsParent) {
    EXPECT_EQ(0, test::InChild([] {
        Runtime_SetChecks(VOKT_CHECK_LEAKS);
        String *parents = String_New();
        const std::string report = test::Stderr([] {
            const pid_t pid = fork();
            if (pid == 0) String_New(), exit(0);
            waitpid(pid, nullptr, 0);
        });
        EXPECT_EQ(report.find("vokt: 1 object alive at exit of process "), 0u) << report;
        EXPECT_NE(report.find(": 1 String ("), std::string::npos) << report;
        String_Destroy(parents);
        Runtime_SetChecks(0);
    }));
}

void InOrder(Mutex *first, Mutex *second) {
    Mutex_Lock(first);
    Mutex_Lock(second);
    Mutex_Unlock(second);
    Mutex_Unlock(first);
}

std::string Address(const void *p) {
    char text[32];
    snprintf(text, sizeof text, "%p", p);
    return text;
}
std::string Hex(size_t n) {
    char text[32];
    snprintf(text, sizeof text, "%zx", n);
    return text;
}

// Holds taken recursively, in numbers and released in any order leave nothing to report,
// until a wait is entered while one is held.
TEST(Checks, HoldsInAnyOrderAreFollowedExactly) {
    EXPECT_EQ(0, test::InChild([] {
        static Mutex many[40];
        for (Mutex &m : many) Mutex_Init(&m);
        Mutex_Lock(&many[0]);  // before the check: its unlock is this thread's own all the same
        Runtime_SetChecks(VOKT_CHECK_LOCKS);
        testing::internal::CaptureStderr();
        Mutex_Unlock(&many[0]);
        for (Mutex &m : many) Mutex_Lock(&m);
        Mutex_Lock(&many[3]);
        for (int i : {3, 3, 0, 39, 20, 5}) Mutex_Unlock(&many[i]);
        for (int i = 1; i < 39; i++)
            if (i != 20 && i != 5 && i != 3) Mutex_Unlock(&many[i]);
        for (Mutex &m : many) InOrder(&m, &many[39]);  // the same order as before
        Event e;
        Event_Init(&e);
        Event_SetState(&e, 1);
        EXPECT_EQ(Event_Wait(&e), 1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "vokt: a thread held more than 32 Mutexes at once; lock order inversions among the later ones may be missed\n");
        const std::string wait = test::Stderr([&e] {
            Mutex_Lock(&many[7]);
            EXPECT_EQ(Event_Wait(&e), 1);
            Mutex_Unlock(&many[7]);
        });
        EXPECT_EQ(wait.find("vokt: wait on an Event at "), 0u) << wait;
        // A Mutex inside a variable is named by the variable and its offset.
        EXPECT_NE(wait.find("::many+0x" + Hex(7 * sizeof(Mutex)) + ", locked at "), std::string::npos) << wait;
        Mutex_Lock(&many[8]);  // released while the check is off: not held when it is back
        Runtime_SetChecks(0);
        Mutex_Unlock(&many[8]);
        Runtime_SetChecks(VOKT_CHECK_LOCKS);
        EXPECT_EQ(test::Stderr([&e] { EXPECT_EQ(Event_Wait(&e), 1); }), "");
        Event_Destroy(&e);
        Runtime_SetChecks(0);
    }));
}

void *KeepsTheLock(void *m) {
    Mutex_Lock(static_cast<Mutex *>(m));
    return nullptr;
}

// Each mistake is said once for each pair of sites, whichever Mutexes it was made with.
TEST(Checks, EachMistakeIsReportedOncePerPairOfSites) {
    EXPECT_EQ(0, test::InChild([] {
        Runtime_SetChecks(VOKT_CHECK_LOCKS);
        static Mutex m[4];
        for (Mutex &x : m) Mutex_Init(&x);
        Event set;
        Event_Init(&set);
        Event_SetState(&set, 1);
        testing::internal::CaptureStderr();
        volatile int rounds = 2;  // kept a loop: each mistake made twice from one place
        for (int i = 0; i < rounds; i++) {
            InOrder(&m[2 * i], &m[2 * i + 1]);
            InOrder(&m[2 * i + 1], &m[2 * i]);
            Mutex_Lock(&m[i]);
            Event_Wait(&set);
            Mutex_Unlock(&m[i]);
            if (test::kThreadSanitizer) continue;  // it reports the next mistake itself, and fails the run
            Thread t;
            Thread_CreateJoinable(&t, KeepsTheLock, &m[i]);
            Thread_Join(t);
            Mutex_Unlock(&m[i]);
        }
        const std::string reports = testing::internal::GetCapturedStderr();
        for (const char *kind : {"vokt: lock order inversion: ", "vokt: wait on an Event at ", " ended holding Mutex ",
                                 " unlocked by a thread that does not hold it, at "})
            EXPECT_EQ(test::Count(reports, kind), test::kThreadSanitizer && kind[0] == ' ' ? 0 : 1) << kind << "\n" << reports;
        Event_Destroy(&set);
        Runtime_SetChecks(0);
    }));
}

// A cycle of any length is reported step by step, on the order that closes it. Orders belong
// to a Mutex as initialised: made again, it starts with none.
TEST(Checks, CyclesAreReportedStepByStepAndAMutexMadeAgainStartsAfresh) {
    EXPECT_EQ(0, test::InChild([] {
        Runtime_SetChecks(VOKT_CHECK_LOCKS);
        Mutex a, b, c;
        for (Mutex *m : {&a, &b, &c}) Mutex_Init(m);
        const std::string cycle = test::Stderr([&] {
            InOrder(&a, &b);
            InOrder(&b, &c);
            InOrder(&c, &a);
        });
        // Mutexes on the stack are named by their addresses and where they were first locked.
        const std::string A = Address(&a) + " (first locked at ", B = Address(&b) + " (first locked at ",
                          C = Address(&c) + " (first locked at ";
        EXPECT_EQ(cycle.find("vokt: lock order inversion: Mutex " + C), 0u) << cycle;
        EXPECT_NE(cycle.find(") then Mutex " + A), std::string::npos) << cycle;
        EXPECT_NE(cycle.find("; the opposite order was taken in 2 steps: Mutex " + A), std::string::npos) << cycle;
        EXPECT_NE(cycle.find("; Mutex " + B), std::string::npos) << cycle;
        EXPECT_EQ(test::Stderr([&] { InOrder(&c, &a); }), "");  // the same order again: said once
        static Mutex chain[10];  // a longer cycle shows its first 8 steps
        for (Mutex &m : chain) Mutex_Init(&m);
        for (int i = 0; i < 9; i++) InOrder(&chain[i], &chain[i + 1]);
        const std::string longer = test::Stderr([] { InOrder(&chain[9], &chain[0]); });
        EXPECT_NE(longer.find("; the opposite order was taken in 9 steps: Mutex "), std::string::npos);
        EXPECT_NE(longer.find("::chain then Mutex "), std::string::npos) << longer;
        EXPECT_EQ(longer.substr(longer.size() - 13), "; and 1 more\n") << longer;
        EXPECT_EQ(test::Stderr([&] { Mutex_Init(&a), InOrder(&b, &a); }), "");
        EXPECT_EQ(test::Stderr([&] { InOrder(&a, &b); }).find("vokt: lock order inversion: "), 0u);
        // A Mutex held twice and released once is still held; two inversions from one first
        // lock are two mistakes; a cycle through the oldest of 5000 orders out of one Mutex is
        // found.
        static Mutex x, y, z, hub, spokes[5000];
        for (Mutex *m : {&x, &y, &z, &hub}) Mutex_Init(m);
        InOrder(&y, &x);
        InOrder(&z, &x);
        EXPECT_EQ(test::Count(test::Stderr([] {
                      Mutex_Lock(&x);
                      Mutex_Lock(&x);
                      Mutex_Unlock(&x);
                      Mutex_Lock(&y);
                      Mutex_Unlock(&y);
                      Mutex_Lock(&z);
                      Mutex_Unlock(&z);
                      Mutex_Unlock(&x);
                  }), "vokt: lock order inversion: "), 2);
        for (Mutex &m : spokes) Mutex_Init(&m), InOrder(&hub, &m);
        InOrder(&spokes[0], &x);
        const std::string through = test::Stderr([] { InOrder(&x, &hub); });
        EXPECT_NE(through.find("; the opposite order was taken in 2 steps: Mutex "), std::string::npos) << through;
        EXPECT_NE(through.find("::hub then Mutex "), std::string::npos) << through;
        Runtime_SetChecks(0);
    }));
}

}  // namespace
