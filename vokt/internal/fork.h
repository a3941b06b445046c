// SPDX-License-Identifier: MIT
// Private: the locks that must be held across fork(), so that a child never inherits one
// that a vanished thread was holding. The log takes them all, in lock order.
#ifndef VOKT_INTERNAL_FORK_H
#define VOKT_INTERNAL_FORK_H

namespace vokt {
void ErrorStoreForkPrepare();
void ErrorStoreForkRelease();
// The diagnostics' own locks, taken last.
void ChecksForkPrepare();
void ChecksForkRelease();
// In the child, the threads that did not come along are forgotten, and the one that forked
// asks for its new kernel identifier.
void ThreadRegistryForkChild();
void MutexForkChild();
}  // namespace vokt

#endif
