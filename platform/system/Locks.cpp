// See Locks.h.
#include "platform/system/Locks.h"

#include "platform/base/Fork.h"

void AcquireSRWLockExclusive(SRWLOCK *pLock) {
  HoldAcrossFork(pLock->mutex, pLock->isHeldAcrossFork);
  pLock->mutex.lock();
}

BOOLEAN TryAcquireSRWLockExclusive(SRWLOCK *pLock) {
  HoldAcrossFork(pLock->mutex, pLock->isHeldAcrossFork);
  return pLock->mutex.try_lock();
}

void ReleaseSRWLockExclusive(SRWLOCK *pLock) { pLock->mutex.unlock(); }
