// Locks: the slim one for process-wide state, and the recursive critical section. Thread: any, for every function here;
// the thread that acquired a lock releases it.
#pragma once

#include "platform/base/Types.h"

#include <mutex>

using BOOLEAN = BYTE;

/// A lock for process-wide state: initialised statically and never destroyed. Not recursive.
/// Differs: exclusive only. A fork waits until it is free, so that a forked child finds what it guards consistent.
struct SRWLOCK {
  std::mutex mutex;
};
#define SRWLOCK_INIT                                                                                                   \
  {}
/// Blocks until the lock is free.
SKIFFPORT_PLATFORM_API void AcquireSRWLockExclusive(SRWLOCK *pLock);
/// Returns: 0 at once if the lock is not free.
SKIFFPORT_PLATFORM_API BOOLEAN TryAcquireSRWLockExclusive(SRWLOCK *pLock);
SKIFFPORT_PLATFORM_API void ReleaseSRWLockExclusive(SRWLOCK *pLock);

/// A recursive lock. Differs: nothing is done about it at a fork.
struct CRITICAL_SECTION {
  std::recursive_mutex mutex;
};
inline void InitializeCriticalSection(CRITICAL_SECTION *) {}
inline void EnterCriticalSection(CRITICAL_SECTION *pSection) { pSection->mutex.lock(); }
inline void LeaveCriticalSection(CRITICAL_SECTION *pSection) { pSection->mutex.unlock(); }
inline void DeleteCriticalSection(CRITICAL_SECTION *) {}
