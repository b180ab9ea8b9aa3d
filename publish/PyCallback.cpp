#include "publish/PyCallback.h"

PyCallback::~PyCallback() {
  *m_pAlive = false;
  SetCallable(nullptr);
}

void PyCallback::SetCallable(PyObject *pCallable) {
  PyObject *const pOld = m_pCallable;
  m_pCallable = pCallable && pCallable != Py_None ? pCallable : nullptr;
  Py_XINCREF(m_pCallable);
  Py_XDECREF(pOld); // last: it may run Python code that calls this object again
}

void PyCallback::Fire(char const *format, ...) {
  if (!m_pCallable)
    return;
  PyGILState_STATE const state = PyGILState_Ensure();
  // Read again, now with the GIL, since another thread may have replaced it. The new reference keeps it alive for the
  // call, since the callable may replace itself.
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
    char const szSingle[] = {'(', format[0], ')', '\0'}; // a single value would not become a tuple without parentheses
    pArguments = Py_VaBuildValue(format[1] ? format : szSingle, args);
    if (!pArguments) {
      PyErr_Print();
      return nullptr;
    }
  }
  // Building the tuple may run the garbage collector, which may destroy this object; then there is no call.
  PyObject *const pResult = bAlive ? PyObject_CallObject(pCallable, pArguments) : nullptr;
  Py_XDECREF(pArguments);
  if (PyErr_Occurred())
    PyErr_Print();
  return pResult;
}
