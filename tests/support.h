// SPDX-License-Identifier: MIT
// Test support: a failing allocator, child-process runs and small file helpers.
#pragma once

#include <functional>
#include <string>

#include "vokt/checks/checks.h"
#include "vokt/sync/vokt_sync.h"

namespace test {

// True under the thread sanitizer, whose runtime some tests must leave to itself.
#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif
#else
constexpr bool kThreadSanitizer = false;
#endif

// Makes the n-th (and, when given, the m-th) allocation from now on fail; 0: none.
// The failing allocator is installed for the whole run.
void FailAllocation(long n, long m = 0);
// Makes every allocation from the n-th on fail (0: none).
void FailFrom(long n);
// Number of allocations made to fail since the last FailAllocation or FailFrom call.
long InjectedFailures();
// Blocks obtained through the failing allocator and not yet released.
long LiveBlocks();

// Runs body in a forked child inside a fresh temporary directory (the child's working
// directory) and returns its exit status: 0 when no expectation failed in it.
int InChild(const std::function<void()> &body);

// Runs body on a thread of its own and waits at most five seconds for it to return; false
// (and a failure naming what) when it has not. A body that never returns is left behind.
bool Finishes(const char *what, std::function<void()> body);

// True when op, run on another thread while this one holds mutex, waits for it: it sleeps
// on the lock rather than finishing, and finishes once the lock is released.
bool WaitsForLock(Mutex *mutex, std::function<void()> op);

// True inside a new run of this program made for the current test alone; in the original
// process it starts that run, expects it to pass within a minute, and returns false. For
// tests that need a process in its first state: never forked, one thread only.
bool InFreshProcess();

// Polls done until it holds or seconds have passed; on time-out the test fails with a
// message naming what it waited for.
bool WaitFor(const char *what, const std::function<bool()> &done, double seconds = 5);

// Switches the library's checks (all but keep) off while it lives: for a test that makes a
// caller's mistake on purpose, or counts blocks that the objects check would hold back.
class ChecksOff {
public:
    explicit ChecksOff(uint32_t keep = 0) : was_(Runtime_GetChecks()) { Runtime_SetChecks(was_ & keep); }
    ~ChecksOff() { Runtime_SetChecks(was_); }
    ChecksOff(const ChecksOff &) = delete;
    ChecksOff &operator=(const ChecksOff &) = delete;

private:
    uint32_t was_;
};

// What body writes on standard error.
std::string Stderr(const std::function<void()> &body);

std::string ReadFile(const std::string &path);
void WriteFile(const std::string &path, const std::string &text);
// True when log holds the assertion report of text from module, followed by the
// empty line that every report leaves.
bool HasReport(const std::string &log, const std::string &text, const std::string &module);
// Number of times needle occurs in text.
int Count(const std::string &text, const std::string &needle);

}  // namespace test
