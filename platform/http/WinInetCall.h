// What the functions of WinInet.h share: the last error, the failure of a chosen call, the lookup of a handle. No
// exception leaves a call. Any thread.
#pragma once

#include "platform/base/LastError.h"
#include "platform/base/Seam.h"
#include "platform/http/HandleTree.h"
#include "platform/http/WinInet.h"

#include <atomic>
#include <memory>
#include <utility>

/// Sets the last error unless it is ERROR_SUCCESS. Returns: TRUE for ERROR_SUCCESS.
inline BOOL ReportResult(DWORD error) { return error == ERROR_SUCCESS ? TRUE : Fail(error, FALSE); }

/// Runs one call's work, which returns an error number; running out of memory becomes one.
template <class Work> BOOL RunCall(Work work) {
  DWORD error = ERROR_NOT_ENOUGH_MEMORY;
  try {
    error = work();
  } catch (...) {
    // memory is all that can fail by exception here
  }
  return ReportResult(error);
}

/// The same for a call that a test can make fail.
template <class Work> BOOL RunCall(FaultPoint point, Work work) { return !FaultAt(point) && RunCall(work); }

/// Finds the entry of a handle. Returns: an error number.
template <class Entry> DWORD FindEntry(HINTERNET handle, std::shared_ptr<Entry> &found) {
  std::shared_ptr<HandleEntry> const entry = FindHandle(handle);
  found = std::dynamic_pointer_cast<Entry>(entry);
  return found ? ERROR_SUCCESS : entry ? ERROR_INTERNET_INCORRECT_HANDLE_TYPE : ERROR_INVALID_HANDLE;
}

/// Runs work on a request, unless another call runs on it: from a second thread, or around a status callback.
template <class Work> DWORD RunExclusively(RequestEntry &request, Work work) {
  if (request.isBusy.exchange(true))
    return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  struct Release {
    std::atomic<bool> &isBusy;
    ~Release() { isBusy = false; }
  } const release{request.isBusy};
  return work(request);
}

/// The same for the request of a handle.
template <class Work> DWORD RunOnRequest(HINTERNET handle, Work work) {
  std::shared_ptr<RequestEntry> request;
  DWORD const error = FindEntry(handle, request);
  return error != ERROR_SUCCESS ? error : RunExclusively(*request, work);
}
