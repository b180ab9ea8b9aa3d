// The extension skiffhost._messageloop: what a host owes the threads that use the Skiffport module. Gives Python event
// loops access to the calling thread's message queue, and initialises COM. Knows nothing of uploads or of that module.
//
// Thread: any, with the GIL held; each thread has a queue of its own.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include "platform/base/Com.h"
#include "platform/window/Messages.h"

#include <climits>
#include <cmath>

namespace {

// How long to wait, in ms, before looking for a signal: on Windows one does not end the wait.
#ifdef _WIN32
constexpr int kLongestWait = 100;
#else
constexpr int kLongestWait = INT_MAX;
#endif

char const kFilenoDoc[] = "fileno() -> int\n\n"
                          "A descriptor that is readable while the calling thread's queue holds messages. The queue\n"
                          "owns it: do not read, write or close it. Raises OSError if there is none, as on Windows.";

char const kPumpDoc[] =
    "pump(limit=64) -> int\n\n"
    "Runs at most `limit` of the messages that are in the calling thread's queue now, in order, and\n"
    "returns how many ran. Callbacks run inside this call. Their exceptions are printed and dropped,\n"
    "including those that a signal handler raises in them; SystemExit ends the process at once.";

char const kWaitDoc[] = "wait(timeout=None) -> bool\n\n"
                        "Releases the GIL and waits until the calling thread's queue holds a message, for at most\n"
                        "`timeout` seconds. Returns whether it holds one. A signal ends the wait early; on Windows\n"
                        "its handler runs within a tenth of a second, and the wait goes on.";

char const kReleaseDoc[] = "release() -> bool\n\n"
                           "Frees the calling thread's queue and its descriptor unless an object still needs them.\n"
                           "Returns whether the thread has no queue now.";

char const kInitializeThreadDoc[] =
    "initialize_thread() -> bool\n\n"
    "Initialises COM for the calling thread, as every thread must that makes service requests, before\n"
    "its first one. Again does no harm. Returns whether this was the first time.";

PyObject *Fileno(PyObject *, PyObject *) {
  int const descriptor = MessageQueueDescriptor();
  if (descriptor < 0) {
    PyErr_SetString(PyExc_OSError, "this thread's message queue has no descriptor");
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

/// Converts seconds to milliseconds, rounded up, and None to -1, which means no limit. Returns: false with an exception
/// set if the value is not valid.
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
  // A signal that arrived before the wait would not interrupt it, so its handler runs now.
  if (PyErr_CheckSignals() != 0)
    return nullptr;
  for (int left = milliseconds;;) {
    int const slice = left >= 0 && left < kLongestWait ? left : kLongestWait;
    int outcome = 0;
    Py_BEGIN_ALLOW_THREADS;
    outcome = WaitForMessages(slice);
    Py_END_ALLOW_THREADS;
    if (PyErr_CheckSignals() != 0)
      return nullptr;
    if (outcome != 0 || slice == left)
      return PyBool_FromLong(outcome > 0);
    if (left > 0)
      left -= slice;
  }
}

PyObject *Release(PyObject *, PyObject *) { return PyBool_FromLong(ReleaseMessageQueue()); }

// A thread that is set up for another kind of COM (a negative result) can read replies, too.
PyObject *InitializeThread(PyObject *, PyObject *) { return PyBool_FromLong(CoInitialize(nullptr) == S_OK); }

template <PyObject *(*Function)(PyObject *, PyObject *, PyObject *)> PyCFunction WithKeywords() {
  return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(Function));
}

PyMethodDef methods[] = {
    {"fileno", Fileno, METH_NOARGS, kFilenoDoc},
    {"pump", WithKeywords<Pump>(), METH_VARARGS | METH_KEYWORDS, kPumpDoc},
    {"wait", WithKeywords<Wait>(), METH_VARARGS | METH_KEYWORDS, kWaitDoc},
    {"release", Release, METH_NOARGS, kReleaseDoc},
    {"initialize_thread", InitializeThread, METH_NOARGS, kInitializeThreadDoc},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef definition = {PyModuleDef_HEAD_INIT,
                          "_messageloop",
                          "The calling thread's message queue, and COM.",
                          0,
                          methods,
                          nullptr,
                          nullptr,
                          nullptr,
                          nullptr};

} // namespace

// The build makes this file's symbols visible, since PyMODINIT_FUNC does so on every system only from CPython 3.9 on.
PyMODINIT_FUNC PyInit__messageloop() { return PyModuleDef_Init(&definition); }
