// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <vector>

#include "support.h"
#include "vokt/vokt.h"

namespace {

const std::string kStamp = "\\d\\d/\\d\\d/\\d{4} \\d\\d:\\d\\d:\\d\\d";
const std::string kTag = " t0x[0-9a-f]+ : ";

// True when the file holds exactly these lines, each after its time stamp.
bool LogIs(const std::vector<std::string> &patterns, const std::string &path = "vokt.log") {
    std::string all;
    for (const auto &p : patterns) all += kStamp + p + "\n";
    return std::regex_match(test::ReadFile(path), std::regex(all));
}

// Runs body in a child with the given environment (null: unset), stderr captured.
int WithEnv(const char *debug, const char *logging, const std::function<void(const std::string &)> &body) {
    return test::InChild([&] {
        debug ? setenv("VOKT_DEBUG", debug, 1) : unsetenv("VOKT_DEBUG");
        logging ? setenv("VOKT_LOGGING", logging, 1) : unsetenv("VOKT_LOGGING");
        Runtime_Init();
        testing::internal::CaptureStderr();
        Log_Write(100, "debug");
        Log_Write(50, "fifty");
        Log_Write(0, "zero %d", 0);
        body(testing::internal::GetCapturedStderr());
    });
}

TEST(Log, EnvironmentChoosesLevelTagEchoAndFile) {
    EXPECT_EQ(0, WithEnv(nullptr, nullptr, [](const std::string &echo) {
        EXPECT_TRUE(LogIs({": zero 0"}));
        EXPECT_EQ(echo, "");
    }));
    EXPECT_EQ(0, WithEnv("1", "50", [](const std::string &echo) {
        EXPECT_TRUE(LogIs({kTag + "debug", kTag + "fifty", kTag + "zero 0"}));
        EXPECT_EQ(echo, test::ReadFile("vokt.log"));
    }));
    EXPECT_EQ(0, WithEnv("custom.log", nullptr, [](const std::string &) {
        EXPECT_TRUE(LogIs({kTag + "debug", kTag + "fifty", kTag + "zero 0"}, "custom.log"));
    }));
    EXPECT_EQ(0, WithEnv("", "50", [](const std::string &echo) {  // an empty VOKT_DEBUG counts as unset
        EXPECT_TRUE(LogIs({": fifty", ": zero 0"}));
        EXPECT_EQ(echo, "");
    }));
    EXPECT_EQ(0, WithEnv(nullptr, "abc", [](const std::string &) { EXPECT_EQ(Log_GetLevel(), 0); }));
}

TEST(Log, SettersAndTheThreadTagBoundary) {
    EXPECT_EQ(0, test::InChild([] {
        EXPECT_EQ(Log_GetLevel(), -1);  // not read before the first call
        for (int32_t level : {10, 5}) Log_SetLevel(level);
        Log_SetInitialLevel(1);
        EXPECT_EQ(Log_GetLevel(), 10);  // later calls only raise it
        Log_SetLevel(99);
        Log_Write(99, "untagged");
        Log_SetLevel(100);
        testing::internal::CaptureStdout();
        Log_SetEcho(1);
        Log_Write(0, "echoed");
        EXPECT_EQ(test::Count(testing::internal::GetCapturedStdout(), "echoed"), 1);
        EXPECT_TRUE(LogIs({": untagged", kTag + "echoed"}));
    }));
}

std::string OldLog(size_t size) {
    std::string text;
    for (int i = 0; text.size() < size; i++) text += "line " + std::to_string(i) + " of the old log\n";
    return text.substr(0, size);
}

// Size of the log after one line is written over a file of the given text.
size_t SizeAfterOneLine(const std::string &old, int32_t maxKB) {
    Log_SetMaxSize(maxKB);
    test::WriteFile("vokt.log", old);
    Log_Write(0, "next");
    return test::ReadFile("vokt.log").size();
}

TEST(Log, FileIsCutToTheWholeLinesOfItsNewestHalf) {
    const size_t kLine = 26;  // "DD/MM/YYYY hh:mm:ss: next\n"
    EXPECT_EQ(0, test::InChild([&] { EXPECT_EQ(SizeAfterOneLine(OldLog(131072), 128), 131072 + kLine); }));
    EXPECT_EQ(0, test::InChild([&] { EXPECT_EQ(SizeAfterOneLine(std::string(5000, 'x'), 0), 5000 + kLine); }));
    EXPECT_EQ(0, test::InChild([&] { EXPECT_LE(SizeAfterOneLine(OldLog(5000), 0), 1024 + kLine); }));
    // Nothing after the only line end, or no memory for the kept lines: the file stays whole.
    EXPECT_EQ(0, test::InChild([&] { EXPECT_EQ(SizeAfterOneLine(std::string(5000, 'x') + "\n", 0), 5001 + kLine); }));
    EXPECT_EQ(0, test::InChild([&] {
        test::FailAllocation(2);  // after the line's own String, the kept bytes
        EXPECT_EQ(SizeAfterOneLine(OldLog(5000), 0), 5000 + kLine);
    }));
    EXPECT_EQ(0, test::InChild([] {
        Log_SetLevel(25);
        const std::string old = OldLog(131073);
        SizeAfterOneLine(old, 128);
        const std::string tail = old.substr(old.find('\n', old.size() - 65536) + 1), now = test::ReadFile("vokt.log");
        ASSERT_EQ(now.compare(0, tail.size(), tail), 0);
        test::WriteFile("rest", now.substr(tail.size()));
        EXPECT_TRUE(LogIs({": Logfile truncated from 131073 bytes to " + std::to_string(tail.size()) + " bytes", ": next"},
                          "rest"));
    }));
}

TEST(Log, FailuresDegradeAsSpecified) {
    EXPECT_EQ(0, WithEnv("1", nullptr, [](const std::string &) {
        testing::internal::CaptureStderr();
        test::FailAllocation(1);  // the scratch string
        EXPECT_EQ(Log_Write(0, "lost %d", 1), -2);
        test::FailAllocation(2);  // the formatted message
        EXPECT_EQ(Log_Write(0, "lost %d", 2), 0);
        test::FailAllocation(0);
        EXPECT_EQ(test::Count(testing::internal::GetCapturedStderr(), "ERROR FORMATTING LOG LINE"), 1);
        const std::string log = test::ReadFile("vokt.log");
        EXPECT_EQ(test::Count(log, "lost"), 0);
        EXPECT_EQ(test::Count(log, "\nINSUFFICIENT FREE MEMORY TO MAINTAIN LOGFILE\n"), 1);
        // A file that cannot be opened loses the line quietly after its ten attempts.
        EXPECT_EQ(Log_SetFile("no/such/dir/x.log"), 0);
        const auto start = std::chrono::steady_clock::now();
        testing::internal::CaptureStderr();
        EXPECT_EQ(Log_Write(0, "nowhere"), 0);
        EXPECT_EQ(test::Count(testing::internal::GetCapturedStderr(), "nowhere"), 1);  // still echoed
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(12));
        test::FailAllocation(1);
        EXPECT_EQ(Log_SetFile("other.log"), -2);
        Log_Shutdown();
    }));
}

