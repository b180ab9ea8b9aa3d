// The extension skiffhost._messageloop: the platform's message queue of the calling thread, for Python event loops.
// Any thread may call in; each sees its own queue. Knows nothing of uploads or of the Skiffport module.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include "platform/window/Messages.h"

#include <climits>
#include <cmath>

namespace {

char const kFilenoDoc[] = "fileno() -> int\n\n"
                          "A descriptor that is readable while the calling thread's queue holds messages. The queue\n"
                          "owns it: do not read, write or close it. Raises OSError if none can be had.";

char const kPumpDoc[] =
    "pump(limit=64) -> int\n\n"
    "Runs at most `limit` of the messages that the calling thread's queue holds now, in order, and\n"
    "returns how many ran. Callbacks run inside; what they raise is printed and dropped, also what a\n"
    "signal handler raises inside them. SystemExit in a callback ends the process at once.";

char const kWaitDoc[] = "wait(timeout=None) -> bool\n\n"
                        "Waits until the calling thread's queue holds a message, at most `timeout` seconds, with the\n"
                        "interpreter lock released. Returns whether it holds one; a signal ends the wait early.";

char const kReleaseDoc[] = "release() -> bool\n\n"
                           "Gives up the calling thread's queue and its descriptor if no object needs it any more.\n"
                           "Returns whether it is gone.";

PyObject *Fileno(PyObject *, PyObject *) {
  int const descriptor = MessageQueueDescriptor();
  if (descriptor < 0) {
    PyErr_SetString(PyExc_OSError, "this thread can have no message queue");
    return nullptr;
  }
  return PyLong_FromLong(descriptor);
}

PyObject *Pump(PyObject *, PyObject *args, PyObject *keywords) {
  static char const *const names[] = {"limit", nullptr};
  int limit = 64;
  if (!PyArg_ParseTupleAndKeywords(args, keywords, "|i:pump", const_cast<char **>(names), &limit))
    return nullptr;
  if (limit < 1) {
    PyErr_SetString(PyExc_ValueError, "limit must be at least 1");
    return nullptr;
  }
  int const ran = PumpMessages(limit);
  if (PyErr_CheckSignals() != 0)
    return nullptr;
  return PyLong_FromLong(ran);
}

/// Turns seconds or None into milliseconds, rounded up; -1 means without limit. Returns: false with an exception set.
bool ToMilliseconds(PyObject *timeout, int &milliseconds) {
  milliseconds = -1;
  if (timeout == Py_None)
    return true;
  double const seconds = PyFloat_AsDouble(timeout);
  if (seconds == -1.0 && PyErr_Occurred())
    return false;
  if (!(seconds >= 0.0)) {
    PyErr_SetString(PyExc_ValueError, "timeout must be a number of seconds, 0 or more, or None");
    return false;
  }
  double const rounded = std::ceil(seconds * 1000.0);
  if (rounded < INT_MAX)
    milliseconds = static_cast<int>(rounded);
  return true;
}

PyObject *Wait(PyObject *, PyObject *args, PyObject *keywords) {
  static char const *const names[] = {"timeout", nullptr};
  PyObject *timeout = Py_None; // borrowed
  int milliseconds = -1;
  if (!PyArg_ParseTupleAndKeywords(args, keywords, "|O:wait", const_cast<char **>(names), &timeout) ||
      !ToMilliseconds(timeout, milliseconds))
    return nullptr;
  // A signal that arrived before the wait does not interrupt it, so its handler runs first.
  if (PyErr_CheckSignals() != 0)
    return nullptr;
  int outcome = 0;
  Py_BEGIN_ALLOW_THREADS;
  outcome = WaitForMessages(milliseconds);
  Py_END_ALLOW_THREADS;
  if (PyErr_CheckSignals() != 0)
    return nullptr;
  return PyBool_FromLong(outcome > 0);
}

PyObject *Release(PyObject *, PyObject *) { return PyBool_FromLong(ReleaseMessageQueue()); }

template <PyObject *(*Function)(PyObject *, PyObject *, PyObject *)> PyCFunction WithKeywords() {
  return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(Function));
}

PyMethodDef methods[] = {
    {"fileno", Fileno, METH_NOARGS, kFilenoDoc},
    {"pump", WithKeywords<Pump>(), METH_VARARGS | METH_KEYWORDS, kPumpDoc},
    {"wait", WithKeywords<Wait>(), METH_VARARGS | METH_KEYWORDS, kWaitDoc},
    {"release", Release, METH_NOARGS, kReleaseDoc},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef definition = {PyModuleDef_HEAD_INIT,
                          "_messageloop",
                          "The calling thread's message queue.",
                          0,
                          methods,
                          nullptr,
                          nullptr,
                          nullptr,
                          nullptr};

} // namespace

// CPython before 3.9 leaves the visibility of the entry to the module.
extern "C" __attribute__((visibility("default"))) PyObject *PyInit__messageloop() {
  return PyModuleDef_Init(&definition);
}
