// Locks: the slim one for state of the whole process, and the recursive critical section. Any thread.
#pragma once

#include "platform/base/Types.h"

#include <atomic>
#include <mutex>

using BOOLEAN = BYTE;

/// A lock for state of the whole process: initialised statically and never destroyed. Not recursive.
/// Differs: exclusive only. From its first use on it is held across each fork, so that a forked child finds it free and
/// what it guards whole.
struct SRWLOCK {
  std::mutex mutex;
  std::atomic<bool> bHeldAcrossFork = false;
};
#define SRWLOCK_INIT                                                                                                   \
  {}
SKIFFPORT_PLATFORM_API void AcquireSRWLockExclusive(SRWLOCK *pLock);
SKIFFPORT_PLATFORM_API BOOLEAN TryAcquireSRWLockExclusive(SRWLOCK *pLock);
SKIFFPORT_PLATFORM_API void ReleaseSRWLockExclusive(SRWLOCK *pLock);

/// A recursive lock of one process.
struct CRITICAL_SECTION {
  std::recursive_mutex mutex;
};
inline void InitializeCriticalSection(CRITICAL_SECTION *) {}
inline void EnterCriticalSection(CRITICAL_SECTION *pSection) { pSection->mutex.lock(); }
inline void LeaveCriticalSection(CRITICAL_SECTION *pSection) { pSection->mutex.unlock(); }
inline void DeleteCriticalSection(CRITICAL_SECTION *) {}
