// SPDX-License-Identifier: MIT
// The switch: which checks are on, read from VOKT_CHECK when the library is loaded or set
// from code, and what each needs made first.
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include "vokt/checks/checks.h"
#include "vokt/checks/internal/common.h"
#include "vokt/internal/fork.h"

namespace vokt {

uint32_t g_checks = 0;

namespace {

// A list of words separated by commas or semicolons, in any case; spaces around a word do
// not count.
uint32_t ParseChecks(const char *text) {
    struct Word {
        const char *word;
        uint32_t flag;
    };
    static constexpr Word kWords[] = {{"leaks", VOKT_CHECK_LEAKS}, {"locks", VOKT_CHECK_LOCKS},
                                      {"objects", VOKT_CHECK_OBJECTS}, {"all", VOKT_CHECK_ALL}};
    uint32_t flags = 0;
    for (const char *p = text; *p;) {
        const size_t span = strcspn(p, ",;");
        const char *word = p;
        size_t length = span;
        while (length > 0 && (*word == ' ' || *word == '\t')) word++, length--;
        while (length > 0 && (word[length - 1] == ' ' || word[length - 1] == '\t')) length--;
        bool known = length == 0;
        for (const auto &w : kWords)
            if (strlen(w.word) == length && strncasecmp(word, w.word, length) == 0) flags |= w.flag, known = true;
        if (!known)
            Line("setting", 320).Add("VOKT_CHECK: unknown check \"%.*s\" ignored", static_cast<int>(length > 200 ? 200 : length), word).Send();
        p += span + (p[span] != '\0' ? 1 : 0);
    }
    return flags;
}

// The tables of the checks asked for, each made once; false when memory could not be had.
SpinLock g_switchLock;
bool Prepare(uint32_t flags) {
    if (!flags) return true;
    SpinGuard guard(g_switchLock);
    return ReportPrepare() && SitesPrepare() && FramesPrepare() && QuarantinePrepare() &&
           (!(flags & VOKT_CHECK_LOCKS) || LockOrderPrepare());
}

void SetChecks(uint32_t flags) {
    flags &= VOKT_CHECK_ALL;
    if (!Prepare(flags)) {
        Line("limit", 128).Add("the checks could not map their tables; they stay off").Print(stderr);
        return;
    }
    const uint32_t before = __atomic_load_n(&g_checks, __ATOMIC_RELAXED);
    if (flags & (VOKT_CHECK_LEAKS | VOKT_CHECK_OBJECTS)) InstallRecorders();
    if ((flags & VOKT_CHECK_LOCKS) && !(before & VOKT_CHECK_LOCKS)) LocksSwitchedOn();
    __atomic_store_n(&g_checks, flags, __ATOMIC_RELAXED);
    if ((before & VOKT_CHECK_OBJECTS) && !(flags & VOKT_CHECK_OBJECTS)) ReleaseQuarantine(0);
}

// VOKT_CHECK_EXITCODE: the status of a process that reported anything (-1: its own).
int g_exitCode = -1;

// Read when the library is loaded, so that objects made before Runtime_Init are seen too.
[[gnu::constructor]] void ReadSwitch() {
    const char *output = getenv("VOKT_CHECK_OUTPUT");  // NOLINT(concurrency-mt-unsafe): read once at load
    if (output && output[0] != '\0') OpenOutput(output);
    const char *text = getenv("VOKT_CHECK");  // NOLINT(concurrency-mt-unsafe): read once at load
    const char *code = getenv("VOKT_CHECK_EXITCODE");  // NOLINT(concurrency-mt-unsafe): read once at load
    if (code && code[0] != '\0') g_exitCode = atoi(code);  // NOLINT(cert-err34-c): a number or nothing
    const char *suppressions = getenv("VOKT_CHECK_SUPPRESS");  // NOLINT(concurrency-mt-unsafe): read once at load
    if (suppressions && suppressions[0] != '\0') LoadSuppressions(suppressions);
    if (text && text[0] != '\0') SetChecks(ParseChecks(text));
}

// At exit: what is still alive, then the quarantine goes back to the allocator; a process
// that reported anything ends with VOKT_CHECK_EXITCODE when it is set, as the sanitizers do.
[[gnu::destructor]] void AtExit() {
    if (Checking(kCheckLeaks)) WriteLeaks(nullptr, "at exit", false);
    if (Checking(kCheckObjects)) ReleaseQuarantine(0);
    if (g_exitCode >= 0 && ReportsMade() > 0) {
        fflush(nullptr);
        _exit(g_exitCode);
    }
}

}  // namespace

// The checks' locks are taken last, after the runtime's Mutexes. One is taken inside
// another: a site is captured under a record stripe's lock (the site of a destruction), so
// the stripes come before the sites' lock; the others are each taken alone.
void ChecksForkPrepare() {
    RecordsFork(true, false);
    SitesFork(true);
    ReportFork(true);
    FramesFork(true);
    QuarantineFork(true);
    LockOrderFork(true);
}
void ChecksForkRelease(bool inChild) {
    LockOrderFork(false);
    QuarantineFork(false);
    FramesFork(false);
    ReportFork(false);
    SitesFork(false);
    RecordsFork(false, inChild);
}

}  // namespace vokt

extern "C" {

void Runtime_SetChecks(uint32_t flags) { vokt::SetChecks(flags); }

uint32_t Runtime_GetChecks(void) { return __atomic_load_n(&vokt::g_checks, __ATOMIC_RELAXED) & VOKT_CHECK_ALL; }

}  // extern "C"
