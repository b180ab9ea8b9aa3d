// Releases the GIL for the length of a scope that blocks. No Python object may be used in that scope.
#pragma once

#include <Python.h>

class ScopedGILRelease {
public:
  /// Releases the GIL if the calling thread holds it; otherwise does nothing.
  ScopedGILRelease()
      : m_pThreadState(PyGILState_GetThisThreadState() && PyGILState_Check() ? PyEval_SaveThread() : nullptr) {}
  ScopedGILRelease(ScopedGILRelease const &) = delete;
  ScopedGILRelease &operator=(ScopedGILRelease const &) = delete;
  /// Takes the GIL back. During finalization this does not return: Python ends the thread by unwinding its stack, and a
  /// noexcept destructor would turn that into std::terminate.
  ~ScopedGILRelease() noexcept(false) {
    if (m_pThreadState)
      PyEval_RestoreThread(m_pThreadState);
  }

private:
  PyThreadState *m_pThreadState;
};
