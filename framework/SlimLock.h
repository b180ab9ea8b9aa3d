// The lock of process-wide state, with the interface that std::lock_guard and its kin need. Thin and portable: written
// over the functions of Locks.h alone. Thread: any.
#pragma once

#include "platform/system/Locks.h"

/// Constant-initialised and without a destructor, so that threads may use it until the process ends.
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