void *WriteMany(void *arg) {
    const long id = reinterpret_cast<long>(arg);
    const std::string payload(200, static_cast<char>('a' + id));
    for (int i = 0; i < 150; i++) Log_Write(0, "thread %ld %s", id, payload.c_str());
    return nullptr;
}

// Eight threads write while the first of their lines cuts the file back: the old lines
// kept, the notice and every new line arrive whole.
TEST(Log, LinesFromSeveralThreadsNeverInterleave) {
    EXPECT_EQ(0, test::InChild([] {
        Log_SetLevel(25);
        Log_SetMaxSize(2);
        const std::string old = OldLog(6000).substr(0, OldLog(6000).rfind('\n') + 1);  // whole lines
        test::WriteFile("vokt.log", old);
        Thread threads[8];
        for (long i = 0; i < 8; i++) Thread_CreateJoinable(&threads[i], WriteMany, reinterpret_cast<void *>(i));
        for (auto &t : threads) Thread_Join(t);
        const std::regex line(kStamp + ": thread [0-7] ([a-h])\\1{199}\n");
        const std::string log = test::ReadFile("vokt.log");
        EXPECT_EQ(std::distance(std::sregex_iterator(log.begin(), log.end(), line), std::sregex_iterator()), 1200);
        EXPECT_EQ(test::Count(log, "Logfile truncated from " + std::to_string(old.size()) + " bytes"), 1);
        EXPECT_GT(test::Count(log, "of the old log\n"), 0) << "the newest old lines stay";
        const std::regex whole("(" + kStamp + ": thread [0-7] ([a-h])\\2{199}|line \\d+ of the old log|" + kStamp +
                               ": Logfile truncated from \\d+ bytes to \\d+ bytes)\n");
        EXPECT_EQ(std::regex_replace(log, whole, ""), "") << "every line is one of these, whole";
    }));
}

