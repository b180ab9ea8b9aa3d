// The lock of process-wide state as the standard library's lock classes take it. Thin and portable: written over the
// functions of Locks.h alone.
#pragma once

#include "platform/system/Locks.h"

/// A constant initialiser and no destructor, so that a thread may use it until the process is gone.
class SlimLock {
public:
  constexpr SlimLock() = default;
  SlimLock(SlimLock const &) = delete;
  SlimLock &operator=(SlimLock const &) = delete;

  void lock() { AcquireSRWLockExclusive(&m_lock); }
  bool try_lock() { return TryAcquireSRWLockExclusive(&m_lock); }
  void unlock() { ReleaseSRWLockExclusive(&m_lock); }

private:
  SRWLOCK m_lock = SRWLOCK_INIT;
};
