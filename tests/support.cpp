// SPDX-License-Identifier: MIT
#include "support.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>
#include <vector>

#include "vokt/core/memory.h"

namespace test {
namespace {

std::atomic<long> g_calls{0}, g_failAt{0}, g_alsoFailAt{0}, g_injected{0}, g_live{0};
std::atomic<bool> g_persistent{false};

bool ShouldFail() {
    if (g_failAt.load() <= 0) return false;
    const long call = ++g_calls;
    const bool fail = g_persistent ? call >= g_failAt.load() : call == g_failAt.load() || call == g_alsoFailAt.load();
    if (fail) g_injected++;
    return fail;
}

void *TestMalloc(size_t n) {
    void *p = ShouldFail() ? nullptr : malloc(n);
    if (p) g_live++;
    return p;
}
// Every block that is resized moves, so that code which still reads the old block (an
// append of a String's own text, say) reads released memory and shows it.
void *TestRealloc(void *p, size_t n) {
    if (ShouldFail()) return nullptr;
    if (p && n == 0) {  // the C library's realloc releases the block
        g_live--;
        free(p);
        return nullptr;
    }
    void *q = malloc(n);
    if (q && p) memcpy(q, p, std::min(n, malloc_usable_size(p)));
    if (q && p) free(p);
    if (q && !p) g_live++;
    return q;
}
void TestFree(void *p) {
    if (p) g_live--;
    free(p);
}

std::string MakeTempDir() {
    char pattern[] = "/tmp/vokt-test-XXXXXX";
    const char *dir = mkdtemp(pattern);
    return dir ? dir : "/tmp";
}

// 0 when the folder is gone; else an exit code of its own (a shell status of 256 would exit as 0).
int RemoveDir(const std::string &dir) { return system(("rm -rf " + dir).c_str()) == 0 ? 0 : 97; }

}  // namespace

void FailAllocation(long n, long m) {
    g_failAt = 0;
    g_calls = 0;
    g_injected = 0;
    g_alsoFailAt = m;
    g_persistent = false;
    g_failAt = n;
}

void FailFrom(long n) {
    FailAllocation(0);
    g_persistent = true;
    g_failAt = n;
}

long InjectedFailures() { return g_injected.load(); }
long LiveBlocks() { return g_live.load(); }

int InChild(const std::function<void()> &body) {
    fflush(stdout);
    fflush(stderr);
    const pid_t pid = fork();
    if (pid == 0) {
        const std::string dir = MakeTempDir();
        if (chdir(dir.c_str()) != 0) _exit(98);
        body();
        const int code = ::testing::Test::HasFailure() ? 1 : RemoveDir(dir);
        fflush(stdout);
        exit(code);  // a normal exit, so the leak checker looks at the child too
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

namespace {
struct Job {
    std::function<void()> body;
    std::atomic<bool> done{false};
};
// Never released, so that a job that never returns dangles nowhere (and stays reachable).
auto *const g_jobs = new std::vector<Job *>;

const std::atomic<bool> &InBackground(std::function<void()> body) {
    g_jobs->push_back(new Job{std::move(body)});
    pthread_t thread;
    pthread_create(&thread, nullptr, [](void *job) -> void * {
        static_cast<Job *>(job)->body();
        static_cast<Job *>(job)->done = true;
        return nullptr;
    }, g_jobs->back());
    pthread_detach(thread);
    return g_jobs->back()->done;
}
}  // namespace

bool Finishes(const char *what, std::function<void()> body) {
    const auto &done = InBackground(std::move(body));
    return WaitFor(what, [&] { return done.load(); });
}

bool WaitsForLock(Mutex *mutex, std::function<void()> op) {
    Mutex_Lock(mutex);
    const auto &done = InBackground(std::move(op));
#ifdef __GLIBC__
    WaitFor("the operation to sleep on the lock or finish", [&] { return done || mutex->mutex.__data.__lock > 1; });
#endif
    const bool waited = !done;
    Mutex_Unlock(mutex);
    return WaitFor("the operation to finish once the lock was released", [&] { return done.load(); }) && waited;
}

bool InFreshProcess() {
    if (getenv("VOKT_TEST_FRESH")) return true;
    const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter = std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name();
    char self[4096] = "";
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length > 0) self[length] = '\0';
    // A cross build's tests run under an emulator, which must start the new run too.
    const char *emulator = getenv("VOKT_TEST_EMULATOR");
    const bool emulated = emulator && emulator[0] != '\0';
    const std::string command = std::string(emulated ? emulator : "") + " '" + self + "' " + filter;
    fflush(stdout);
    fflush(stderr);
    const pid_t pid = fork();
    if (pid == 0) {
        setenv("VOKT_TEST_FRESH", "1", 1);
        if (emulated)
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        else
            execl(self, "vokt_tests", filter.c_str(), nullptr);
        _exit(127);
    }
    int status = 0;
    const bool ended = WaitFor("the test's own process to end", [&] { return waitpid(pid, &status, WNOHANG) == pid; }, 60);
    if (!ended) kill(pid, SIGKILL), waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status)) << "status " << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    return false;
}

bool WaitFor(const char *what, const std::function<bool()> &done, double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "gave up after " << seconds << " s waiting for " << what;
            return false;
        }
        usleep(1000);
    }
    return true;
}

std::string Stderr(const std::function<void()> &body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

std::string ReadFile(const std::string &path) {
    std::stringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void WriteFile(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

bool HasReport(const std::string &log, const std::string &text, const std::string &module) {
    const std::regex report("Assertion failed: " + std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)") +
                            " in file " + module + " on line \\d+\n\n");
    return std::regex_search(log, report);
}

int Count(const std::string &text, const std::string &needle) {
    int n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) n++;
    return n;
}

}  // namespace test

int main(int argc, char **argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // The failing allocator stays installed; it fails nothing until asked to.
    const MemoryFunctions functions = {test::TestMalloc, test::TestRealloc, test::TestFree};
    Memory_SetFunctions(&functions);
    // Anything logged outside a child lands in a scratch directory, never in the tree.
    const std::string dir = test::MakeTempDir();
    if (chdir(dir.c_str()) != 0) return 2;
    unsetenv("VOKT_DEBUG");
    unsetenv("VOKT_LOGGING");
    const int result = RUN_ALL_TESTS();
    return test::RemoveDir(dir) == 0 ? result : 1;
}

// The suite plants lock order inversions for vokt's own check to find; ThreadSanitizer sees
// them too (vokt takes its locks blocking under it) and would end the run. Its own finding
// of an inversion is tested in a child of its own.
#if defined(__SANITIZE_THREAD__)
#define VOKT_TEST_TSAN_OPTIONS 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VOKT_TEST_TSAN_OPTIONS 1
#endif
#endif
#ifdef VOKT_TEST_TSAN_OPTIONS
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the sanitizer runtime's own name
extern "C" const char *__tsan_default_options() { return "detect_deadlocks=0"; }
#endif
