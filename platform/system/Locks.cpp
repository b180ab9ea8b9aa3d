#include "platform/system/Locks.h"

#include "platform/base/Fork.h"

void AcquireSRWLockExclusive(SRWLOCK *pLock) {
  NoForkScope::Enter();
  pLock->mutex.lock();
}

BOOLEAN TryAcquireSRWLockExclusive(SRWLOCK *pLock) {
  NoForkScope const scope;
  bool const isFree = pLock->mutex.try_lock();
  if (isFree)
    NoForkScope::Enter();
  return isFree;
}

void ReleaseSRWLockExclusive(SRWLOCK *pLock) {
  pLock->mutex.unlock();
  NoForkScope::Leave();
}
