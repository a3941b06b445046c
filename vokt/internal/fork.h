// SPDX-License-Identifier: MIT
// Private: what each module does around fork(). A child of fork() has only the thread that
// forked; any lock another thread held at that moment would stay held in the child for ever.
// So fork waits until it can take the runtime's locks, in their usual order (the log's, the
// error store's, the checks' own last), and both sides release them afterwards
// (vokt/core/fork.cpp).
#ifndef VOKT_INTERNAL_FORK_H
#define VOKT_INTERNAL_FORK_H

namespace vokt {
void LogForkPrepare();
void LogForkRelease();
void ErrorStoreForkPrepare();
void ErrorStoreForkRelease();
void ChecksForkPrepare();
void ChecksForkRelease(bool inChild);
// In the child, the threads that did not come along are forgotten, and the one that forked
// asks for its new kernel identifier.
void ThreadRegistryForkChild();
void MutexForkChild();
}  // namespace vokt

#endif
