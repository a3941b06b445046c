// SPDX-License-Identifier: MIT
// Each thread's part of the checks: made on the thread's first need, in the checks' own
// memory, and released when the thread ends.
#include <pthread.h>

#include "vokt/checks/internal/common.h"

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

uint32_t ThreadNumber() {
    CheckThread *me = Me();
    if (me->number == 0) me->number = __atomic_add_fetch(&g_threadCount, 1, __ATOMIC_RELAXED);
    return me->number;
}

KeptForProcess::KeptForProcess() {
    if (Checking(kCheckLeaks | kCheckObjects)) (me_ = Me())->kept++;
}
KeptForProcess::~KeptForProcess() {
    if (me_) me_->kept--;
}

}  // namespace vokt
