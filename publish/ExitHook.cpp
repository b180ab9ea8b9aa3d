#include <Python.h>

#include "publish/ExitHook.h"

#include "framework/Handles.h"
#include "framework/SlimLock.h"
#include "platform/base/Clock.h"
#include "shell/ScopedGILRelease.h"

#include <cstddef>
#include <map>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

namespace {

constexpr DWORD kExitWait = 5000; // ms, for all uploads together

std::atomic<bool> g_bExiting = false;

/// What the hook needs of an upload; it stays valid if the uploader is destroyed meanwhile.
class RunningUpload {
public:
  /// If the handle can't be duplicated, the upload is cancelled but not waited for.
  RunningUpload(CancelFlag pCancel, HANDLE hThread) : m_pCancel(std::move(pCancel)) {
    HANDLE hCopy = nullptr;
    DuplicateHandle(GetCurrentProcess(), hThread, GetCurrentProcess(), &hCopy, 0, FALSE, DUPLICATE_SAME_ACCESS);
    m_hThread.reset(hCopy);
  }
  void Cancel() const { *m_pCancel = 1; }
  void Wait(DWORD dwMilliseconds) const {
    if (m_hThread)
      WaitForSingleObject(m_hThread.get(), dwMilliseconds);
  }

private:
  CancelFlag m_pCancel;
  KernelHandle m_hThread;
};

// The innermost lock: while it is held, nothing runs Python code, waits for the GIL or calls the platform.
constinit SlimLock g_lock;

using Uploads = std::map<std::atomic<BYTE> const *, std::shared_ptr<RunningUpload const>>;

// Requires g_lock. Never destroyed, since an uploader's destructor may run after static destruction. Constructed
// without allocating, since the first call may come from a destructor.
Uploads &RunningUploads() {
  alignas(Uploads) static std::byte s_storage[sizeof(Uploads)];
  static Uploads &uploads = *new (s_storage) Uploads;
  return uploads;
}

// Returns: the uploads that were running, or only some of them when out of memory.
std::vector<std::shared_ptr<RunningUpload const>> CancelAll() {
  std::vector<std::shared_ptr<RunningUpload const>> running;
  std::lock_guard<SlimLock> const lock(g_lock);
  for (auto const &[pKey, pUpload] : RunningUploads())
    pUpload->Cancel();
  try {
    for (auto const &[pKey, pUpload] : RunningUploads())
      running.push_back(pUpload);
  } catch (std::bad_alloc const &) {
    // all are cancelled, but not all are waited for
  }
  return running;
}

void CancelAllAndWait() {
  ScopedGILRelease const release;
  auto const running = CancelAll();
  DWORD const dwStart = GetTickCount();
  for (auto const &pUpload : running) {
    DWORD const dwSpent = GetTickCount() - dwStart;
    pUpload->Wait(dwSpent < kExitWait ? kExitWait - dwSpent : 0);
  }
}

PyObject *AtExit(PyObject *, PyObject *) {
  g_bExiting = true;
  CancelAllAndWait();
  Py_RETURN_NONE;
}

// The interpreter's own dictionary records whether the hook is registered, so that an interpreter which is started
// anew, after an end that ran the hook, gets a hook again. Returns: a borrowed reference, null if there is none.
PyObject *InterpreterDict() { return PyInterpreterState_GetDict(PyInterpreterState_Main()); }

bool RegisterHook() {
  static PyMethodDef definition = {"_end_uploads", AtExit, METH_NOARGS, nullptr};
  PyObject *const pModule = PyImport_ImportModule("atexit");         // new
  PyObject *const pFunction = PyCFunction_New(&definition, nullptr); // new
  PyObject *const pResult =                                          // new
      pModule && pFunction ? PyObject_CallMethod(pModule, "register", "O", pFunction) : nullptr;
  bool const bDone = pResult != nullptr;
  Py_XDECREF(pResult);
  Py_XDECREF(pFunction);
  Py_XDECREF(pModule);
  if (!bDone)
    PyErr_Clear();
  return bDone;
}

void EnsureHook() {
  constexpr char kKey[] = "_Skiffport._end_uploads";
  PyObject *const pDict = InterpreterDict(); // borrowed
  if (!pDict || PyDict_GetItemString(pDict, kKey))
    return;
  // The mark is set first: registering runs Python code, so other threads may come here meanwhile.
  g_bExiting = false;
  if (PyDict_SetItemString(pDict, kKey, Py_True) != 0 || !RegisterHook()) {
    PyErr_Clear();
    if (PyDict_DelItemString(pDict, kKey) != 0)
      PyErr_Clear();
  }
}

} // namespace

void AddRunningUpload(CancelFlag const &pCancel, HANDLE hThread) {
  EnsureHook();
  try {
    auto pUpload = std::make_shared<RunningUpload const>(pCancel, hThread);
    std::lock_guard<SlimLock> const lock(g_lock);
    RunningUploads().emplace(pCancel.get(), std::move(pUpload));
  } catch (std::bad_alloc const &) {
    // the upload is not cancelled at exit
  }
}

void RemoveRunningUpload(CancelFlag const &pCancel) {
  Uploads::node_type node; // declared before the lock, so that it closes its handle after the lock is released
  std::lock_guard<SlimLock> const lock(g_lock);
  node = RunningUploads().extract(pCancel.get());
}

bool ProcessIsExiting() { return g_bExiting; }
