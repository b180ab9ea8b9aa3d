// See ExitHook.h.
#include "publish/PyPresetUploader.h" // Python.h comes first

#include "publish/ExitHook.h"

#include "shell/ScopedGILRelease.h"

#include <atomic>
#include <new>
#include <set>
#include <vector>

namespace {

constexpr DWORD kExitWait = 5000; // ms, for all uploads together

std::atomic<bool> g_bExiting = false;

// Made with the first upload, never destroyed: a destructor may come after everything else.
std::set<PyPresetUploader *> &RunningUploads() {
  static std::set<PyPresetUploader *> &uploads = *new std::set<PyPresetUploader *>;
  return uploads;
}

void WaitForAll(std::vector<HANDLE> const &threads) {
  ScopedGILRelease const release;
  DWORD const dwStart = GetTickCount();
  for (HANDLE const hThread : threads) {
    DWORD const dwSpent = GetTickCount() - dwStart;
    WaitForSingleObject(hThread, dwSpent < kExitWait ? kExitWait - dwSpent : 0);
  }
}

PyObject *AtExit(PyObject *, PyObject *) {
  g_bExiting = true;
  try {
    std::vector<HANDLE> threads; // handles, since another thread may delete an uploader meanwhile
    for (PyPresetUploader *const pUploader : RunningUploads()) {
      pUploader->CancelUpload();
      threads.push_back(pUploader->UploadThread());
    }
    WaitForAll(threads);
  } catch (std::bad_alloc const &) {
    // then they are cancelled but not waited for
  }
  Py_RETURN_NONE;
}

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

} // namespace

void NoteRunningUpload(PyPresetUploader *pUploader) {
  static bool bRegistered = false;
  if (!bRegistered)
    bRegistered = RegisterHook();
  try {
    RunningUploads().insert(pUploader);
  } catch (std::bad_alloc const &) {
    // then it is not cancelled at exit
  }
}

void ForgetRunningUpload(PyPresetUploader *pUploader) { RunningUploads().erase(pUploader); }

bool ProcessIsExiting() { return g_bExiting; }
