// SPDX-License-Identifier: MIT
// Each thread's part of the checks: made on the thread's first need, in the checks' own
// memory, and released when the thread ends.
#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include "vokt/checks/internal/common.h"
#include "vokt/checks/internal/json.h"

namespace vokt {

__thread CheckThread *t_checkThread __attribute__((tls_model("initial-exec"))) = nullptr;

namespace {
pthread_key_t g_threadKey;
pthread_once_t g_threadKeyOnce = PTHREAD_ONCE_INIT;
uint32_t g_threadCount = 0;

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

// Each numbered thread's system identifier and name, by number, for the first kNamed.
constexpr uint32_t kNamed = 1u << 16;
struct Named {
    int tid;
    char name[16];
};
Named *g_named = nullptr;
SpinLock g_namedLock;

uint32_t ThreadNumber() {
    CheckThread *me = Me();
    if (me->number == 0) {
        me->number = __atomic_add_fetch(&g_threadCount, 1, __ATOMIC_RELAXED);
        NoteThread();
    }
    return me->number;
}

void NoteThread() {
    const uint32_t number = ThreadNumber();
    Named now{static_cast<int>(gettid()), ""};
    pthread_getname_np(pthread_self(), now.name, sizeof now.name);
    SpinGuard guard(g_namedLock);
    if (number < kNamed && MapArray(g_named, kNamed)) g_named[number] = now;
}

Line &Line::AddThread(uint32_t number) {
    Named named{};
    {
        SpinGuard guard(g_namedLock);
        if (g_named && number < kNamed) named = g_named[number];
    }
    Add("thread %u", number);
    char name[6 * sizeof named.name + 3];
    checks::JsonString(name, sizeof name, named.name, strnlen(named.name, sizeof named.name));
    Put(Field::kThreads, "{\"number\":%u,\"tid\":%d,\"name\":%s}", number, named.tid, name);
    if (named.tid == 0) return *this;
    return named.name[0] ? Add(" (%d \"%s\")", named.tid, named.name) : Add(" (%d)", named.tid);
}

KeptForProcess::KeptForProcess() {
    if (Checking(kCheckLeaks | kCheckObjects)) (me_ = Me())->kept++;
}
KeptForProcess::~KeptForProcess() {
    if (me_) me_->kept--;
}

}  // namespace vokt
