// Lets go of the Python lock for a stretch of blocking work. No Python object may be named in its scope.
#pragma once

#include <Python.h>

class ScopedGILRelease {
public:
  /// Releases the lock if the calling thread holds it; on any other thread it does nothing.
  ScopedGILRelease()
      : m_pThreadState(PyGILState_GetThisThreadState() && PyGILState_Check() ? PyEval_SaveThread() : nullptr) {}
  ScopedGILRelease(ScopedGILRelease const &) = delete;
  ScopedGILRelease &operator=(ScopedGILRelease const &) = delete;
  /// Takes the lock back. Behind the interpreter's end it does not return: Python then ends the thread, by an unwinding
  /// that has to pass.
  ~ScopedGILRelease() noexcept(false) {
    if (m_pThreadState)
      PyEval_RestoreThread(m_pThreadState);
  }

private:
  PyThreadState *m_pThreadState;
};
