// See PyCallback.h.
#include "publish/PyCallback.h"

PyCallback::~PyCallback() {
  *m_pAlive = false;
  SetCallable(nullptr);
}

void PyCallback::SetCallable(PyObject *pCallable) {
  PyObject *const pOld = m_pCallable;
  m_pCallable = pCallable && pCallable != Py_None ? pCallable : nullptr;
  Py_XINCREF(m_pCallable);
  Py_XDECREF(pOld); // last: it may run Python code that comes back here
}

void PyCallback::Fire(char const *format, ...) {
  if (!m_pCallable)
    return;
  PyGILState_STATE const state = PyGILState_Ensure();
  // Looked at again and kept for the call: another thread may have set it meanwhile, and so may the callable itself.
  if (PyObject *const pCallable = m_pCallable) {
    Py_INCREF(pCallable);
    std::shared_ptr<bool> const pAlive = m_pAlive;
    va_list args;
    va_start(args, format);
    PyObject *const pResult = CallWithFormat(pCallable, *pAlive, format, args);
    va_end(args);
    Py_XDECREF(pResult);
    Py_DECREF(pCallable);
  }
  PyGILState_Release(state);
}

PyObject *PyCallback::CallWithFormat(PyObject *pCallable, bool const &bAlive, char const *format, va_list args) {
  PyObject *pArguments = nullptr;
  if (format && format[0]) {
    char const szSingle[] = {'(', format[0], ')', '\0'}; // one value alone would not come out as a tuple
    pArguments = Py_VaBuildValue(format[1] ? format : szSingle, args);
    if (!pArguments) {
      PyErr_Print();
      return nullptr;
    }
  }
  // Making the tuple may have run the collector, and that the destructor: a destroyed object makes no call.
  PyObject *const pResult = bAlive ? PyObject_CallObject(pCallable, pArguments) : nullptr;
  Py_XDECREF(pArguments);
  if (PyErr_Occurred())
    PyErr_Print();
  return pResult;
}
