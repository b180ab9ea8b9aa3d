// Holds one Python callable and calls it with arguments built from a format string.
// Thread: any; what needs the GIL says so.
#pragma once

#include <Python.h>

#include <cstdarg>
#include <memory>

class PyCallback {
public:
  PyCallback() = default;
  PyCallback(PyCallback const &) = delete;
  PyCallback &operator=(PyCallback const &) = delete;
  /// Releases the callable. Thread: with the GIL.
  virtual ~PyCallback();

  /// Replaces the callable; null and None mean none. Takes a new reference. Thread: with the GIL.
  void SetCallable(PyObject *pCallable);
  /// Calls the callable, if there is one, with the values that `format` (as for Py_BuildValue) describes. Acquires the
  /// GIL for the call; a caller that holds it may call too. The callable may destroy this object.
  /// Errors: prints the traceback when the callable raises or its arguments can't be built.
  void Fire(char const *format, ...);

private:
  /// Builds the arguments and calls, unless building them destroyed the object. `pCallable` is borrowed for the call.
  /// Returns: a new reference to the result, or null.
  static PyObject *CallWithFormat(PyObject *pCallable, bool const &bAlive, char const *format, va_list args);

  PyObject *m_pCallable = nullptr; ///< Owned; never None.
  std::shared_ptr<bool> m_pAlive =
      std::make_shared<bool>(true); ///< False for a call in progress once the object is gone.
};
