// A base class for an object that runs on an operating-system thread of its own, once.
// Thread: the owner, for everything but Run.
#pragma once

#include "framework/Handles.h"
#include "platform/system/Threads.h"

class Thread {
public:
  Thread() = default;
  Thread(Thread const &) = delete;
  Thread &operator=(Thread const &) = delete;
  /// Closes the handle without waiting: the owner calls Wait first.
  virtual ~Thread() = default;
  /// The thread's body, which must not throw. Returns: the exit code. Thread: the new one.
  virtual unsigned Run() = 0;

  /// Creates and starts the thread; m_hThread and m_uThreadId are set before any of its code runs.
  /// Returns: false if there is no thread; m_hThread stays null and m_uThreadId 0.
  bool Start();
  /// Blocks, without a time limit, until the thread has ended, and closes the handle.
  /// Returns: the exit code; 0xFFFFFFFF without a handle. Also 0xFFFFFFFF, and the handle stays, if the wait fails: a
  /// forked child has the parent's objects but not its threads.
  DWORD Wait();
  /// Blocks for at most that many ms. Returns: false if the thread still runs; Wait then blocks.
  bool EndsWithin(DWORD dwMilliseconds) const;

  KernelHandle m_hThread;   ///< Null until Start, and again after Wait.
  unsigned m_uThreadId = 0; ///< The system's id; 0 until Start.

private:
  static unsigned __stdcall Entry(void *pArg);
};
