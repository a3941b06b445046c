// SPDX-License-Identifier: MIT
// The library's fork handlers: each module's part, in lock order (vokt/internal/fork.h).
#include <pthread.h>

#include "vokt/internal/fork.h"

namespace {

void Prepare() {
    vokt::LogForkPrepare();
    vokt::ErrorStoreForkPrepare();
    vokt::ChecksForkPrepare();
}

void Parent() {
    vokt::ChecksForkRelease(false);
    vokt::ErrorStoreForkRelease();
    vokt::LogForkRelease();
}

void Child() {
    vokt::ChecksForkRelease(true);
    vokt::ThreadRegistryForkChild();
    vokt::MutexForkChild();
    vokt::ErrorStoreForkRelease();
    vokt::LogForkRelease();
}

// Registered when the library is loaded, so that it holds even before Runtime_Init.
[[maybe_unused]] const int g_forkHandlers = pthread_atfork(Prepare, Parent, Child);

}  // namespace
