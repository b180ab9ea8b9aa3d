// A small base around one operating-system thread, used for one run.
#pragma once

#include "platform/system/Threads.h"

class Thread {
public:
  Thread() = default;
  Thread(Thread const &) = delete;
  Thread &operator=(Thread const &) = delete;
  /// Closes the handle; does not wait. Whoever destroys a thread object waits first.
  virtual ~Thread();
  /// The thread's body; its result is the exit code. Nothing may escape from it.
  virtual unsigned Run() = 0;

  /// Creates and starts the thread; m_hThread and m_uThreadId are in place before any of its code runs.
  bool Start();
  /// Blocks until the thread has ended and releases the handle.
  /// Returns: its exit code; 0xFFFFFFFF without a handle, or for one that can't be waited for (a forked child has the
  /// parent's objects but not its threads), which then stays.
  DWORD Wait();

  /// Lets a started thread run that Start's ResumeThread failed to; nothing changes for one that runs.
  /// Returns: false if it can't be made to run, or is the parent's in a forked child.
  bool MakeRun();

  HANDLE m_hThread = nullptr; ///< Null until Start, and again after Wait. Owned.
  unsigned m_uThreadId = 0;   ///< The platform's id; 0 until Start.

private:
  static unsigned Entry(void *pArg);
};
