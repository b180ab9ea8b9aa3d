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
  ~ScopedGILRelease() {
    if (m_pThreadState)
      PyEval_RestoreThread(m_pThreadState);
  }

private:
  PyThreadState *m_pThreadState;
};