void *LogUntilStopped(void *arg) {
    auto *stop = static_cast<std::atomic<bool> *>(arg);
    while (!stop->load()) Log_Write(0, "parent");
    return nullptr;
}

// A fork that lands while another thread is inside the log or the error store leaves
// the child with both usable.
TEST(Log, ChildrenForkedWhileAnotherThreadLogsCanLog) {
#if defined(__SANITIZE_ADDRESS__)
    // This toolchain's address sanitizer holds no lock of its allocator across fork(): a
    // child forked while the other thread is in malloc can hang in its own first malloc,
    // whatever the library does. The other builds (the thread sanitizer's included) run it.
    GTEST_SKIP() << "the address sanitizer's allocator is not fork-safe here";
#endif
    EXPECT_EQ(0, test::InChild([] {
        Log_SetMaxSize(1 << 20);  // never cut while the test runs, however long it takes
        std::atomic<bool> stop{false};
        Thread t;
        Thread_CreateJoinable(&t, LogUntilStopped, &stop);
        int hung = 0;
        for (int i = 0; i < 100; i++) {
            const pid_t pid = fork();
            if (pid == 0) {
                alarm(10);
                Log_Write(0, "child");
                ErrorStore_Check(ErrorStore_Register(Error_NewInternal("in the child")));
                _exit(0);
            }
            int status = 0;
            waitpid(pid, &status, 0);
            if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) hung++;
        }
        stop = true;
        Thread_Join(t);
        EXPECT_EQ(hung, 0);
        EXPECT_EQ(test::Count(test::ReadFile("vokt.log"), ": child\n"), 100);
    }));
}

std::vector<int> g_inheritable;  // descriptors seen without close-on-exec

void *WatchingMalloc(size_t n) {
    for (int fd = 3; fd < 256; fd++) {
        const int flags = fcntl(fd, F_GETFD);
        if (flags != -1 && !(flags & FD_CLOEXEC)) g_inheritable.push_back(fd);
    }
    return malloc(n);
}

// While the log cuts its file back it holds descriptors open; none of them may reach a
// program that another thread starts meanwhile.
TEST(Log, SizeCheckDescriptorsAreClosedOnExec) {
    EXPECT_EQ(0, test::InChild([] {
        for (int fd = 3; fd < 256; fd++) close(fd);
        const MemoryFunctions watching = {WatchingMalloc, realloc, free};
        Memory_SetFunctions(&watching);
        Log_SetLevel(25);
        EXPECT_LT(SizeAfterOneLine(OldLog(5000), 0), 5000u);
        Memory_SetFunctions(nullptr);
        EXPECT_TRUE(g_inheritable.empty()) << g_inheritable.size();
    }));
}

// Blocks the first thread that allocates twice in the log (it then holds the log's lock)
// until the test lets it go.
std::atomic<int> g_holdStage{0};
thread_local int t_allocations = 0;
void *HoldingMalloc(size_t n) {
    if (++t_allocations == 2 && g_holdStage.exchange(1) == 0)
        test::WaitFor("the test to let the logger go", [] { return g_holdStage.load() == 2; });
    return malloc(n);
}

void *LogEarly(void *) {
    Log_Write(0, "early");
    return nullptr;
}

// Start-up never initialises the log's or the store's lock again: a thread that logged
// before it keeps a sound hold, and everyone can log afterwards.
TEST(Log, StartUpLeavesALockThatIsHeldAlone) {
    EXPECT_EQ(0, test::InChild([] {
        const MemoryFunctions holding = {HoldingMalloc, realloc, free};
        Memory_SetFunctions(&holding);
        testing::internal::CaptureStderr();
        Thread t;
        Thread_CreateJoinable(&t, LogEarly, nullptr);
        test::WaitFor("a logger inside the log", [] { return g_holdStage.load() == 1; });
        Runtime_Init();
        g_holdStage = 2;
        Thread_Join(t);
        static std::atomic<bool> logged{false};
        Thread_Create(&t, [](void *) -> void * {
            Log_Write(0, "after");
            Log_Write(0, "after");
            return logged = true, nullptr;
        }, nullptr);
        test::WaitFor("two more lines to get through the log", [] { return logged.load(); });
        Memory_SetFunctions(nullptr);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_TRUE(LogIs({": early", ": after", ": after"}));
    }));
}

}  // namespace
