// Holds one Python callable and calls it with arguments that a format string describes.
#pragma once

#include <Python.h>

#include <cstdarg>
#include <memory>

class PyCallback {
public:
  PyCallback() = default;
  PyCallback(PyCallback const &) = delete;
  PyCallback &operator=(PyCallback const &) = delete;
  virtual ~PyCallback();

  /// Replaces the callable; null and None mean none. Takes a reference of its own. Thread: with the interpreter lock.
  void SetCallable(PyObject *pCallable);
  /// Calls the callable with the values that `format` (as of Py_BuildValue) describes, if there is one; a callable that
  /// raises, or arguments that can't be built, have their traceback printed. Thread: any, with or without the
  /// interpreter lock. The callable may destroy this object.
  void Fire(char const *format, ...);

private:
  /// Calls, unless building the arguments destroyed the object. `pCallable` is borrowed and alive for the call.
  /// Returns: a new reference to the result, or null.
  static PyObject *CallWithFormat(PyObject *pCallable, bool const &bAlive, char const *format, va_list args);

  PyObject *m_pCallable = nullptr;                               ///< Owned; never None.
  std::shared_ptr<bool> m_pAlive = std::make_shared<bool>(true); ///< Tells a call under way that the object is gone.
};
